/*
 * The links of the client: how one is opened, read and ended, and who is told. All on the event thread;
 * client.h says who may touch what.
 */
#include "client.h"

#include "../config_internal.h"
#include "probe.h"
#include "server_trust.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <platform/debug.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <syslog.h>

namespace l2vpn::ipc {

namespace {

constexpr int messages_a_dispatch = 64; /* of one link */
constexpr size_t causes_told_max = 32;

uint64_t next_key(l2vpn_ipc_client &client, uint32_t class_id)
{
    client.serial = std::max(client.serial + 1, 1u);
    return uint64_t{client.serial} << 32 | class_id;
}

/* Only what is added can fail. */
bool watch_link(const l2vpn_ipc_client &client, const registration &of, int operation, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = of.key;
    return epoll_ctl(client.epoll.get(), operation, of.connection->fd(), &event) == 0;
}

/* The next attempt, later each time. Under the lock. */
void schedule(l2vpn_ipc_client &client, registration &of)
{
    const auto spread = of.interval / 4;
    const milliseconds offset{
        std::uniform_int_distribution<int64_t>{-spread.count(), spread.count()}(client.jitter)};
    of.deadline = steady::now() + of.interval + offset;
    of.interval = std::min(of.interval * 2, retry_longest);
}

/* Where the owner of the process looks may be standard error: a container has no system log. */
void log_line(const l2vpn_ipc_client &client, const registration &of, int level, const std::string &text)
{
    const std::string line = "IPC class " + std::to_string(of.class_id) + ": " + client.path + ": " + text;
    vy_syslog(level, "%s", line.c_str());
    if (level <= LOG_WARNING && platform_posix::config().log_to_stderr) {
        const std::string shown = "l2vpn: " + line + "\n";
        fputs(shown.c_str(), stderr);
    }
}

/* A line for every distinct cause that keeps a class from its server, until it was up. */
void tell(const l2vpn_ipc_client &client, registration &of, int level, const std::string &cause)
{
    if (of.told.size() < causes_told_max && of.told.insert(cause).second) {
        log_line(client, of, level, cause);
    }
}

void record(const registration &of, const link *on, capture::record_kind kind, qerrno status = EOK)
{
    client_record(of, on, kind, capture::flow::none, status);
}

/* An established link has ended. */
void link_down(l2vpn_ipc_client &client, registration &of, qerrno reason)
{
    link_ptr ended;
    {
        const std::lock_guard guard(client.lock);
        if (of.withdrawn) {
            return;
        }
        ended = client_detach_link(client, of);
        of.state = link_state::waiting;
        if (steady::now() - of.up_since > retry_longest) {
            of.interval = retry_shortest;
        }
        schedule(client, of);
    }
    ended->hang_up(reason); /* wakes a sender that waits for room */
    record(of, ended.get(), capture::record_kind::link_down, reason);
    log_line(client, of, LOG_WARNING,
             std::string("the link is down: ") +
                 (reason == EOK ? "closed by the server" : qerr_strerror(reason)));
    of.evt_cb(&client, of.server_nodeid, 0, L2VPN_IPC_EVT_DISCONNECTED, reason, of.cookie);
}

void link_up(l2vpn_ipc_client &client, registration &of, const link &made)
{
    of.told.clear();
    of.up_since = steady::now();
    record(of, &made, capture::record_kind::link_up);
    of.evt_cb(&client, of.server_nodeid, 0, L2VPN_IPC_EVT_CONNECTED, 0, of.cookie);
}

/* Sends of the queue what goes. Messages that are added meanwhile have their turn before the link is up. */
void flush_queue(l2vpn_ipc_client &client, registration &of, link &to)
{
    for (int sent = 0; sent < messages_a_dispatch; ++sent) {
        qerrno status = EOK;
        {
            const std::lock_guard guard(client.lock);
            if (of.withdrawn) {
                return;
            }
            if (of.flushed == of.queue.size()) {
                of.queue.clear();
                of.state = link_state::up;
                of.was_up = true;
                watch_link(client, of, EPOLL_CTL_MOD, EPOLLIN);
                break;
            }
            const iovec message = of.queue.at(of.flushed);
            status = to.try_send(&message, 1);
            if (status == EOK) {
                of.deadline = steady::now() + milliseconds(greeting_timeout_ms);
                client_record(of, &to, capture::record_kind::message, capture::flow::to_process, EOK,
                              &message, 1);
            }
        }
        switch (status) {
        case EOK:
            ++of.flushed;
            break;
        case EAGAIN:
        case ENOBUFS:
        case ENOMEM:
            return;
        default:
            client_attempt_failed(client, of, LOG_ERR, "the server left while messages were sent to it");
            return;
        }
    }
    if (of.state == link_state::up) {
        link_up(client, of, to);
    }
}

void greeted(l2vpn_ipc_client &client, registration &of, link &from, const greeting &answer)
{
    capture::begin_owner(); /* its directory may not have been there before */
    of.server_nodeid = answer.nodeid;
    of.flushed = 0;
    {
        const std::lock_guard guard(client.lock);
        if (of.withdrawn) {
            return;
        }
        of.state = link_state::flushing;
        of.deadline = steady::now() + milliseconds(greeting_timeout_ms);
        /* Nothing is read before the owner knows that the link is up. */
        watch_link(client, of, EPOLL_CTL_MOD, EPOLLOUT);
    }
    flush_queue(client, of, from);
}

void read_answer(l2vpn_ipc_client &client, registration &of, link &from)
{
    alignas(8) char room[greeting_room];
    const packet received = from.receive(room, sizeof room);
    if (received.kind == packet_kind::nothing) {
        return;
    }
    if (received.kind == packet_kind::end) {
        client_attempt_failed(client, of, LOG_ERR, "the server closed the link without an answer");
        return;
    }
    greeting answer{};
    qerrno status = EPROTO;
    if (received.kind == packet_kind::message) {
        status = greeting_read(room, received.length, greeting_kind::answer, &answer);
    }
    if (status == EPROTONOSUPPORT) {
        client_attempt_failed(client, of, LOG_ERR,
                              "the server has version " + std::to_string(answer.version) +
                                  " of the link, not " + std::to_string(link_version),
                              true);
    } else if (status == EOK && (answer.status == EOK || answer.status == EMSGSIZE) &&
               answer.class_id == of.class_id && answer.mtu >= message_min && answer.mtu < of.mtu) {
        client_attempt_failed(client, of, LOG_ERR,
                              "the server takes " + std::to_string(answer.mtu) +
                                  " bytes a message, this process sends " + std::to_string(of.mtu) +
                                  ": set L2VPN_MTU to what the server takes",
                              true);
    } else if (status == EOK && answer.status != EOK) {
        record(of, &from, capture::record_kind::link_refused, answer.status);
        client_attempt_failed(client, of, LOG_ERR,
                              std::string("the server refuses the class: ") + qerr_strerror(answer.status),
                              true);
    } else if (status != EOK || answer.class_id != of.class_id || answer.mtu != of.mtu) {
        client_attempt_failed(client, of, LOG_ERR, "the server's answer is garbage", true);
    } else {
        greeted(client, of, from, answer);
    }
}

void read_messages(l2vpn_ipc_client &client, registration &of, link &from, uint32_t mtu)
{
    void *buffer = client.buffer.get();
    for (int read = 0; read < messages_a_dispatch; ++read) {
        const packet received = from.receive(buffer, mtu);
        if (of.withdrawn || received.kind == packet_kind::nothing) {
            return;
        }
        if (received.kind != packet_kind::message) {
            qerrno reason = from.cause();
            if (received.kind != packet_kind::end) {
                reason = EPROTO;
                log_line(client, of, LOG_ERR, "the server sent " + packet_fault(received, mtu));
            }
            link_down(client, of, reason);
            return;
        }
        const iovec message{buffer, received.length};
        L2VPN_PROBE(l2vpn_platform, message__received, of.class_id, uint64_t{received.length}, buffer,
                    uint64_t{0});
        client_record(of, &from, capture::record_kind::message, capture::flow::to_owner, EOK, &message, 1);
        of.msg_cb(&client, of.class_id, 0, buffer, received.length, 0, of.cookie);
    }
}

} // namespace

void client_record(const registration &of, const link *on, capture::record_kind kind, capture::flow direction,
                   qerrno status, const iovec *pieces, uint32_t count)
{
    if (capture::is_off()) {
        return;
    }
    static const uint32_t uid = geteuid();
    capture::record(kind, direction,
                    {of.class_id, of.nodeid, on == nullptr ? 0 : on->number(), capture::this_process, uid,
                     program_invocation_short_name},
                    status, pieces, count);
}

void client_attempt_failed(l2vpn_ipc_client &client, registration &of, int level, const std::string &cause,
                           bool refused)
{
    link_ptr ended;
    {
        const std::lock_guard guard(client.lock);
        if (of.withdrawn) {
            return;
        }
        ended = client_detach_link(client, of);
        of.state = link_state::waiting;
        if (refused) {
            of.interval = retry_longest;
        }
        schedule(client, of);
    }
    tell(client, of, level, cause);
}

void client_attempt(l2vpn_ipc_client &client, registration &of)
{
    if (client.inotify) {
        /* Told each time: the directory may be new, and watching it twice is watching it once. */
        inotify_add_watch(client.inotify.get(), client.directory.c_str(),
                          IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_ONLYDIR);
    }
    unique_fd socket = link_socket();
    const sockaddr_un address = link_address(client.path);
    if (!socket || connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const auto cause = static_cast<qerrno>(errno);
        const bool absent = cause == ENOENT || cause == ECONNREFUSED || cause == ENOTDIR;
        client_attempt_failed(client, of, absent ? LOG_INFO : LOG_ERR,
                              absent ? std::string("waiting for the server")
                                     : std::string("cannot connect: ") + qerr_strerror(cause));
        return;
    }
    ucred listener{};
    socklen_t size = sizeof listener;
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &listener, &size) != 0) {
        client_attempt_failed(client, of, LOG_ERR,
                              std::string("cannot tell who the server is: ") +
                                  qerr_strerror(static_cast<qerrno>(errno)));
        return;
    }
    if (!server_is_trusted(listener.uid, geteuid(), directory_given_to(client.directory))) {
        client_attempt_failed(
            client, of, LOG_ERR,
            "a process of uid " + std::to_string(listener.uid) + " poses as the server: not trusted", true);
        return;
    }
    link_fit_mtu(socket.get(), of.mtu);
    greeting hello = greeting_swap({link_magic, link_version, static_cast<uint16_t>(greeting_kind::hello),
                                    of.class_id, of.nodeid, of.mtu, EOK});
    static std::atomic<uint64_t> links{0};
    const auto connection = std::make_shared<link>(std::move(socket), ++links);
    const iovec piece{&hello, sizeof hello};
    /* A server that refuses in a hurry has hung up already, but its answer is there to be read. */
    if (const qerrno status = connection->try_send(&piece, 1); status != EOK && status != ENOTCONN) {
        client_attempt_failed(client, of, LOG_ERR, std::string("cannot greet: ") + qerr_strerror(status));
        return;
    }
    qerrno status = EOK;
    {
        const std::lock_guard guard(client.lock);
        if (of.withdrawn) {
            return;
        }
        of.connection = connection;
        of.key = next_key(client, of.class_id);
        of.state = link_state::greeting;
        of.deadline = steady::now() + milliseconds(greeting_timeout_ms);
        status = watch_link(client, of, EPOLL_CTL_ADD, EPOLLIN) ? qerrno{EOK} : static_cast<qerrno>(errno);
    }
    if (status != EOK) {
        client_attempt_failed(client, of, LOG_ERR,
                              std::string("the link cannot be watched: ") + qerr_strerror(status));
    }
}

void client_link_ready(l2vpn_ipc_client &client, uint64_t key)
{
    registration_ptr of;
    link_ptr connection;
    link_state state{};
    uint32_t mtu = 0;
    {
        const std::lock_guard guard(client.lock);
        const auto found = client.classes.find(static_cast<uint32_t>(key));
        if (found == client.classes.end() || found->second->key != key) {
            return;
        }
        of = found->second;
        connection = of->connection;
        state = of->state;
        mtu = of->mtu;
    }
    switch (state) {
    case link_state::greeting:
        read_answer(client, *of, *connection);
        break;
    case link_state::flushing:
        flush_queue(client, *of, *connection);
        break;
    case link_state::up:
        read_messages(client, *of, *connection, mtu);
        break;
    case link_state::waiting:
        break;
    }
}

} // namespace l2vpn::ipc
