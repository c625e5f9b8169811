/*
 * The link between a registered class and the L2VPN process: one connected AF_UNIX SOCK_SEQPACKET socket.
 *
 * It opens with one packet each way, the client's hello and the server's answer. Both have the same form, all
 * fields in network byte order:
 *
 *   offset  size  field     hello                        answer
 *        0     4  magic     "L2VL"                       the same
 *        4     2  version   version of the link: 1       the same, or the server's when it refuses that
 *        6     2  kind      1                            2
 *        8     4  class_id  the class registered         the same
 *       12     4  nodeid    the client's node id         the server's node id
 *       16     4  mtu       largest message it will send largest message from now on: the same; when
 *                                                        refused with EMSGSIZE, what the server takes
 *       20     4  status    0                            0: accepted, else refused, as an errno number
 *
 * Magic, version and kind keep their places in every version. After the answer every packet is one message,
 * 16 bytes to the agreed MTU long. Whatever else comes is a fault of the peer's and ends the link.
 *
 * Two habits of these sockets shape the code. A peer that closes with unread packets resets the link, and
 * that error overtakes what the peer had sent: it is told once, and the packets are still there behind it. A
 * send may be the one that meets the error. So the end of a link is only what receive() calls the end; a send
 * that fails hangs up, which wakes the receiver without taking anything from it.
 */
#ifndef PLATFORM_POSIX_IPC_LINK_H
#define PLATFORM_POSIX_IPC_LINK_H

#include "../unique_fd.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <platform/qerr.h>
#include <string>
#include <sys/uio.h>
#include <sys/un.h>

namespace l2vpn::ipc {

using platform_posix::unique_fd;

inline constexpr uint32_t link_magic = 0x4C32564Cu;
inline constexpr uint16_t link_version = 1;
inline constexpr uint32_t message_min = 16;
inline constexpr uint32_t mtu_max = 1u << 20;
inline constexpr int greeting_timeout_ms = 5000;

enum class greeting_kind : uint16_t { hello = 1, answer = 2 };

struct greeting {
    uint32_t magic;
    uint16_t version;
    uint16_t kind;
    uint32_t class_id;
    uint32_t nodeid;
    uint32_t mtu;
    uint32_t status;
};
static_assert(sizeof(greeting) == 24);
static_assert(offsetof(greeting, magic) == 0 && offsetof(greeting, version) == 4);
static_assert(offsetof(greeting, kind) == 6 && offsetof(greeting, class_id) == 8);
static_assert(offsetof(greeting, nodeid) == 12 && offsetof(greeting, mtu) == 16);
static_assert(offsetof(greeting, status) == 20);

/* Room for a greeting, and for the beginning of whatever comes in its place. */
inline constexpr uint32_t greeting_room = 64;

/* Between host and network byte order, either way. */
greeting greeting_swap(const greeting &from);

/*
 * Reads the greeting in a received packet. EOK: `*read` is complete, in host order. EPROTONOSUPPORT: another
 * version of the link, which is in `read->version`. EPROTO: anything else.
 */
qerrno greeting_read(const void *packet, uint32_t length, greeting_kind expected, greeting *read);

/* What receive() found. The kinds from `empty` on are faults of the peer. */
enum class packet_kind { nothing, message, end, empty, runt, oversize };

struct packet {
    packet_kind kind;
    uint32_t length; /* as the peer sent it */
};

/* What is wrong with a faulty packet, for people. */
std::string packet_fault(const packet &faulty, uint32_t mtu);

class link {
public:
    explicit link(unique_fd socket, uint64_t number = 0) : socket_(std::move(socket)), number_(number) {}

    [[nodiscard]] int fd() const { return socket_.get(); }
    /* Of a client's link, which it is among all of its process. */
    [[nodiscard]] uint64_t number() const { return number_; }

    /* The next packet, at most `size` bytes of it. Never waits. */
    packet receive(void *buffer, uint32_t size);

    /* Sends one message, whole or not at all, without waiting. EOK, EAGAIN: no room, ENOTCONN: the link is
     * broken (the receiver will find its end), else the errno. */
    qerrno try_send(const iovec *pieces, uint32_t count);

    /* The same, waiting for room up to `timeout_ms`, then ETIMEDOUT. Any number of threads. */
    qerrno send(const iovec *pieces, uint32_t count, uint32_t timeout_ms);

    /* Breaks the link from this side: senders fail, the receiver gets what is there and then the end. */
    void hang_up(qerrno cause);

    /* The first cause of the break, EOK if the peer just closed the link, or if it is whole. */
    [[nodiscard]] qerrno cause() const { return cause_.load(std::memory_order_acquire); }

private:
    bool note(qerrno cause);
    [[nodiscard]] bool peer_is_gone() const;

    unique_fd socket_;
    uint64_t number_;
    std::atomic<qerrno> cause_{EOK};
};

using link_ptr = std::shared_ptr<link>;

/* A new socket for a link, or an empty one with the cause in errno. */
unique_fd link_socket();

/* Makes room in a socket for several messages of `mtu` bytes. Returns the largest message that can be sent:
 * `mtu`, or less where the system's limits are tighter. */
uint32_t link_fit_mtu(int fd, uint32_t mtu);

/* The address of `path`, which is known to fit. */
sockaddr_un link_address(const std::string &path);

} // namespace l2vpn::ipc

#endif
