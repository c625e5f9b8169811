/*
 * The client's side of a link, over a pair of connected sockets: what a server may answer and send.
 *
 * The input's first byte: bit 0, the class was up before; bit 1, a message waits in its queue; bit 2, the
 * server's node is gone before the last packet is read. Then packets, each a length and its bytes; a length
 * of 255 is followed by one of two bytes.
 */
#include "link_support.h"

#include "ipc/client.h"

#include <sys/epoll.h>
#include <syslog.h>

namespace {

using namespace l2vpn::ipc;

constexpr uint32_t class_id = 4;
constexpr uint32_t mtu = 64;

struct owner {
    bool up = false;
    bool was_up = false;
    uint32_t messages = 0;
};

void on_event(l2vpn_ipc_client_t, uint32_t, uint32_t, l2vpn_ipc_evt_t event, uint32_t, void *cookie)
{
    owner &one = *static_cast<owner *>(cookie);
    FUZZ_CHECK(one.up == (event == L2VPN_IPC_EVT_DISCONNECTED));
    one.up = !one.up;
    one.was_up = true;
}

void on_message(l2vpn_ipc_client_t, uint32_t of, uint32_t, void *message, uint32_t length, uint32_t,
                void *cookie)
{
    owner &one = *static_cast<owner *>(cookie);
    FUZZ_CHECK(one.up && of == class_id && length >= message_min && length <= mtu);
    fuzz::read_all(message, length);
    memset(message, 0xA5, length); /* it is the receiver's to write to */
    ++one.messages;
}

l2vpn_ipc_client *make_client()
{
    setlogmask(LOG_MASK(LOG_EMERG)); /* what is logged is not for the machine's log */
    auto *const client = new l2vpn_ipc_client;
    client->service = "L2VPN";
    client->path = "/nowhere/L2VPN.sock";
    client->directory = "/nowhere";
    client->file = "L2VPN.sock";
    client->mtu = mtu;
    client->epoll = unique_fd(epoll_create1(EPOLL_CLOEXEC));
    client->buffer = std::make_unique<uint64_t[]>(mtu / sizeof(uint64_t)); /* not a byte more than needed */
    return client;
}

/* Written from the table of the link's greeting, byte by byte. */
bool accepts(fuzz::bytes answer)
{
    constexpr uint8_t begin[] = {'L', '2', 'V', 'L', 0, 1, 0, 2, 0, 0, 0, class_id};
    constexpr uint8_t end[] = {0, 0, 0, mtu, 0, 0, 0, 0};
    return answer.size() == 24 && memcmp(answer.data(), begin, sizeof begin) == 0 &&
           memcmp(answer.data() + 16, end, sizeof end) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static l2vpn_ipc_client *const client = make_client();
    fuzz::input in(data, size);
    const uint8_t mode = in.u8();

    fuzz::socket_pair pair;
    owner told;
    const auto of = std::make_shared<registration>();
    of->class_id = class_id;
    of->msg_cb = on_message;
    of->evt_cb = on_event;
    of->cookie = &told;
    of->mtu = mtu;
    of->was_up = (mode & 1) != 0;
    of->state = link_state::greeting;
    of->connection = std::make_shared<l2vpn::ipc::link>(unique_fd(std::exchange(pair.ours, -1)));
    of->key = uint64_t{++client->serial} << 32 | class_id;
    if ((mode & 2) != 0) {
        const uint8_t waits[message_min] = {};
        const iovec piece = {const_cast<uint8_t *>(waits), sizeof waits};
        FUZZ_CHECK(of->queue.push(&piece, 1, sizeof waits) == EOK);
    }
    client->classes = {{class_id, of}};

    bool accepted = false;
    uint32_t messages = 0;
    bool ended = false;
    for (bool first = true; !in.empty() && !ended; first = false) {
        const fuzz::bytes packet = fuzz::take_packet(in);
        FUZZ_CHECK(pair.give(packet));
        if (in.empty() && (mode & 4) != 0)
            pair.hang_up();
        client_link_ready(*client, of->key);
        if (first)
            accepted = accepts(packet);
        else if (packet.size() >= message_min && packet.size() <= mtu)
            ++messages;
        ended = of->state == link_state::waiting;
        FUZZ_CHECK(told.up == (of->state == link_state::up));
    }
    pair.hang_up();
    for (int i = 0; i < 3 && of->state != link_state::waiting; ++i)
        client_link_ready(*client, of->key);

    /* It was up if and only if the server had accepted it; and all that is over. */
    FUZZ_CHECK(told.was_up == accepted || (mode & 4) != 0);
    FUZZ_CHECK(!told.was_up || accepted);
    FUZZ_CHECK(told.messages == (told.was_up ? messages : 0));
    FUZZ_CHECK(of->state == link_state::waiting && !of->connection && of->key == 0 && !told.up);
    client->classes.clear();
    return 0;
}
