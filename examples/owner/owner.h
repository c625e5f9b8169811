/*
 * The interface owner: one session a class, an event loop, and the work handler that sends what the sessions
 * have to send.
 *
 * One thread. Sessions ask for work by posting an event to the loop; the handler sends one request and posts
 * again while there is more, so that events, signals and the progress bar get their turn in between.
 */
#ifndef OWNER_OWNER_H
#define OWNER_OWNER_H

#include "console.h"
#include "file_watch.h"
#include "options.h"
#include "session.h"
#include "timer.h"

#include <map>
#include <memory>
#include <platform/event_loop.h>
#include <string>

namespace owner {

class interface_owner {
public:
    // `scenario` is null when there is none.
    interface_owner(const options &chosen, console &out, mstp_scenario *scenario);
    ~interface_owner();
    interface_owner(const interface_owner &) = delete;
    interface_owner &operator=(const interface_owner &) = delete;

    // Connects a client a class and runs until a signal, or with --once until all was created. Returns the
    // program's exit status.
    int run(const interface_list &interfaces);

private:
    bool start(const interface_list &interfaces);
    bool mtu_has_room(const interface_list &interfaces); // for an AC of every class
    bool watch_signals();
    bool start_deadline();
    bool connect(const interface_list &interfaces);
    bool add_session(uint32_t class_id, interface_list interfaces);
    void connect_later();
    void work();
    void read_again();
    void change(const interface_list &interfaces);
    void end(int status);
    void report_unfinished();
    bool failed(const std::string &what); // with errno; false

    static void on_work(event_context_t *context, void *arg);
    static void on_signal(event_fd_watch_t *watch, int fd, uint32_t events, void *arg);

    options chosen_;
    console &out_;
    mstp_scenario *scenario_;
    event_mgr_p evm_ = nullptr;
    event_context_t work_context_{};
    int signal_fd_ = -1;
    event_fd_watch_t *signal_watch_ = nullptr;
    timer deadline_;
    timer connect_timer_; // for classes that could not be connected
    file_watch inventory_watch_;
    bool work_posted_ = false;
    bool all_reported_ = false;
    int status_ = 0;
    surroundings around_;
    std::map<uint32_t, std::unique_ptr<session>> sessions_; // by class
};

} // namespace owner

#endif
