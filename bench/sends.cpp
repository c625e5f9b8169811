#include "sends.h"

#include "drain.h"
#include "l2vpnd.h"
#include "measure.h"

#include <platform/event_loop.h>
#include <platform/ipc.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint32_t class_id = 0, mtu = 65536;
constexpr size_t greeting_size = 24, kind_at = 7; /* the low byte of a greeting's kind */
constexpr char answer_kind = 2;
constexpr int link_patience_ms = 10000;

/* While it lives, this thread and what it forks run on one of the processors that they may run on. Who sends is on the
 * first and who takes on the last, or it would depend on where the kernel puts them how often each waits. */
class place {
public:
    place() { sched_getaffinity(0, sizeof before_, &before_); }
    ~place() { sched_setaffinity(0, sizeof before_, &before_); }
    place(const place &) = delete;
    place &operator=(const place &) = delete;

    void on_first() const { stay(0); }
    void on_last() const { stay(CPU_COUNT(&before_) - 1); }

private:
    void stay(int nth) const
    {
        cpu_set_t one;
        CPU_ZERO(&one);
        for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
            if (CPU_ISSET(processor, &before_) && nth-- == 0)
                CPU_SET(processor, &one);
        }
        sched_setaffinity(0, sizeof one, &one);
    }

    cpu_set_t before_ = {};
};

/* The other end of one socket, in a process of its own: answers a greeting with itself, takes whatever else comes. */
class sink {
public:
    explicit sink(const char *name)
    {
        const std::string path = std::string(getenv("L2VPN_RUNTIME_DIR")) + "/" + name + ".sock";
        path.copy(address_.sun_path, sizeof address_.sun_path - 1);
        const int listening = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        if (bind(listening, address(), sizeof address_) != 0 || listen(listening, 1) != 0)
            fail(path + ": " + strerror(errno));
        id_ = fork();
        if (id_ < 0)
            fail("fork: " + std::string(strerror(errno)));
        if (id_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); /* whatever ends the benchmark */
            take_all(accept(listening, nullptr, nullptr));
        }
        close(listening);
    }
    ~sink()
    {
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
    }
    sink(const sink &) = delete;
    sink &operator=(const sink &) = delete;

    const sockaddr *address() const { return reinterpret_cast<const sockaddr *>(&address_); }

private:
    [[noreturn]] static void take_all(int socket)
    {
        std::vector<char> room(mtu);
        for (ssize_t size = 0; (size = recv(socket, room.data(), room.size(), 0)) > 0;) {
            if (size != greeting_size)
                continue;
            room[kind_at] = answer_kind;
            send(socket, room.data(), greeting_size, MSG_NOSIGNAL);
        }
        _exit(0);
    }

    sockaddr_un address_ = {AF_UNIX, {}};
    pid_t id_;
};

class platform_link {
public:
    platform_link() : events_(event_mgr_new())
    {
        const auto on_message = [](l2vpn_ipc_client_t, uint32_t, uint32_t, void *, uint32_t, uint32_t,
                                   void *) {};
        const auto on_event = [](l2vpn_ipc_client_t, uint32_t, uint32_t, l2vpn_ipc_evt_t event, uint32_t,
                                 void *up) { *static_cast<bool *>(up) = event == L2VPN_IPC_EVT_CONNECTED; };
        if (events_ == nullptr || l2vpn_ipc_client_init(events_, "platform", &client_) != EOK ||
            l2vpn_ipc_class_init(client_, class_id, 1, on_message, on_event, nullptr, &up_) != EOK)
            fail("the platform has no link");
        for (int looks = 0; !up_ && looks < link_patience_ms / 100; ++looks)
            event_mgr_dispatch(events_, 100);
        if (!up_)
            fail("the platform's link does not come up");
    }
    ~platform_link() { l2vpn_ipc_class_deinit(client_, class_id, 0); }
    platform_link(const platform_link &) = delete;
    platform_link &operator=(const platform_link &) = delete;

    void put(const std::vector<iovec> &pieces) const
    {
        if (l2vpn_ipc_ucastv(client_, class_id, L2VPN_IPC_DEST_L2VPN, pieces.data(),
                             static_cast<uint32_t>(pieces.size()), 0) != EOK)
            fail("the platform does not send");
    }

private:
    event_mgr_p events_;
    l2vpn_ipc_client_t client_ = nullptr;
    bool up_ = false;
};

/* Like that of a link: it never blocks, and has room for as much. */
class bare_socket {
public:
    explicit bare_socket(const sink &to)
        : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        fit_socket(fd_, mtu);
        if (connect(fd_, to.address(), sizeof(sockaddr_un)) != 0)
            fail("connect: " + std::string(strerror(errno)));
    }
    ~bare_socket() { close(fd_); }
    bare_socket(const bare_socket &) = delete;
    bare_socket &operator=(const bare_socket &) = delete;

    void put(const std::vector<iovec> &pieces) const
    {
        msghdr header = {};
        header.msg_iov = const_cast<iovec *>(pieces.data());
        header.msg_iovlen = pieces.size();
        while (sendmsg(fd_, &header, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            pollfd room = {fd_, POLLOUT, 0};
            if (errno != EAGAIN || poll(&room, 1, link_patience_ms) != 1)
                fail("sendmsg: " + std::string(strerror(errno)));
        }
    }

private:
    int fd_;
};

/* The messages of a create of so many ACs, cut as the library cuts them. */
class create_messages {
public:
    explicit create_messages(uint32_t acs)
        : handles_(acs), definitions_(acs), infos_(size_t{acs} * info_size), headers_(acs)
    {
        constexpr uint32_t each =
            (mtu - sizeof headers_[0]) / (sizeof(ifhtype) + sizeof definitions_[0] + info_size);
        for (uint32_t first = 0; first < acs; first += each) {
            const size_t count = std::min(each, acs - first);
            all_.push_back({{&headers_[all_.size()], sizeof headers_[0]},
                            {&handles_[first], count * sizeof handles_[0]},
                            {&definitions_[first], count * sizeof definitions_[0]},
                            {&infos_[size_t{first} * info_size], count * info_size}});
        }
    }

    const std::vector<std::vector<iovec>> &all() const { return all_; }

    size_t bytes() const
    {
        size_t sum = 0;
        for (const std::vector<iovec> &pieces : all_)
            for (const iovec &piece : pieces)
                sum += piece.iov_len;
        return sum;
    }

private:
    static constexpr uint32_t info_size = 20;

    std::vector<ifhtype> handles_;
    std::vector<l2vpn_ac_defn_t> definitions_;
    std::vector<char> infos_;
    std::vector<l2vpn_ac_msg_hdr_t> headers_;
    std::vector<std::vector<iovec>> all_;
};

} // namespace

nlohmann::ordered_json measure_sends(double seconds)
{
    setenv("L2VPN_SEND_TIMEOUT_MS", "60000", 1); /* as patient as the bare socket, and more */
    const place here;
    const bool is_measured = seconds > 0;
    if (is_measured)
        here.on_last();
    const sink linked("platform"), plain("plain");
    if (is_measured)
        here.on_first();
    const platform_link link;
    const bare_socket bare(plain);
    nlohmann::ordered_json rows;
    for (const uint32_t acs : {1u, 10u, 300u, 10000u}) {
        const create_messages messages(acs);
        const auto times = measure({{"platform",
                                     [&] {
                                         for (const auto &pieces : messages.all())
                                             link.put(pieces);
                                     }},
                                    {"sendmsg",
                                     [&] {
                                         for (const auto &pieces : messages.all())
                                             bare.put(pieces);
                                     }}},
                                   seconds);
        rows.push_back({{"acs", acs},
                        {"messages", messages.all().size()},
                        {"bytes", messages.bytes()},
                        {"platform_ns", times[0].low},
                        {"sendmsg_ns", times[1].low}});
    }
    return rows;
}
