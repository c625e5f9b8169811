#include "tracer.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ipc_test {

namespace {

constexpr long marking = SYS_getpgid; /* nobody else makes it */

template <typename Record>
void read_there(pid_t sender, uint64_t from, Record *to, size_t count)
{
    const iovec here{to, count * sizeof *to}, there{reinterpret_cast<void *>(from), here.iov_len};
    EXPECT_EQ(process_vm_readv(sender, &here, 1, &there, 1, 0), static_cast<ssize_t>(here.iov_len))
        << "process_vm_readv: " << strerror(errno);
}

/* Where a container forbids it, this is what is seen. */
bool did(long status, const char *what)
{
    EXPECT_GE(status, 0) << what << ": " << strerror(errno);
    return status >= 0;
}

} // namespace

bool be_traced()
{
    return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 && raise(SIGSTOP) == 0;
}

void mark()
{
    syscall(marking, 0);
}

bool tracer::begin()
{
    const bool stopped =
        wait() && WSTOPSIG(status_) == SIGSTOP &&
        did(ptrace(PTRACE_SETOPTIONS, sender_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL),
            "PTRACE_SETOPTIONS");
    EXPECT_TRUE(stopped) << "the sender did not come up, or could not have itself traced";
    take_arrived(nullptr);
    return stopped;
}

traffic tracer::between_marks()
{
    traffic seen;
    int marks = 0;
    call made;
    while (marks < 2 && next_stop()) {
        __ptrace_syscall_info info{};
        if (!did(ptrace(PTRACE_GET_SYSCALL_INFO, sender_, sizeof info, &info), "PTRACE_GET_SYSCALL_INFO"))
            break;
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            made = {info.entry.nr, {}, 0};
            if (made.number == SYS_sendmsg)
                made.pieces = pieces_of(info.entry.args[1]);
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && made.number == marking) {
            ++marks;
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && marks == 1) {
            made.result = info.exit.rval;
            seen.calls.push_back(made);
            take_arrived(&seen.arrived);
        }
    }
    EXPECT_EQ(marks, 2) << "the sender was left before its second mark";
    return seen;
}

void tracer::end() const
{
    ptrace(PTRACE_DETACH, sender_, nullptr, nullptr);
}

/* False when there is nothing to stop any more; its end is left to its parent. */
bool tracer::wait()
{
    siginfo_t what{};
    return waitid(P_PID, static_cast<id_t>(sender_), &what, WEXITED | WSTOPPED | WNOWAIT) == 0 &&
           (what.si_code == CLD_TRAPPED || what.si_code == CLD_STOPPED) &&
           waitpid(sender_, &status_, 0) == sender_ && WIFSTOPPED(status_);
}

bool tracer::next_stop()
{
    constexpr int at_call = SIGTRAP | 0x80;
    const int signal = WSTOPSIG(status_);
    const bool is_the_senders = signal != SIGSTOP && signal != SIGTRAP && signal != at_call;
    return did(ptrace(PTRACE_SYSCALL, sender_, nullptr, is_the_senders ? signal : 0), "PTRACE_SYSCALL") &&
           wait();
}

std::vector<iovec> tracer::pieces_of(uint64_t message) const
{
    msghdr header{};
    read_there(sender_, message, &header, 1);
    std::vector<iovec> pieces(header.msg_iovlen);
    read_there(sender_, reinterpret_cast<uint64_t>(header.msg_iov), pieces.data(), pieces.size());
    return pieces;
}

void tracer::take_arrived(std::vector<int64_t> *to) const
{
    std::array<char, header_size> header{};
    ssize_t size = 0;
    while ((size = recv(peer_, header.data(), header_size, MSG_DONTWAIT | MSG_TRUNC)) > 0)
        if (to != nullptr)
            to->push_back(size);
}

} // namespace ipc_test
