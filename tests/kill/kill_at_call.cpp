/*
 * kill_at_call N CALL PROGRAM [ARGUMENT...]: runs a program and kills it with SIGKILL when it enters its N-th
 * system call of the kind CALL: "all", "behind-output", which is all behind its first write to standard output, or
 * "sendmsg". Ends with 0 when it did, with 1 when the program ended before, with 2 when it cannot be traced. The
 * program dies with it.
 */
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <err.h>
#include <string_view>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int cannot = 2;

[[noreturn]] void run_traced(char **command)
{
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0)
        execv(command[0], command);
    err(cannot, "%s", command[0]);
}

int wait_for(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, __WALL) < 0)
        if (errno != EINTR)
            err(cannot, "waitpid");
    return status;
}

/* The calls of the kind that a program enters. */
class counter {
public:
    counter(long most, std::string_view kind)
        : m_left(most), m_sends(kind == "sendmsg"), m_counts(kind != "behind-output")
    {
    }

    /* True when it is entering the last of them. */
    bool is_at_end(pid_t child)
    {
        __ptrace_syscall_info info{};
        if (ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) < 0)
            err(cannot, "PTRACE_GET_SYSCALL_INFO");
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY)
            return false;
        if (m_counts)
            return (!m_sends || info.entry.nr == SYS_sendmsg) && --m_left <= 0;
        m_counts = info.entry.nr == SYS_write && info.entry.args[0] == STDOUT_FILENO;
        return false;
    }

private:
    long m_left;
    bool m_sends;
    bool m_counts;
};

} // namespace

int main(int argc, char **argv)
{
    if (argc < 4)
        errx(cannot, "usage: kill_at_call N all|behind-output|sendmsg PROGRAM [ARGUMENT...]");
    const std::string_view kind = argv[2];
    if (kind != "all" && kind != "behind-output" && kind != "sendmsg")
        errx(cannot, "%s: none of all, behind-output and sendmsg", argv[2]);
    counter calls(strtol(argv[1], nullptr, 10), kind);

    const pid_t child = fork();
    if (child < 0)
        err(cannot, "fork");
    if (child == 0)
        run_traced(argv + 3);
    int status = wait_for(child);
    if (WIFEXITED(status))
        return cannot;
    if (ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) < 0)
        err(cannot, "PTRACE_SETOPTIONS");
    for (int signal = 0;;) {
        if (ptrace(PTRACE_SYSCALL, child, nullptr, signal) < 0)
            err(cannot, "PTRACE_SYSCALL");
        signal = 0;
        status = wait_for(child);
        if (!WIFSTOPPED(status))
            return 1;
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
        } else if (calls.is_at_end(child)) {
            kill(child, SIGKILL);
            while (!WIFSIGNALED(status) && !WIFEXITED(status))
                status = wait_for(child);
            return 0;
        }
    }
}
