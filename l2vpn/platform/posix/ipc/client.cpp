/*
 * The event thread of the client: deadlines, the directory, and which link is ready. client.h says who may
 * touch what.
 */
#include "client.h"

#include "../timer_fd.h"

#include <algorithm>
#include <array>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <syslog.h>
#include <vector>

namespace l2vpn::ipc {

namespace {

constexpr int events_a_dispatch = 32;

/* The classes whose deadline has come; with `all`, those that wait for an attempt at any time. */
void run_deadlines(l2vpn_ipc_client &client, bool all)
{
    std::vector<registration_ptr> due;
    {
        const std::lock_guard guard(client.lock);
        const auto now = steady::now();
        for (const auto &[class_id, of] : client.classes) {
            if (all && of->state == link_state::waiting) {
                of->interval = retry_shortest;
                due.push_back(of);
            } else if (of->state != link_state::up && of->deadline <= now) {
                due.push_back(of);
            }
        }
    }
    for (const registration_ptr &of : due) {
        if (of->state == link_state::greeting) {
            client_attempt_failed(client, *of, LOG_ERR, "the server does not answer");
        } else if (of->state == link_state::flushing) {
            client_attempt_failed(client, *of, LOG_ERR, "the server does not take messages");
        } else if (!of->withdrawn) {
            client_attempt(client, *of);
        }
    }
}

/* True if the socket's file appeared, or its permissions changed. */
bool read_directory_events(const l2vpn_ipc_client &client)
{
    alignas(inotify_event) std::array<char, 4096> room;
    bool appeared = false;
    for (ssize_t length = 0; (length = read(client.inotify.get(), room.data(), room.size())) > 0;) {
        for (const char *at = room.data(); at < room.data() + length;) {
            const auto *event = reinterpret_cast<const inotify_event *>(at);
            appeared = appeared || (event->len > 0 && client.file == event->name);
            at += sizeof *event + event->len;
        }
    }
    return appeared;
}

} // namespace

void client_arm_timer(l2vpn_ipc_client &client)
{
    auto earliest = steady::time_point::max();
    for (const auto &[class_id, of] : client.classes) {
        if (of->state != link_state::up) {
            earliest = std::min(earliest, of->deadline);
        }
    }
    if (earliest == client.armed) {
        return;
    }
    client.armed = earliest;
    platform_posix::set_timer(client.timer, earliest);
}

link_ptr client_detach_link(const l2vpn_ipc_client &client, registration &of)
{
    if (of.connection) {
        epoll_ctl(client.epoll.get(), EPOLL_CTL_DEL, of.connection->fd(), nullptr);
    }
    of.key = 0;
    return std::move(of.connection);
}

void client_ready(event_fd_watch_t *, int, uint32_t, void *arg)
{
    auto &client = *static_cast<l2vpn_ipc_client *>(arg);
    std::array<epoll_event, events_a_dispatch> events;
    const int count = epoll_wait(client.epoll.get(), events.data(), events_a_dispatch, 0);
    for (int i = 0; i < count; ++i) {
        const uint64_t key = events[static_cast<size_t>(i)].data.u64;
        if (key == key_timer) {
            uint64_t expirations = 0;
            [[maybe_unused]] const ssize_t got = read(client.timer.get(), &expirations, sizeof expirations);
            run_deadlines(client, false);
        } else if (key == key_directory) {
            run_deadlines(client, read_directory_events(client));
        } else {
            client_link_ready(client, key);
        }
    }
    const std::lock_guard guard(client.lock);
    client_arm_timer(client);
}

} // namespace l2vpn::ipc
