#include <platform/event_loop.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/* A connected pair of sockets, one watched with a handler of the test's. */
class watched_pair {
public:
    watched_pair(event_mgr_p evm, std::uint32_t wanted, std::function<void(watched_pair &)> handler = {})
        : handler_(std::move(handler))
    {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds.data()), 0);
        watch = event_fd_watch(evm, fds[0], wanted, on_event, this);
        EXPECT_NE(watch, nullptr);
    }
    ~watched_pair()
    {
        unwatch();
        ::close(fds[0]);
        hang_up();
    }
    watched_pair(const watched_pair &) = delete;
    watched_pair &operator=(const watched_pair &) = delete;

    void make_readable() const { EXPECT_EQ(::write(fds[1], "x", 1), 1); }
    void drain() const
    {
        std::array<char, 16> bytes{};
        EXPECT_GT(::read(fds[0], bytes.data(), bytes.size()), 0);
    }
    void hang_up()
    {
        if (fds[1] >= 0) {
            ::close(std::exchange(fds[1], -1));
        }
    }
    void unwatch() { event_fd_unwatch(std::exchange(watch, nullptr)); }

    std::array<int, 2> fds{};
    event_fd_watch_t *watch = nullptr;
    int calls = 0;
    std::uint32_t events = 0;

private:
    static void on_event(event_fd_watch_t *watch, int fd, std::uint32_t happened, void *arg)
    {
        auto &self = *static_cast<watched_pair *>(arg);
        EXPECT_EQ(watch, self.watch);
        EXPECT_EQ(fd, self.fds[0]);
        ++self.calls;
        self.events = happened;
        if (self.handler_) {
            self.handler_(self);
        }
    }

    std::function<void(watched_pair &)> handler_;
};

class event_watches : public ::testing::Test {
protected:
    void TearDown() override { event_mgr_free(evm); }

    event_mgr_p evm = event_mgr_new();
};

TEST_F(event_watches, a_readable_descriptor_calls_until_it_is_read)
{
    watched_pair pair(evm, EVENT_FD_READ);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 0);
    pair.make_readable();
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    EXPECT_EQ(pair.calls, 2);
    EXPECT_EQ(pair.events, EVENT_FD_READ);
    pair.drain();
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 0);
}

TEST_F(event_watches, what_is_watched_for_can_be_changed)
{
    watched_pair pair(evm, EVENT_FD_WRITE);
    pair.make_readable();
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    EXPECT_EQ(pair.events, EVENT_FD_WRITE);
    ASSERT_EQ(event_fd_modify(pair.watch, EVENT_FD_READ | EVENT_FD_WRITE), 0);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    EXPECT_EQ(pair.events, EVENT_FD_READ | EVENT_FD_WRITE);
    ASSERT_EQ(event_fd_modify(pair.watch, 0), 0);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 0);
}

TEST_F(event_watches, a_hang_up_is_reported_asked_for_or_not)
{
    watched_pair pair(evm, 0);
    pair.hang_up();
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    EXPECT_EQ(pair.events, EVENT_FD_HANGUP);
}

TEST_F(event_watches, an_ended_watch_calls_no_more)
{
    watched_pair pair(evm, EVENT_FD_READ);
    pair.make_readable();
    pair.unwatch();
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 0);
    EXPECT_EQ(pair.calls, 0);
}

TEST_F(event_watches, a_handler_may_end_its_own_watch)
{
    watched_pair pair(evm, EVENT_FD_READ, [](watched_pair &self) { self.unwatch(); });
    pair.make_readable();
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 0);
}

/* All are readable and so come in one batch; the first to be called ends the others. */
TEST_F(event_watches, a_watch_ended_by_another_handler_of_the_same_batch_is_not_called)
{
    std::vector<std::unique_ptr<watched_pair>> pairs;
    for (int index = 0; index < 8; ++index) {
        pairs.push_back(std::make_unique<watched_pair>(evm, EVENT_FD_READ, [&](watched_pair &self) {
            for (const auto &each : pairs) {
                if (each.get() != &self) {
                    each->unwatch();
                }
            }
        }));
    }
    for (const auto &pair : pairs) {
        pair->make_readable();
    }
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
}

/* The descriptor of an ended watch may be closed at once, and its number given to a new one, whose watch
 * must not be told the old one's event. */
TEST_F(event_watches, an_event_of_an_ended_watch_is_not_given_to_a_new_watch_of_the_same_number)
{
    std::vector<std::unique_ptr<watched_pair>> pairs;
    std::unique_ptr<watched_pair> fresh;
    for (int index = 0; index < 2; ++index) {
        pairs.push_back(std::make_unique<watched_pair>(evm, EVENT_FD_READ, [&](watched_pair &self) {
            auto &other = pairs[&self == pairs[0].get() ? 1 : 0];
            other.reset();
            fresh = std::make_unique<watched_pair>(evm, EVENT_FD_READ);
        }));
    }
    const std::array numbers{pairs[0]->fds[0], pairs[1]->fds[0]};
    pairs[0]->make_readable();
    pairs[1]->make_readable();
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 1);
    ASSERT_NE(fresh, nullptr);
    EXPECT_THAT(numbers, ::testing::Contains(fresh->fds[0])) << "the test needs the number to come again";
    EXPECT_EQ(fresh->calls, 0);
}

TEST_F(event_watches, bad_arguments_are_refused)
{
    const auto handler = [](event_fd_watch_t *, int, std::uint32_t, void *) {};
    std::array<int, 2> pipe_fds{};
    ASSERT_EQ(::pipe2(pipe_fds.data(), O_CLOEXEC), 0);
    errno = 0;
    EXPECT_EQ(event_fd_watch(nullptr, pipe_fds[0], EVENT_FD_READ, handler, nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(event_fd_watch(evm, pipe_fds[0], EVENT_FD_READ, nullptr, nullptr), nullptr);
    EXPECT_EQ(event_fd_watch(evm, -1, EVENT_FD_READ, handler, nullptr), nullptr);
    EXPECT_EQ(errno, EBADF);
    EXPECT_LT(event_fd_modify(nullptr, 0), 0);
    event_fd_unwatch(nullptr);

    event_fd_watch_t *watch = event_fd_watch(evm, pipe_fds[0], EVENT_FD_READ, handler, nullptr);
    ASSERT_NE(watch, nullptr);
    EXPECT_EQ(event_fd_watch(evm, pipe_fds[0], EVENT_FD_READ, handler, nullptr), nullptr);
    EXPECT_EQ(errno, EEXIST);
    event_fd_unwatch(watch);
    ::close(pipe_fds[0]);
    ::close(pipe_fds[1]);
}

TEST_F(event_watches, a_stop_leaves_the_rest_of_the_batch_for_later)
{
    std::vector<std::unique_ptr<watched_pair>> pairs;
    for (int index = 0; index < 4; ++index) {
        pairs.push_back(std::make_unique<watched_pair>(evm, EVENT_FD_READ,
                                                       [this](watched_pair &) { event_mgr_stop(evm); }));
        pairs.back()->make_readable();
    }
    EXPECT_EQ(event_mgr_run(evm), 0);
    int calls = 0;
    for (const auto &pair : pairs) {
        calls += pair->calls;
    }
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(event_mgr_dispatch(evm, 0), 4);
}

} // namespace
