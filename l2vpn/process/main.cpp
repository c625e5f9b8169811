/*
 * l2vpnd: the L2VPN process of one node.
 *
 * From the outside in: main makes the event manager, the service (links of the owners) and the control server
 * (requests of operators), all of which work on the one l2vpn_process (process.h). It is one thread: every
 * handler runs from the loop below, nothing locks, nothing blocks.
 *
 * Signals are read from a descriptor like everything else, so that a clean end is an ordinary event: the links
 * close, the sockets' files go, the exit status is 0.
 */
#include "control_server.h"
#include "file_access.h"
#include "options.h"
#include "service.h"
#include "supervisor.h"
#include "unique_fd.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <platform/config.h>
#include <platform/debug.h>
#include <platform/event_loop.h>
#include <platform/node.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

using namespace l2vpnd;

namespace {

constexpr uint32_t greeting_peers = 64; /* links that are opening, beside the owners */
constexpr mode_t ring_mode = 0640;
constexpr int short_wait_ms = 5;
constexpr int long_wait_ms = 1000;

struct free_event_mgr {
    void operator()(event_mgr_p evm) const { event_mgr_free(evm); }
};

exit_status fail(const std::string &what, exit_status status = exit_failed)
{
    fprintf(stderr, "%sl2vpnd: %s\n", journal_prefix(LOG_ERR), what.c_str());
    return status;
}

std::string text_of(int cause)
{
    return qerr_strerror(static_cast<qerrno>(cause));
}

/* SIGTERM and SIGINT end the program, SIGHUP has the file of options read again, SIGPIPE is never wanted. */
int make_signal_fd()
{
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

/* What signals ask for. */
struct requests {
    bool stop = false;
    std::function<void()> reload; /* empty: there is nothing to read again, and SIGHUP stops, too */
};

void on_signal(event_fd_watch_t * /*watch*/, int fd, uint32_t /*events*/, void *arg)
{
    requests &asked = *static_cast<requests *>(arg);
    signalfd_siginfo info{};
    if (read(fd, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return;
    }
    if (info.ssi_signo == SIGHUP && asked.reload) {
        asked.reload();
    } else {
        asked.stop = true;
    }
}

int least_level(const program_options &options)
{
    return options.verbose ? LOG_DEBUG : LOG_NOTICE;
}

/* Takes over what can change while links are open. Bad options change nothing. */
void reload(int argc, char **argv, const program_options &started_with, l2vpn_process &process,
            event_log &log)
try {
    program_options fresh;
    if (const std::string wrong = read_again(argc, argv, fresh); !wrong.empty()) {
        log.write(topic::life, LOG_ERR, "nothing is changed: %s", wrong.c_str());
        return;
    }
    process.set_auto_provision(fresh.process.auto_provision);
    log.set_least_level(least_level(fresh));
    log.write(topic::life, LOG_NOTICE, "read the options again: auto-provision is %s, verbose is %s",
              fresh.process.auto_provision ? "on" : "off", fresh.verbose ? "on" : "off");
    fresh.process.auto_provision = started_with.process.auto_provision;
    fresh.verbose = started_with.verbose;
    if (fresh != started_with) {
        log.write(topic::life, LOG_WARNING, "other options have changed, and count from the next start on");
    }
} catch (const std::bad_alloc &) {
    log.write(topic::life, LOG_ERR, "nothing is changed: out of memory");
} catch (const std::exception &error) {
    log.write(topic::life, LOG_ERR, "nothing is changed: %s", error.what());
}

/* As it was given, for people. */
std::string runtime_dir_of(const program_options &options)
{
    const char *configured = getenv("L2VPN_RUNTIME_DIR");
    return !options.runtime_dir.empty() ? options.runtime_dir
           : configured != nullptr      ? configured
                                        : "the default folder";
}

std::string control_path(const std::string &service_path)
{
    return service_path.substr(0, service_path.rfind('/') + 1) + "L2VPN.ctl";
}

/* As much as the sockets, it is for the group's members to read. A process that cannot record serves all the
 * same: what is wrong has its line. */
void start_capture(const program_options &options)
{
    const char *where = options.capture_asked ? options.capture.c_str() : "default";
    if (platform_capture_set(where, options.capture_size, 0) != EOK) {
        return;
    }
    const char *path = platform_capture_path();
    if (*path == '\0') {
        return;
    }
    using namespace l2vpn::platform_posix;
    gid_t readers = same_group;
    const unique_fd ring(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::string why;
    const qerrno known = find_group(options.group.empty() ? nullptr : options.group.c_str(), &readers);
    if (known != EOK) {
        why = known == ENOENT
                  ? "no group " + options.group
                  : "cannot look up the group " + options.group + ": " + text_of(static_cast<int>(known));
    } else if (!ring || give_access(ring.get(), readers, ring_mode) != access_fault::none) {
        why = text_of(errno);
    }
    if (!why.empty()) {
        fprintf(stderr, "%sl2vpnd: %s: only its owner may read it: %s\n", journal_prefix(LOG_WARNING), path,
                why.c_str());
    }
}

/* Runs until told to stop. What waits for owners is tried again soon after anything has happened, because a link
 * that takes more is an event, too; and every second, for what found no memory. So an owner that does not read
 * has the process sleep. */
exit_status serve(event_mgr_p evm, l2vpn_process &process, control_server &control, const bool &stopping)
{
    using clock = control_server::clock;
    clock::time_point ticked = clock::now();
    clock::time_point swept = ticked;
    int wait = long_wait_ms;
    while (!stopping) {
        if (event_mgr_dispatch(evm, wait) < 0 && errno != EINTR) {
            return fail("the event manager failed: " + text_of(errno));
        }
        const clock::time_point now = clock::now();
        wait = short_wait_ms;
        if (now - ticked >= std::chrono::milliseconds(short_wait_ms)) {
            ticked = now;
            process.send_all_waiting();
            wait = long_wait_ms;
        }
        if (now - swept >= std::chrono::seconds(1)) {
            swept = now;
            control.tick(now);
        }
    }
    return exit_ok;
}

exit_status run(int argc, char **argv, program_options options, int signals)
{
    const program_options started_with = options;
    std::error_code unknown;
    if (!options.runtime_dir.empty()) {
        options.runtime_dir = std::filesystem::absolute(options.runtime_dir, unknown);
    }
    if (!unknown && options.capture.find('/') != std::string::npos) { /* operators are told the path */
        options.capture = std::filesystem::absolute(options.capture, unknown);
    }
    if (unknown) {
        return fail("cannot tell the current directory: " + text_of(unknown.value()));
    }
    if (!options.runtime_dir.empty()) {
        setenv("L2VPN_RUNTIME_DIR", options.runtime_dir.c_str(), 1);
    }
    std::string error;
    passed_sockets passed;
    if (!take_passed_sockets(&passed, &error)) {
        return fail(error);
    }
    char service_path[sizeof(sockaddr_un::sun_path)];
    if (const qerrno status = platform_service_path("L2VPN", service_path, sizeof service_path);
        status != EOK) {
        return fail("no socket can be made in " + runtime_dir_of(options) + ": " + qerr_strerror(status));
    }
    if (options.nodeid) {
        options.process.nodeid = *options.nodeid;
    } else if (const qerrno status = platform_get_my_nodeid(&options.process.nodeid); status != EOK) {
        return fail(std::string("cannot tell this node's id (give --nodeid): ") + qerr_strerror(status));
    }

    event_log log(options.to_syslog ? event_log::to_syslog("l2vpnd") : event_log::to_stderr("l2vpnd"),
                  least_level(options));

    requests asked;
    const std::unique_ptr<event_mgr, free_event_mgr> evm(event_mgr_new());
    if (signals < 0 || evm == nullptr ||
        event_fd_watch(evm.get(), signals, EVENT_FD_READ, on_signal, &asked) == nullptr) {
        return fail("cannot start: " + text_of(errno));
    }
    l2vpn_debug_init(evm.get()); /* a trace that cannot be written has its line, and nothing ends for it */

    service owners(log);
    l2vpn_process process(options.process, owners, log);
    l2vpn_ipc_server_options_t server{};
    server.nodeid = options.process.nodeid;
    server.mtu = options.mtu;
    server.max_peers = options.process.max_owners + greeting_peers;
    server.listen_fd = passed.owners;
    server.group = options.group.empty() ? nullptr : options.group.c_str();
    if (const qerrno status = owners.open(evm.get(), server, process, &error); status != EOK) {
        return fail(error, status == EADDRINUSE ? exit_in_use : exit_failed);
    }

    control_options control{};
    control.listen_fd = passed.operators;
    control.path = passed.operators >= 0 ? passed.operators_path : control_path(owners.path());
    control.group = server.group;
    control_server operators(evm.get(), {process, owners.path(), control.path}, log);
    if (operators.open(control, &error) != EOK) {
        return fail(error);
    }
    start_capture(options); /* no owner is served before the loop below runs */
    if (printf("l2vpnd: ready on %s\n", owners.path().c_str()) < 0 || fflush(stdout) != 0) {
        return fail("cannot write to standard output: " + text_of(errno));
    }
    const std::string where = owners.path();
    if (options.has_file) {
        asked.reload = [&] {
            tell_reloading();
            reload(argc, argv, started_with, process, log);
            tell_ready(where);
        };
    }
    tell_ready(where);
    const exit_status status = serve(evm.get(), process, operators, asked.stop);
    tell_stopping();
    owners.close();
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        const int signals = make_signal_fd(); /* first of all: a signal that comes early waits */
        program_options options;
        if (const auto status = read_command_line(argc, argv, options)) {
            return *status;
        }
        return run(argc, argv, std::move(options), signals);
    } catch (const std::bad_alloc &) {
        return fail("out of memory");
    } catch (const std::exception &error) {
        return fail(error.what());
    }
}
