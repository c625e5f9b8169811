/*
 * The L2VPN process's end of the links, in this program: the platform's own server on a thread of its own. It
 * looks at every message that comes, answers each with one that calls the owner back, and goes away and comes
 * back when it is told to.
 */
#ifndef TESTS_STRESS_LINK_PROCESS_H
#define TESTS_STRESS_LINK_PROCESS_H

#include <platform/event_loop.h>
#include <platform/ipc_server.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace race_test {

/* Of the classes here, so that the limits of each are those of all. */
inline constexpr uint32_t info_size = 16;

/* An AC's handle tells its class. */
inline constexpr uint32_t first_handle(uint32_t class_id)
{
    return class_id << 24;
}
inline constexpr uint32_t handle_class(uint32_t handle)
{
    return handle >> 24;
}

/* An event manager's thread, and a way onto it. */
class loop_thread {
public:
    explicit loop_thread(event_mgr_p evm);
    loop_thread(const loop_thread &) = delete;
    loop_thread &operator=(const loop_thread &) = delete;
    ~loop_thread();

    /* Has it done there, and waits for its end. */
    void call(const std::function<void()> &what);
    [[nodiscard]] std::thread::id id() const { return m_thread.get_id(); }

private:
    static void on_wanted(event_context_t *context, void *arg);

    event_mgr_p m_evm;
    event_context_t m_context = {};
    std::mutex m_lock;
    std::deque<std::function<void()>> m_wanted;
    std::thread m_thread;
};

class link_process {
public:
    link_process();
    link_process(const link_process &) = delete;
    link_process &operator=(const link_process &) = delete;
    ~link_process();

    /* Any thread. */
    void start();
    void stop();
    void while_it_reads_nothing(const std::function<void()> &what);

    /* It ends links after so many messages; 0: none. */
    std::atomic<uint32_t> ends_links_after = 0;

    [[nodiscard]] uint64_t links() const { return m_links; }
    [[nodiscard]] uint64_t messages() const { return m_messages; }
    /* What was wrong with the messages that came; empty: nothing. */
    [[nodiscard]] std::string faults();

private:
    /* What came on a link. */
    struct story {
        uint32_t class_id = 0;
        uint32_t messages = 0;
        bool begun = false;  /* something else than a JOIN has come */
        uint32_t open = 0;   /* the type of the request that the next message goes on with; 0: none */
        uint32_t handle = 0; /* the latest */
    };

    static qerrno on_accept(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer,
                            const l2vpn_ipc_peer_info_t *info, void *arg);
    static void on_message(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, void *message, uint32_t length,
                           void *arg);
    static void on_closed(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, qerrno reason, void *arg);
    static void on_log(l2vpn_ipc_server_t server, int level, const char *text, void *arg);

    void look_at(story &of, const uint8_t *message, uint32_t length);
    void answer(l2vpn_ipc_peer_t peer, const story &of);
    void fault(const std::string &text);

    event_mgr_p m_evm;
    l2vpn_ipc_server_t m_server = nullptr;
    std::map<l2vpn_ipc_peer_t, story> m_stories;
    std::atomic<uint64_t> m_links = 0;
    std::atomic<uint64_t> m_messages = 0;
    std::mutex m_lock;
    std::string m_faults;
    std::unique_ptr<loop_thread> m_loop;
};

} // namespace race_test

#endif
