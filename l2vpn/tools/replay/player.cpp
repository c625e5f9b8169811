#include "client_process.h"
#include "ipc/link.h"
#include "player_link.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <l2vpn/l2vpn_ac_msg.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace l2vpnctl {

using namespace l2vpn::capture;
using l2vpn::platform_posix::unique_fd;

namespace {

constexpr uint32_t least_mtu = 4096; /* one AC of any class can be provisioned with it */
constexpr uint32_t messages_in_socket = 4;
constexpr int eager_looks = 200; /* before time is spent asleep */
constexpr int events_a_look = 64;

std::string describe_owner(const captured &record)
{
    return "owner " + link_of(record).name() + " (class " + std::to_string(record.head.class_id) + ", node " +
           std::to_string(record.head.nodeid) + ")";
}

/* No larger than it need be: the process may take less than what it took then. */
uint32_t longest(const std::vector<captured> &records)
{
    uint32_t length = least_mtu;
    for (const captured &record : records) {
        if (has_arrived(record, flow::to_process)) {
            length = std::max(length, static_cast<uint32_t>(record.message.size()));
        }
    }
    return length;
}

void make_room(int fd, uint32_t mtu)
{
    const int wanted = static_cast<int>(messages_in_socket * mtu);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &wanted, sizeof wanted) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted);
    }
}

[[noreturn]] void cannot_wait()
{
    throw failure{exit_broken, std::string("cannot wait for links: ") + strerror(errno)};
}

} // namespace

player::player(std::string control, const std::vector<captured> &records, std::chrono::milliseconds patience)
    : m_control(std::move(control)), m_service(m_control.substr(0, m_control.rfind('/') + 1) + "L2VPN.sock"),
      m_patience(patience), m_mtu(longest(records)), m_epoll(epoll_create1(EPOLL_CLOEXEC))
{
    if (m_epoll.get() < 0) {
        cannot_wait();
    }
}

player::~player() = default;

void player::refuse_collisions(const std::vector<captured> &records)
{
    ask("show clients", json::object(), [&](const json &row) {
        const auto same = std::ranges::find_if(records, [&](const captured &record) {
            return record.head.class_id == row.value("class", ~0U) &&
                   record.head.nodeid == row.value("node", ~0U);
        });
        if (same != records.end()) {
            throw failure{exit_failed, "the running process has " + describe_owner(*same) +
                                           " already, and its ACs would be taken over: its own number is " +
                                           row.at("owner").dump()};
        }
    });
}

std::shared_ptr<client_process> player::process_of(const captured &record)
{
    /* Where no pid is known, every link is a client of its own. */
    const link_id id = link_of(record);
    const client of = record.head.pid != 0 ? client{id.observer, record.head.pid}
                                           : client{~0U, static_cast<uint32_t>(id.number)};
    std::shared_ptr<client_process> process = m_clients[of].lock();
    if (process == nullptr) {
        process = std::make_shared<client_process>(m_service);
        m_clients[of] = process;
    }
    return process;
}

player::link *player::open(const captured &record)
{
    settle();
    const link_id id = link_of(record);
    std::shared_ptr<client_process> process = process_of(record);
    unique_fd socket = process->connect(m_patience);
    auto made = std::make_unique<link>(link{id, std::move(process), record.head.class_id, record.head.nodeid,
                                            describe_owner(record), std::move(socket)});
    using namespace l2vpn::ipc;
    std::array<uint8_t, sizeof(greeting)> bytes{};
    put_number(bytes.data(), link_magic);
    put_number(&bytes[4], link_version);
    put_number(&bytes[6], static_cast<uint16_t>(greeting_kind::hello));
    put_number(&bytes[8], record.head.class_id);
    put_number(&bytes[12], record.head.nodeid);
    put_number(&bytes[16], m_mtu);
    const int fd = made->socket.get();
    pollfd ready{fd, POLLIN, 0};
    const bool sent =
        ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    if (!sent || poll(&ready, 1, static_cast<int>(m_patience.count())) <= 0 ||
        recv(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw failure{exit_broken, "l2vpnd does not greet " + made->text};
    }
    const auto status = get_number<uint32_t>(&bytes[20]);
    if (status == EMSGSIZE) {
        throw failure{exit_broken, "l2vpnd takes messages of " +
                                       std::to_string(get_number<uint32_t>(&bytes[16])) +
                                       " bytes at most, and the capture has one of " + std::to_string(m_mtu)};
    }
    if (status != 0) {
        m_refused.insert(id);
        m_surprises.push_back(
            {nullptr, made->text + " is refused: " + meaning_of(static_cast<int>(status)), nullptr, nullptr});
        return nullptr;
    }
    make_room(fd, m_mtu);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = made.get();
    if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        cannot_wait();
    }
    made->serial = m_opened++;
    return m_links.insert_or_assign(id, std::move(made)).first->second.get();
}

player::link *player::find(const captured &record)
{
    const link_id id = link_of(record);
    if (m_refused.contains(id)) {
        return nullptr;
    }
    const auto found = m_links.find(id);
    return found != m_links.end() ? found->second.get() : open(record);
}

void player::lose(link &gone, const std::string &why)
{
    if (!gone.is_over) {
        gone.is_over = true;
        epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, gone.socket.get(), nullptr);
        m_surprises.push_back(
            {nullptr, gone.text + ": the process ended its link: " + why, nullptr, nullptr});
    }
}

/* Owners are told things, which nobody here wants; but the process would keep them waiting. */
void player::drain()
{
    std::array<epoll_event, events_a_look> events{};
    const int count = epoll_wait(m_epoll.get(), events.data(), events_a_look, 0);
    if (count < 0 && errno != EINTR) {
        cannot_wait();
    }
    for (int i = 0; i < count; i++) {
        link &of = *static_cast<link *>(events[static_cast<size_t>(i)].data.ptr);
        std::array<char, 16> beginning{};
        for (;;) {
            const ssize_t got = recv(of.socket.get(), beginning.data(), beginning.size(), MSG_DONTWAIT);
            if (got < 0 && errno == EAGAIN) {
                break;
            }
            if (got <= 0) {
                lose(of, got == 0 ? "closed" : meaning_of(errno));
                break;
            }
        }
    }
}

void player::wait(std::chrono::milliseconds time)
{
    pollfd ready{m_epoll.get(), POLLIN, 0};
    poll(&ready, 1, static_cast<int>(time.count()));
    drain();
}

void player::settle()
{
    const deadline end(m_patience);
    for (int looks = 0; m_latest != nullptr; looks++) {
        int left = 0;
        if (m_latest->is_over || ioctl(m_latest->socket.get(), SIOCOUTQ, &left) != 0 || left == 0) {
            m_latest = nullptr;
            break;
        }
        drain();
        if (looks < eager_looks) {
            sched_yield();
        } else {
            wait(std::chrono::milliseconds(1));
            end.check("does not take a message of " + m_latest->text);
        }
    }
}

void player::send(link &to, const captured &record)
{
    if (m_latest != &to) {
        settle();
    }
    const deadline end(m_patience);
    while (!to.is_over) {
        if (::send(to.socket.get(), record.message.data(), record.message.size(),
                   MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            m_latest = &to;
            return;
        }
        if (errno != EAGAIN && errno != ENOBUFS) {
            lose(to, meaning_of(errno));
            return;
        }
        drain();
        pollfd room{to.socket.get(), POLLOUT, 0};
        poll(&room, 1, 1);
        end.check("takes no more of " + to.text);
    }
}

/* The end of this half of the link is its end for the process, whose own half ends when everything is done. */
void player::close(const link_id &id)
{
    const auto found = m_links.find(id);
    if (found == m_links.end()) {
        return;
    }
    settle();
    link &of = *found->second;
    if (!of.is_over) {
        epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, of.socket.get(), nullptr);
        shutdown(of.socket.get(), SHUT_WR);
        const deadline end(m_patience);
        char byte = 0;
        for (;;) {
            const ssize_t got = recv(of.socket.get(), &byte, sizeof byte, MSG_DONTWAIT);
            if (got == 0 || (got < 0 && errno != EAGAIN)) {
                break;
            }
            pollfd ready{of.socket.get(), POLLIN, 0};
            if (got < 0 && poll(&ready, 1, 1) == 0) {
                end.check("does not end the link of " + of.text);
            }
        }
    }
    m_owners.erase(of.number);
    m_links.erase(found);
}

void player::take(const captured &record)
{
    if (record.head.link == 0) {
        return; /* of no link: never sent, or refused */
    }
    if (record.head.kind == record_kind::link_up) {
        static_cast<void>(
            find(record)); /* an owner's messages that waited for the link have opened it already */
    } else if (record.head.kind == record_kind::link_down) {
        close(link_of(record));
    } else if (has_arrived(record, flow::to_process)) {
        if (link *const to = find(record); to != nullptr) {
            send(*to, record);
        }
    } else if (has_arrived(record, flow::to_owner)) {
        const uint32_t type = read(record).type;
        link *const of = find(record);
        if (of != nullptr && (type == L2VPN_AC_MSG_PROV || type == L2VPN_AC_MSG_UNPROV)) {
            provision(*of, record);
        }
    }
}

} // namespace l2vpnctl
