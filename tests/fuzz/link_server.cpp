/*
 * The server's side of a link, over a pair of connected sockets: what a client may greet with and send.
 *
 * The input's first byte: bit 0, the client is gone before its last packet is read. Then packets, each a
 * length and its bytes; a length of 255 is followed by one of two bytes. What the server's user does depends
 * on the class that the client registers, and in messages on the first byte: see below.
 */
#include "link_support.h"

#include "ipc/server.h"

namespace {

using namespace l2vpn::ipc;

constexpr uint32_t mtu = 64;
constexpr uint64_t peer_id = 1;

/* Classes */
constexpr uint32_t refused = 2;
constexpr uint32_t closed_at_once = 3;
constexpr uint32_t greeted_with_messages = 4;

/* First bytes of messages */
constexpr uint8_t hang_up = 0xEE;
constexpr uint8_t reply = 0xDD;

struct user {
    uint32_t class_id = 0;
    uint32_t agreed_mtu = 0;
    int accepted = 0;
    int closed = 0;
    bool closed_it = false;
    uint32_t messages = 0;
};

qerrno on_accept(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, const l2vpn_ipc_peer_info_t *info,
                 void *arg)
{
    user &one = *static_cast<user *>(arg);
    one.class_id = info->class_id;
    one.agreed_mtu = info->mtu;
    FUZZ_CHECK(info->mtu >= message_min && info->mtu <= mtu);
    ++one.accepted;
    if (info->class_id == closed_at_once) {
        l2vpn_ipc_server_close(server, peer);
        one.closed_it = true;
    } else if (info->class_id == greeted_with_messages) {
        uint8_t message[message_min] = {};
        const iovec piece = {message, sizeof message};
        FUZZ_CHECK(l2vpn_ipc_server_sendv(server, peer, &piece, 1) == EOK);
        FUZZ_CHECK(l2vpn_ipc_server_queued(server, peer) == sizeof message);
    }
    return info->class_id == refused ? qerrno{EUSERS} : qerrno{EOK};
}

void on_message(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, void *message, uint32_t length, void *arg)
{
    user &one = *static_cast<user *>(arg);
    FUZZ_CHECK(one.accepted == 1 && one.closed == 0 && !one.closed_it && one.class_id != refused);
    FUZZ_CHECK(length >= message_min && length <= one.agreed_mtu);
    fuzz::read_all(message, length);
    const uint8_t first = *static_cast<uint8_t *>(message);
    memset(message, 0xA5, length);
    ++one.messages;
    if (first == hang_up) {
        l2vpn_ipc_server_close(server, peer);
        one.closed_it = true;
    } else if (first == reply) {
        const iovec piece = {message, length};
        const qerrno status = l2vpn_ipc_server_sendv(server, peer, &piece, 1);
        FUZZ_CHECK(status == EOK || status == ENOTCONN);
    }
}

void on_closed(l2vpn_ipc_server_t, l2vpn_ipc_peer_t, qerrno, void *arg)
{
    user &one = *static_cast<user *>(arg);
    FUZZ_CHECK(one.accepted == 1 && !one.closed_it && one.class_id != refused);
    ++one.closed;
}

void on_log(l2vpn_ipc_server_t, int, const char *text, void *)
{
    FUZZ_CHECK(fuzz::is_plain(text) && strchr(text, '\n') == nullptr);
}

/* Written from the table of the link's greeting, byte by byte. */
bool greets(fuzz::bytes hello)
{
    constexpr uint8_t begin[] = {'L', '2', 'V', 'L', 0, 1, 0, 1};
    return hello.size() == 24 && memcmp(hello.data(), begin, sizeof begin) == 0 &&
           fuzz::be32(hello, 16) >= 16 && fuzz::be32(hello, 16) <= mtu;
}

/* The answer on the socket; 0: accepted, UINT32_MAX: none came. */
uint32_t answered(int fd)
{
    uint8_t answer[mtu];
    const ssize_t length = recv(fd, answer, sizeof answer, MSG_DONTWAIT);
    if (length <= 0)
        return UINT32_MAX;
    constexpr uint8_t begin[] = {'L', '2', 'V', 'L', 0, 1, 0, 2};
    FUZZ_CHECK(length == 24 && memcmp(answer, begin, sizeof begin) == 0);
    return fuzz::be32(answer, 20);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const bool leaves_early = (in.u8() & 1) != 0;

    user told;
    l2vpn_ipc_server server;
    server.callbacks = {on_accept, on_message, on_closed, on_log};
    server.arg = &told;
    server.nodeid = 7;
    server.mtu = mtu;
    server.buffer = std::make_unique<uint64_t[]>(mtu / sizeof(uint64_t)); /* not a byte more than needed */

    fuzz::socket_pair pair;
    const int fd = std::exchange(pair.ours, -1);
    auto made = std::make_unique<l2vpn_ipc_peer>(server, unique_fd(fd));
    made->info = {peer_id, 0, 0, mtu, 1, 1, 1};
    l2vpn_ipc_peer &peer = *made;
    server.peers.emplace(peer_id, std::move(made));

    for (bool first = true; !in.empty() && server.peers.contains(peer_id); first = false) {
        const fuzz::bytes packet = fuzz::take_packet(in);
        FUZZ_CHECK(pair.give(packet));
        const bool leaves = leaves_early && in.empty();
        if (leaves)
            pair.hang_up();
        peer_ready(nullptr, fd, EVENT_FD_READ, &peer);
        if (!first)
            continue;
        FUZZ_CHECK(told.accepted == (greets(packet) ? 1 : 0));
        if (leaves)
            continue;
        const uint32_t status = answered(pair.theirs);
        const bool open = told.accepted == 1 && told.class_id != refused && !told.closed_it;
        FUZZ_CHECK(open ? status == 0 : told.closed_it ? status == UINT32_MAX : status != 0);
        FUZZ_CHECK(open == server.peers.contains(peer_id));
    }
    pair.hang_up();
    if (server.peers.contains(peer_id))
        peer_ready(nullptr, fd, EVENT_FD_READ, &peer);

    /* Whoever was accepted and not thrown out was told to be gone, once; nobody is left. */
    const bool was_open = told.accepted == 1 && told.class_id != refused && !told.closed_it;
    FUZZ_CHECK(told.closed == (was_open ? 1 : 0));
    FUZZ_CHECK(server.peers.empty() && server.dropped.empty());
    return 0;
}
