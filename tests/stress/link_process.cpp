#include "link_process.h"

#include <l2vpn/l2vpn_ac_msg.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <future>
#include <gtest/gtest.h>
#include <utility>

namespace race_test {

namespace {

constexpr int wanted_code = 1;

uint32_t word(const uint8_t *message, uint32_t index)
{
    const uint8_t *const at = message + size_t{index} * 4;
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

/* What an owner sends: how its requests are marked, and how long its records are. */
struct request_row {
    uint32_t type;
    uint32_t begin;
    uint32_t end;
    bool begin_on_all;
    bool has_handles; /* which count up */
    uint32_t record;
};

constexpr std::array<request_row, 4> request_rows{{
    {L2VPN_AC_MSG_CREATE, L2VPN_AC_FLAG_CREATE_START, L2VPN_AC_FLAG_CREATE_END, false, true,
     4 + 616 + info_size},
    {L2VPN_AC_MSG_UPDATE, L2VPN_AC_FLAG_UPDATE_START, L2VPN_AC_FLAG_UPDATE_END, false, true, 4 + info_size},
    {L2VPN_AC_MSG_DELETE, L2VPN_AC_FLAG_DELETE_START, L2VPN_AC_FLAG_DELETE_END, false, true, 4},
    {L2VPN_MSTP_MSG_VID_MAP, L2VPN_MSTP_FLAG_BEGIN, L2VPN_MSTP_FLAG_END, true, false, 4},
}};

/* A message to an owner. */
template <size_t words>
void send(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, std::array<uint32_t, words> message)
{
    for (uint32_t &each : message)
        each = htonl(each);
    const iovec piece{message.data(), sizeof message};
    (void)l2vpn_ipc_server_sendv(server, peer, &piece, 1); /* a link that is full or gone misses it */
}

} // namespace

/* --- an event manager's thread ----------------------------------------------------------------------- */

loop_thread::loop_thread(event_mgr_p evm) : m_evm(evm)
{
    EXPECT_EQ(event_async_attach_event(evm, wanted_code, on_wanted, this, &m_context), 0);
    m_thread = std::thread([evm] { EXPECT_EQ(event_mgr_run(evm), 0); });
}

loop_thread::~loop_thread()
{
    event_mgr_stop(m_evm);
    m_thread.join();
}

void loop_thread::call(const std::function<void()> &what)
{
    std::promise<void> done;
    {
        const std::lock_guard guard(m_lock);
        m_wanted.emplace_back([&] {
            what();
            done.set_value();
        });
    }
    ASSERT_EQ(event_async_post(m_evm, wanted_code), 0);
    done.get_future().wait();
}

void loop_thread::on_wanted(event_context_t *, void *arg)
{
    auto &self = *static_cast<loop_thread *>(arg);
    std::function<void()> next;
    {
        const std::lock_guard guard(self.m_lock);
        next = std::move(self.m_wanted.front());
        self.m_wanted.pop_front();
    }
    next();
}

/* --- the process ------------------------------------------------------------------------------------- */

link_process::link_process() : m_evm(event_mgr_new()), m_loop(std::make_unique<loop_thread>(m_evm)) {}

link_process::~link_process()
{
    stop();
    m_loop.reset();
    event_mgr_free(m_evm);
}

void link_process::start()
{
    m_loop->call([this] {
        static constexpr l2vpn_ipc_server_callbacks_t callbacks{on_accept, on_message, on_closed, on_log};
        const l2vpn_ipc_server_options_t options{
            .nodeid = 99, .mtu = 0, .max_peers = 0, .listen_fd = -1, .socket_mode = 0, .group = nullptr};
        EXPECT_EQ(l2vpn_ipc_server_new(m_evm, "L2VPN", &options, &callbacks, this, &m_server), qerrno{EOK})
            << l2vpn_ipc_server_error();
    });
}

void link_process::stop()
{
    m_loop->call([this] {
        l2vpn_ipc_server_free(std::exchange(m_server, nullptr));
        m_stories.clear();
    });
}

void link_process::while_it_reads_nothing(const std::function<void()> &what)
{
    m_loop->call(what);
}

std::string link_process::faults()
{
    const std::lock_guard guard(m_lock);
    return m_faults;
}

void link_process::fault(const std::string &text)
{
    const std::lock_guard guard(m_lock);
    if (m_faults.size() < 1000)
        m_faults += text + "\n";
}

/*
 * Whole requests, one after the other: they are not mixed with each other, and each of their messages is there.
 * (Whose ACs they name is not asked: a stale handle may name the client that came after.) Only a link's first
 * messages may be the rest of a request that began on the link before.
 */
void link_process::look_at(story &of, const uint8_t *message, uint32_t length)
{
    const uint32_t type = word(message, 1);
    const uint32_t bulk = word(message, 2);
    const uint32_t flags = word(message, 3);
    const std::string name = "type " + std::to_string(type) + ", " + std::to_string(bulk) +
                             " records, flags " + std::to_string(flags);
    if (word(message, 0) != L2VPN_AC_HDR_MARK)
        fault(name + ": the mark is " + std::to_string(word(message, 0)));
    if (of.open != 0 && of.open != type)
        fault(name + ": in the middle of a request of type " + std::to_string(of.open));

    const auto *const row = std::ranges::find(request_rows, type, &request_row::type);
    if (row == request_rows.end()) {
        if (type != L2VPN_AC_MSG_JOIN || length != L2VPN_AC_HDR_LEN || bulk != 0 || flags != 0)
            fault(name + ": not a JOIN");
        return;
    }
    if (bulk == 0 || length != L2VPN_AC_HDR_LEN + bulk * row->record) {
        fault(name + ": of " + std::to_string(length) + " bytes");
        return;
    }
    const bool begins = (flags & row->begin) != 0;
    if (!row->begin_on_all && of.begun && begins != (of.open == 0))
        fault(name + (begins ? ": begins inside a request" : ": goes on with none"));
    if (row->has_handles) {
        for (uint32_t i = 0; i < bulk; ++i) {
            const uint32_t handle = word(message, 4 + i);
            if ((i > 0 || (of.open != 0 && !begins)) && handle != of.handle + 1)
                fault(name + ": an AC of another request");
            of.handle = handle;
        }
    }
    of.begun = true;
    of.open = (flags & row->end) != 0 ? 0 : type;
}

/* One of the five messages that call an owner back, in turn. */
void link_process::answer(l2vpn_ipc_peer_t peer, const story &of)
{
    const uint32_t handle = first_handle(of.class_id) + static_cast<uint32_t>(m_messages % 1000);
    switch (m_messages % 5) {
    case 0:
        send<12>(m_server, peer, {3, L2VPN_AC_MSG_PROV, 1, 0, handle, 0, 0, handle});
        break;
    case 1:
        send<6>(m_server, peer, {3, L2VPN_AC_MSG_UNPROV, 2, 0, handle, handle + 1});
        break;
    case 2:
        send<12>(m_server, peer, {3, L2VPN_AC_MSG_BULK_NOTIFY, 1, 0, handle});
        break;
    case 3:
        send<4>(m_server, peer, {3, L2VPN_AC_MSG_HDR_NOTIFY, handle, 0});
        break;
    default:
        send<5>(m_server, peer, {3, L2VPN_AC_MSG_UNPROV, 1, L2VPN_AC_FLAG_NOTICE, handle});
        break;
    }
}

qerrno link_process::on_accept(l2vpn_ipc_server_t, l2vpn_ipc_peer_t peer, const l2vpn_ipc_peer_info_t *info,
                               void *arg)
{
    auto &self = *static_cast<link_process *>(arg);
    ++self.m_links;
    self.m_stories[peer] = {.class_id = info->class_id};
    return EOK;
}

void link_process::on_message(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, void *message,
                              uint32_t length, void *arg)
{
    auto &self = *static_cast<link_process *>(arg);
    ++self.m_messages;
    story &of = self.m_stories[peer];
    self.look_at(of, static_cast<const uint8_t *>(message), length);
    const uint32_t last = self.ends_links_after;
    if (last != 0 && ++of.messages >= last) {
        l2vpn_ipc_server_close(server, peer);
        self.m_stories.erase(peer);
    } else {
        self.answer(peer, of);
    }
}

void link_process::on_closed(l2vpn_ipc_server_t, l2vpn_ipc_peer_t peer, qerrno, void *arg)
{
    static_cast<link_process *>(arg)->m_stories.erase(peer);
}

void link_process::on_log(l2vpn_ipc_server_t, int, const char *, void *) {}

} // namespace race_test
