/*
 * kill_at_call N CALL PROGRAM [ARGUMENT...]: runs a program and kills it with SIGKILL when it enters its N-th
 * system call of the kind CALL: "all", or "sendmsg". Ends with 0 when it did, with 1 when the program ended
 * before, with 2 when it cannot be traced. The program dies with it.
 */
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <err.h>
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

bool enters(pid_t child, bool any, unsigned long long wanted)
{
    __ptrace_syscall_info info{};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) < 0)
        err(cannot, "PTRACE_GET_SYSCALL_INFO");
    return info.op == PTRACE_SYSCALL_INFO_ENTRY && (any || info.entry.nr == wanted);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 4)
        errx(cannot, "usage: kill_at_call N all|sendmsg PROGRAM [ARGUMENT...]");
    long left = strtol(argv[1], nullptr, 10);
    const bool any = strcmp(argv[2], "all") == 0;
    if (!any && strcmp(argv[2], "sendmsg") != 0)
        errx(cannot, "%s: neither all nor sendmsg", argv[2]);

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
        } else if (enters(child, any, SYS_sendmsg) && --left <= 0) {
            kill(child, SIGKILL);
            while (!WIFSIGNALED(status) && !WIFEXITED(status))
                status = wait_for(child);
            return 0;
        }
    }
}
