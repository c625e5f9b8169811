/*
 * What the races leave to chance: one thread is stopped at each of the platform's calls that it makes, in turn,
 * and another does all that it has to do before the first goes on. Whatever a context's last user is, it is
 * freed by that one, which AddressSanitizer watches.
 */
#include "contract_test.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace {

class meeting : public contract {
protected:
    meeting()
    {
        callbacks.status_cb = [](l2vpn_ac_client_hd_t, std::uint32_t, std::uint32_t) -> qerrno { return 0; };
        for (std::size_t i = 0; i < l2vpn::sim::fn_count; ++i)
            world.before(static_cast<fn>(i),
                         [this, function = static_cast<fn>(i)] { called_by_somebody(function); });
    }

    /* Does `work`; at its `at`-th call of the platform's it waits until another thread has done `other`, or has
     * to wait for a lock that `work` holds. False: there are fewer calls, and `other` is done afterwards. */
    bool meet(unsigned at, const std::function<void()> &work, const std::function<void()> &other)
    {
        left_ = at;
        other_ = other;
        work();
        const bool met = left_ == 0;
        left_ = 0;
        if (met)
            thread_.join();
        else
            other();
        return met;
    }

    /* The same at every call. Afterwards the client that `before` made is disconnected, if it still is there,
     * and nothing is left. */
    void meet_at_every_call(const std::function<void()> &before, const std::function<void()> &work,
                            const std::function<void()> &other)
    {
        bool met = true;
        for (unsigned at = 1; met && !HasFailure(); ++at) {
            SCOPED_TRACE("call " + std::to_string(at));
            before();
            met = meet(at, work, other);
            EXPECT_TRUE(met || at > 3) << "it makes hardly any calls";
            world.clear_failures();
            const qerrno rc = lib.disconnect(hd);
            EXPECT_TRUE(rc == 0 || rc == EINVAL) << rc;
            EXPECT_EQ(world.clients(), 0u);
            EXPECT_EQ(world.live_leaves(), 0u);
        }
    }

    l2vpn_ac_client_hd_t hd = nullptr;

private:
    void called_by_somebody(fn function)
    {
        if (std::this_thread::get_id() != tester_) {
            if (function == fn::ptd_set_mutex_block)
                settle();
            return;
        }
        if (left_ == 0 || --left_ > 0)
            return;
        settled_ = false;
        thread_ = std::thread([this] {
            other_();
            settle();
        });
        std::unique_lock guard(lock_);
        changed_.wait(guard, [this] { return settled_; });
    }

    /* The other thread is done, or about to wait. */
    void settle()
    {
        const std::lock_guard guard(lock_);
        settled_ = true;
        changed_.notify_one();
    }

    const std::thread::id tester_ = std::this_thread::get_id();
    unsigned left_ = 0; /* the tester's own, and what follows */
    std::function<void()> other_;
    std::thread thread_;
    std::mutex lock_;
    std::condition_variable changed_;
    bool settled_ = false;
};

/* Of a request that goes out, and of one whose first message does not. */
TEST_F(meeting, of_a_request_with_the_disconnect_of_its_client)
{
    acs a(3);
    const acs unchanged = a;
    std::vector<l2vpn_msti_vid_map_t> map = {{1, 2}, {3, 4}};
    std::vector<l2vpn_mstp_req_t> states(2);
    std::vector<l2vpn_msti_root_t> roots(2);
    l2vpn_mstp_prot_t protection = {};
    const struct {
        const char *name;
        qerrno not_found;
        std::function<qerrno()> make;
    } requests[] = {
        {"create", ENOENT, [&] { return create(hd, 0, a); }},
        {"update", EINVAL, [&] { return update(hd, 0, a); }},
        {"delete", EINVAL, [&] { return remove(hd, 0, a); }},
        {"roots", EINVAL, [&] { return lib.mstp_root(hd, 0, roots.data(), 2); }},
        {"states", EINVAL, [&] { return lib.mstp_port_request(hd, 0, states.data(), 2); }},
        {"map", EINVAL, [&] { return lib.msti_vid_map(hd, 0, map.data(), 2); }},
        {"protect", EINVAL, [&] { return lib.mstp_protect(hd, 0, &protection); }},
    };
    for (const auto &request : requests) {
        for (const bool failing : {false, true}) {
            SCOPED_TRACE(std::string(request.name) + (failing ? ", not sent" : ""));
            meet_at_every_call(
                [&] {
                    hd = connect_up(4);
                    if (failing)
                        world.fail(fn::l2vpn_ipc_ucastv, 1, ENOBUFS);
                },
                [&] {
                    const qerrno rc = request.make();
                    EXPECT_TRUE(rc == 0 || rc == request.not_found) << rc;
                    EXPECT_EQ(a, unchanged);
                },
                [&] {
                    EXPECT_EQ(lib.disconnect(hd), 0u);
                    EXPECT_EQ(request.make(), request.not_found);
                });
        }
    }
}

TEST_F(meeting, of_a_disconnect_with_a_request_and_with_another)
{
    acs a(3);
    meet_at_every_call([&] { hd = connect_up(4); }, [&] { EXPECT_EQ(lib.disconnect(hd), 0u); },
                       [&] {
                           const qerrno rc = create(hd, 0, a);
                           EXPECT_TRUE(rc == 0 || rc == ENOENT) << rc;
                       });
    meet_at_every_call([&] { hd = connect_up(4); },
                       [&] {
                           const qerrno rc = lib.disconnect(hd);
                           EXPECT_TRUE(rc == 0 || rc == EINVAL) << rc;
                       },
                       [&] {
                           const qerrno rc = lib.disconnect(hd);
                           EXPECT_TRUE(rc == 0 || rc == EINVAL) << rc;
                       });
}

/* What is refused while a callback runs succeeds afterwards. */
TEST_F(meeting, of_events_and_messages_with_a_disconnect)
{
    meet_at_every_call([&] { hd = connect(4); },
                       [&] {
                           world.link_of(4).up();
                           world.link_of(4).inject(message_of(7, 1, 0, 32));
                           world.link_of(4).inject(message_of(8, 2, L2VPN_AC_FLAG_NOTICE, 8));
                           world.link_of(4).inject(message_of(13, 1, 0, 32));
                           world.link_of(4).inject(message_of(15, 1, 0));
                           world.link_of(4).event(L2VPN_IPC_EVT_DISCONNECTED);
                           world.run();
                       },
                       [&] {
                           const qerrno rc = lib.disconnect(hd);
                           EXPECT_TRUE(rc == 0 || rc == EDEADLK) << rc;
                       });
}

/* Of a client that joins, and of one that could not send. */
TEST_F(meeting, of_an_expiring_timer_with_a_disconnect)
{
    acs a(3);
    meet_at_every_call([&] { hd = connect(4); }, [&] { world.advance(seconds(4)); },
                       [&] { EXPECT_EQ(lib.disconnect(hd), 0u); });
    meet_at_every_call(
        [&] {
            hd = connect_up(4);
            world.fail(fn::l2vpn_ipc_ucastv, 1, ENOBUFS);
            EXPECT_EQ(create(hd, 0, a), 0u);
        },
        [&] { world.advance(seconds(1)); }, [&] { EXPECT_EQ(lib.disconnect(hd), 0u); });
}

/* The tree of clients changes under the connect of another. */
TEST_F(meeting, of_a_connect_with_the_disconnect_of_another_client)
{
    l2vpn_ac_client_hd_t other = nullptr;
    meet_at_every_call([&] { other = connect(5); }, [&] { hd = connect(4); },
                       [&] {
                           EXPECT_EQ(lib.disconnect(other), 0u);
                           EXPECT_EQ(lib.disconnect(other), EINVAL);
                       });
}

} // namespace
