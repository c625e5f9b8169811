/*
 * A process for the tests to configure, kill and abort: prints what it was asked for and ends, or prints
 * "ready" and waits.
 */
#include "config_internal.h"

#include <platform/config.h>
#include <platform/platform.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace l2vpn::platform_posix;

void say_ready_and_wait()
{
    std::printf("ready %s\n", platform_trace_path());
    std::fflush(stdout);
    ::alarm(60); // ends this process should its parent die
    ::pause();
}

void give_records(unsigned count)
{
    for (unsigned number = 0; number < count; ++number) {
        gen_ltrace(1079, "record %u of %s", number, "the probe");
    }
}

int print_config(const std::vector<std::string> &)
{
    const configuration &read = config();
    std::printf(
        "runtime_dir=%s\nmtu=%u\nsend_timeout_ms=%u\ndebug=%s\ntrace=%s\ntrace_size=%u\nlog_to_stderr=%d\n",
        read.runtime_dir.c_str(), read.mtu, read.send_timeout_ms, read.debug_sink.c_str(), read.trace.c_str(),
        read.trace_size_kib, read.log_to_stderr ? 1 : 0);
    return 0;
}

int print_node_id(const std::vector<std::string> &)
{
    for (int time = 0; time < 2; ++time) {
        std::uint32_t id = 4711;
        const qerrno status = platform_get_my_nodeid(&id);
        std::printf("%u %u\n", status, id);
    }
    return 0;
}

int print_path(const std::vector<std::string> &arguments)
{
    std::vector<char> path(std::stoul(arguments.at(1)), '#');
    const qerrno status = platform_service_path(arguments.at(0).c_str(), path.data(), path.size());
    std::printf("%u %s\n", status, status == EOK ? path.data() : "");
    return 0;
}

int print_runtime_dir(const std::vector<std::string> &)
{
    std::string problem;
    const qerrno status = make_runtime_dir(problem);
    std::printf("%u %s\n", status, problem.c_str());
    return 0;
}

int trace_and_wait(const std::vector<std::string> &arguments)
{
    give_records(static_cast<unsigned>(std::stoul(arguments.at(0))));
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ptd_set_mutex_block(&mutex, "done_waiting", 1);
    ptd_unset_mutex_block();
    ptd_set_mutex_block(&mutex, "still_waiting", 2);
    say_ready_and_wait();
    return 0;
}

/* Threads write without end until the process is killed. */
int trace_for_ever(const std::vector<std::string> &)
{
    give_records(100);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([] {
            for (;;) {
                give_records(100);
            }
        });
    }
    say_ready_and_wait();
    return 0;
}

int trace_and_abort(const std::vector<std::string> &arguments)
{
    if (!arguments.empty() && arguments[0] == "handled") {
        struct sigaction mine {};
        mine.sa_handler = [](int) {
            [[maybe_unused]] const auto written = ::write(STDERR_FILENO, "mine\n", 5);
        };
        ::sigaction(SIGABRT, &mine, nullptr);
    }
    give_records(3);
    if (!arguments.empty() && arguments[0] == "off") {
        platform_trace_set("off");
    }
    if (!arguments.empty() && arguments[0] == "killed") {
        ::raise(SIGABRT);
    }
    std::abort();
}

/* The child must not write into its parent's file, and may have one of its own. */
int trace_and_fork(const std::vector<std::string> &arguments)
{
    give_records(3);
    const pid_t child = ::fork();
    if (child == 0) {
        const bool silent = *platform_trace_path() == '\0' && l2vpn_check_ltrace_buffer(1) == 0;
        give_records(100);
        const bool own = platform_trace_set(arguments.at(0).c_str()) == EOK;
        give_records(5);
        std::_Exit(silent && own ? 0 : 1);
    }
    int status = 1;
    ::waitpid(child, &status, 0);
    give_records(4);
    say_ready_and_wait();
    return status == 0 ? 0 : 1;
}

int debug_texts(const std::vector<std::string> &)
{
    gen_format_debug_fmt(1094, "a_function", 7, "text %d", 5);
    l2vpn_generic_gen_dbg_ltrace_ctx(nullptr, nullptr, 163, "a_function", 8, "report %s", "bad");
    gen_dbg_ltrace_ctx(1079, "a_function", 9, "entered");
    gen_ltrace(1079, "a record only");
    l2vpn_ltrace(L2VPN_LTRACE_KEY(9, 1), "%u ", 3U);
    l2vpn_gen_assert_errmsg(1);
    vy_syslog(6, "to the log: %x", 0x1fU);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::map<std::string, int (*)(const std::vector<std::string> &)> tasks{
        {"config", print_config},
        {"nodeid", print_node_id},
        {"path", print_path},
        {"runtime-dir", print_runtime_dir},
        {"trace-and-wait", trace_and_wait},
        {"trace-for-ever", trace_for_ever},
        {"abort", trace_and_abort},
        {"fork", trace_and_fork},
        {"debug", debug_texts},
    };
    if (argc < 2 || !tasks.contains(argv[1])) {
        std::fputs("platform_probe: no such task\n", stderr);
        return 2;
    }
    return tasks.at(argv[1])({argv + 2, argv + argc});
}
