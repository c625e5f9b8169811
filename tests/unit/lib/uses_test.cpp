/*
 * The lock of the list of uses, when threads meet in it. A holder is kept there by the list itself: one of the
 * uses that it walks over lies in a page that may not be touched yet. This program stands in front of syscall(),
 * and sees who waits and who is woken.
 */
#include "l2vpn_ac_global.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <new>
#include <optional>
#include <semaphore.h>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int own_errno = 4711;

/* A gate that a thread stands at until it is opened. */
class gate {
public:
    gate() { sem_init(&semaphore_, 0, 0); }
    gate(const gate &) = delete;
    gate &operator=(const gate &) = delete;
    ~gate() { sem_destroy(&semaphore_); }

    void open() { sem_post(&semaphore_); }

    /* False: it stayed shut. */
    bool pass()
    {
        timespec end{};
        clock_gettime(CLOCK_REALTIME, &end);
        end.tv_sec += 60;
        int result = 0;
        while ((result = sem_timedwait(&semaphore_, &end)) != 0 && errno == EINTR) {
        }
        return result == 0;
    }

private:
    sem_t semaphore_{};
};

struct futex_call {
    long at, operation, value, timeout, second, third;
    long result = 0;
    int error = 0;
};

/* A thread that uses the library, and what it asked of the kernel. */
struct party {
    std::vector<futex_call> calls;
    gate at_wait;                /* opened when it is about to wait, or has come through */
    gate *before_wait = nullptr; /* it stands at this one first */
    int interruptions = 0;       /* so many waits end at once */
    pid_t tid = 0;
    int errno_after = 0;
    std::thread thread;
};

thread_local party *s_self;

/* The page, and whoever came upon it. */
void *s_page;
gate *s_holder_is_in;
gate *s_holder_may_go;

constexpr std::size_t page_size = 4096;

void on_fault(int, siginfo_t *info, void *)
{
    if (info->si_addr < s_page || info->si_addr >= static_cast<char *>(s_page) + page_size) {
        std::signal(SIGSEGV, SIG_DFL); /* which it is given at once: the access is tried again */
        return;
    }
    const int error = errno;
    s_holder_is_in->open();
    s_holder_may_go->pass();
    mprotect(s_page, page_size, PROT_READ | PROT_WRITE);
    errno = error;
}

} // namespace

extern "C" __attribute__((visibility("default"))) long syscall(long number, ...) noexcept
{
    static const auto next = reinterpret_cast<decltype(&syscall)>(dlsym(RTLD_NEXT, "syscall"));
    std::array<long, 6> given{};
    va_list list;
    va_start(list, number);
    for (long &each : given)
        each = va_arg(list, long);
    va_end(list);
    const auto pass_on = [&](long timeout) {
        return next(number, given[0], given[1], given[2], timeout, given[4], given[5]);
    };
    party *const self = s_self;
    if (self == nullptr || number != SYS_futex)
        return pass_on(given[3]);

    futex_call &call =
        self->calls.emplace_back(futex_call{given[0], given[1], given[2], given[3], given[4], given[5]});
    /* A waiter that nobody wakes gives up, and fails the test. */
    static const timespec long_enough{.tv_sec = 60, .tv_nsec = 0};
    if (given[1] != FUTEX_WAIT_PRIVATE) {
        call.result = pass_on(given[3]);
        call.error = errno;
    } else if (self->interruptions > 0) {
        --self->interruptions;
        call.result = -1;
        call.error = EINTR;
    } else {
        self->at_wait.open();
        if (self->before_wait != nullptr)
            self->before_wait->pass();
        call.result = pass_on(reinterpret_cast<long>(&long_enough));
        call.error = errno;
    }
    errno = call.error != 0 ? call.error : EIO;
    return call.result;
}

namespace {

l2vpn_ac_client_ctx *new_context()
{
    return static_cast<l2vpn_ac_client_ctx *>(std::calloc(1, sizeof(l2vpn_ac_client_ctx)));
}

/* A use of a new context, which goes with it. */
struct new_use : l2vpn_ac_client_use {
    explicit new_use(l2vpn_ac_client_ctx *ctx = new_context()) : l2vpn_ac_client_use(first::use, ctx) {}
};

/* A thread that was about to wait sleeps nowhere else. */
bool sleeps(pid_t tid)
{
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name_end = text.rfind(") ");
    return name_end != std::string::npos && text[name_end + 2] == 'S';
}

bool comes_to_sleep(pid_t tid)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!sleeps(tid)) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

class uses : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(
            wavl_init(&s_l2vpn_ac_global.client_tree, 1, l2vpn_ac_client_get_key, l2vpn_ac_client_compare),
            qerrno{EOK});
        s_page = mmap(nullptr, page_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(s_page, MAP_FAILED);
        s_holder_is_in = &is_in_;
        s_holder_may_go = &may_go_;
        struct sigaction action {};
        action.sa_sigaction = on_fault;
        action.sa_flags = SA_SIGINFO;
        ASSERT_EQ(sigaction(SIGSEGV, &action, &before_), 0);
    }
    void TearDown() override
    {
        let_holder_go();
        for (party *each : {&holder_, &first_, &second_})
            if (each->thread.joinable())
                each->thread.join();
        for (std::optional<new_use> &each : uses_)
            each.reset();
        if (in_page_ != nullptr)
            in_page_->~new_use();
        sigaction(SIGSEGV, &before_, nullptr);
        munmap(s_page, page_size);
    }

    static void run(party &by, std::function<void()> work)
    {
        gate begun;
        by.thread = std::thread([&by, &begun, work = std::move(work)] {
            by.tid = gettid();
            by.calls.reserve(16);
            begun.open();
            s_self = &by;
            errno = own_errno;
            work();
            by.errno_after = errno;
            s_self = nullptr;
            by.at_wait.open();
        });
        ASSERT_TRUE(begun.pass());
    }

    /* A thread ends a use, and has to walk over the one in the page: it stands there with the lock. */
    void hold()
    {
        holders_use_.emplace(); /* behind the one in the page */
        in_page_ = new (s_page) new_use;
        ASSERT_EQ(mprotect(s_page, page_size, PROT_NONE), 0);
        run(holder_, [this] { holders_use_.reset(); });
        ASSERT_TRUE(is_in_.pass()) << "the holder has not come to the page";
    }
    void let_holder_go() { may_go_.open(); }

    /* A thread comes while another holds, and sleeps. */
    static void come(party &by, const std::function<void()> &work)
    {
        run(by, work);
        ASSERT_TRUE(by.at_wait.pass()) << "neither waits nor comes through";
        ASSERT_FALSE(by.calls.empty()) << "went in";
        ASSERT_TRUE(comes_to_sleep(by.tid));
    }

    /* A thread waits while another holds, and goes on when it is let. */
    void expect_waits(const std::function<void()> &work)
    {
        ASSERT_NO_FATAL_FAILURE(hold());
        ASSERT_NO_FATAL_FAILURE(come(first_, work));
        let_holder_go();
        holder_.thread.join();
        first_.thread.join();

        ASSERT_EQ(first_.calls.size(), 2u) << "a wait, and a wake for whoever came meanwhile";
        expect_wait(first_.calls[0], 0);
        expect_wake(first_, 0);
        expect_wake(holder_, 1);
    }

    static void expect_wait(const futex_call &call, int error)
    {
        EXPECT_EQ(call.operation, FUTEX_WAIT_PRIVATE);
        EXPECT_EQ(call.timeout, 0) << "as long as it takes";
        EXPECT_EQ(call.result == 0 ? 0 : call.error, error);
    }

    /* Its last call was to wake one, and so many were there. Its errno is its own. */
    void expect_wake(const party &by, long woken)
    {
        ASSERT_FALSE(by.calls.empty()) << "wakes nobody";
        const futex_call &call = by.calls.back();
        EXPECT_EQ(call.operation, FUTEX_WAKE_PRIVATE);
        EXPECT_EQ(call.at, first_.calls.front().at);
        EXPECT_EQ(call.value, 1);
        EXPECT_EQ(call.result, woken);
        EXPECT_EQ(by.errno_after, own_errno);
    }

    party holder_, first_, second_;
    std::array<std::optional<new_use>, 2> uses_;
    std::optional<new_use> holders_use_;
    new_use *in_page_ = nullptr;

private:
    gate is_in_, may_go_;
    struct sigaction before_ {};
};

TEST_F(uses, that_meet_nobody_ask_nothing_of_the_kernel)
{
    run(first_, [] {
        for (int round = 0; round < 3; ++round) {
            const new_use one;
            const new_use other;
        }
    });
    first_.thread.join();
    EXPECT_TRUE(first_.calls.empty());
    EXPECT_EQ(first_.errno_after, own_errno);
}

TEST_F(uses, begin_one_after_the_other)
{
    expect_waits([this, ctx = new_context()] { uses_[0].emplace(ctx); });
}

TEST_F(uses, end_one_after_the_other)
{
    uses_[0].emplace();
    expect_waits([this] { uses_[0].reset(); });
}

TEST_F(uses, enter_the_tree_one_after_the_other)
{
    uses_[0].emplace();
    bool entered = false;
    expect_waits([&] { entered = uses_[0]->enter_tree(); });
    EXPECT_TRUE(entered);
    uses_[0]->leave_tree();
}

TEST_F(uses, leave_the_tree_one_after_the_other)
{
    uses_[0].emplace();
    ASSERT_TRUE(uses_[0]->enter_tree());
    expect_waits([this] { uses_[0]->leave_tree(); });
}

/* The lock is let go between a look at it and the wait: the kernel sees that, and nobody waits for nothing. */
TEST_F(uses, do_not_wait_for_a_holder_who_has_gone)
{
    gate held_back;
    first_.before_wait = &held_back;
    ASSERT_NO_FATAL_FAILURE(hold());
    run(first_, [this, ctx = new_context()] { uses_[0].emplace(ctx); });
    EXPECT_TRUE(first_.at_wait.pass());
    let_holder_go();
    holder_.thread.join();
    held_back.open();
    first_.thread.join();

    ASSERT_EQ(first_.calls.size(), 2u);
    expect_wait(first_.calls[0], EAGAIN);
    expect_wake(first_, 0);
    expect_wake(holder_, 0);
}

TEST_F(uses, wait_again_when_a_wait_ends_for_no_reason)
{
    first_.interruptions = 2;
    ASSERT_NO_FATAL_FAILURE(hold());
    ASSERT_NO_FATAL_FAILURE(come(first_, [this, ctx = new_context()] { uses_[0].emplace(ctx); }));
    let_holder_go();
    holder_.thread.join();
    first_.thread.join();

    ASSERT_EQ(first_.calls.size(), 4u);
    expect_wait(first_.calls[0], EINTR);
    expect_wait(first_.calls[1], EINTR);
    expect_wait(first_.calls[2], 0);
    expect_wake(first_, 0);
    expect_wake(holder_, 1);
}

/* Who was woken does not know whether others wait, and wakes the next. */
TEST_F(uses, that_wait_are_woken_one_by_the_other)
{
    ASSERT_NO_FATAL_FAILURE(hold());
    ASSERT_NO_FATAL_FAILURE(come(first_, [this, ctx = new_context()] { uses_[0].emplace(ctx); }));
    ASSERT_NO_FATAL_FAILURE(come(second_, [this, ctx = new_context()] { uses_[1].emplace(ctx); }));
    let_holder_go();
    for (party *each : {&holder_, &first_, &second_})
        each->thread.join();

    expect_wake(holder_, 1);
    ASSERT_EQ(first_.calls.size(), 2u);
    ASSERT_EQ(second_.calls.size(), 2u);
    expect_wait(first_.calls[0], 0);
    expect_wait(second_.calls[0], 0);
    const bool in_turn = first_.calls[1].result == 1;
    expect_wake(in_turn ? first_ : second_, 1);
    expect_wake(in_turn ? second_ : first_, 0);
}

} // namespace
