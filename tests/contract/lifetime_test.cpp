/*
 * A client that is disconnected while somebody still works for it. A disconnect does not wait for requests and
 * timers, so it can come at any point of theirs; what they work on lives until they are done. The points are the
 * platform's calls: the disconnect comes from inside one, as it would from another thread at that moment.
 */
#include "contract_test.h"

namespace {

struct work {
    const char *name;
    qerrno (*request)(ac_library &lib, l2vpn_ac_client_hd_t hd, acs &a);
};

void PrintTo(const work &w, std::ostream *os)
{
    *os << w.name;
}

l2vpn_msti_root_t s_roots[3];
l2vpn_mstp_req_t s_reqs[3];
l2vpn_msti_vid_map_t s_map[3];
l2vpn_mstp_prot_t s_prot;

const work works[] = {
    {"create",
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, acs &a) {
         return lib.create(hd, 0, a.size(), a.ifh.data(), a.defns.data(), a.infos.data());
     }},
    {"update", [](ac_library &lib, l2vpn_ac_client_hd_t hd,
                  acs &a) { return lib.update(hd, 0, a.size(), a.ifh.data(), a.infos.data()); }},
    {"delete", [](ac_library &lib, l2vpn_ac_client_hd_t hd,
                  acs &a) { return lib.remove(hd, 0, a.size(), a.ifh.data()); }},
    {"empty_create", [](ac_library &lib, l2vpn_ac_client_hd_t hd,
                        acs &) { return lib.create(hd, 0, 0, nullptr, nullptr, nullptr); }},
    {"root",
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, acs &) { return lib.mstp_root(hd, 0, s_roots, 3); }},
    {"port_request",
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, acs &) { return lib.mstp_port_request(hd, 0, s_reqs, 3); }},
    {"vid_map",
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, acs &) { return lib.msti_vid_map(hd, 0, s_map, 3); }},
    {"protect",
     [](ac_library &lib, l2vpn_ac_client_hd_t hd, acs &) { return lib.mstp_protect(hd, 0, &s_prot); }},
};

class disconnected_during : public contract, public testing::WithParamInterface<work> {
protected:
    disconnected_during()
    {
        world.set.mtu = 16 + 636; /* a message an AC, so that there is something left to do */
        hd = connect_up(4);
    }

    /* The number of calls of `function` in a request that nobody disturbs, and fails to send. */
    int calls_of(fn function)
    {
        int calls = 0;
        world.before(function, [&] { ++calls; });
        run();
        world.before(function, {});
        EXPECT_EQ(lib.disconnect(hd), 0u);
        hd = connect_up(4);
        return calls;
    }

    /* The request fails to send, so that the client is needed once more at its end. */
    void run()
    {
        acs a(3);
        world.fail_from(fn::l2vpn_ipc_ucastv, 1, 105);
        const qerrno rc = GetParam().request(lib, hd, a);
        world.clear_failures();
        EXPECT_TRUE(rc == 0 || rc == 105) << rc;
        EXPECT_EQ(a, acs(3));
    }

    l2vpn_ac_client_hd_t hd = nullptr;
};

INSTANTIATE_TEST_SUITE_P(requests, disconnected_during, testing::ValuesIn(works),
                         [](const auto &param) { return std::string(param.param.name); });

TEST_P(disconnected_during, a_request_is_freed_by_it_and_not_before)
{
    int points = 0;
    for (const fn function : {fn::l2vpn_ac_data_sanitize, fn::calloc_named, fn::gen_format_debug_fmt,
                              fn::l2vpn_ipc_ucastv, fn::mgd_timer_leaf_running, fn::mgd_timer_leaf_start}) {
        const int calls = calls_of(function);
        for (int at = 1; at <= calls; ++at, ++points) {
            int left = at;
            bool disconnected = false;
            world.before(function, [&] {
                if (--left == 0)
                    disconnected = lib.disconnect(hd) == 0;
            });
            run();
            world.before(function, {});
            ASSERT_TRUE(disconnected) << name_of(function) << " " << at;
            EXPECT_EQ(world.clients(), 0u);
            EXPECT_EQ(world.live_leaves(), 0u);
            EXPECT_EQ(lib.update(hd, 0, 0, nullptr, nullptr), 22u) << "it is nobody's handle any more";
            hd = connect_up(4);
        }
    }
    EXPECT_GE(points, 2) << "the log and the send, at least";
}

TEST_P(disconnected_during, a_request_leaves_other_clients_alone)
{
    const auto other = connect_up(5);
    world.before(fn::l2vpn_ipc_ucastv, [&, done = false]() mutable {
        if (!std::exchange(done, true)) {
            EXPECT_EQ(lib.disconnect(hd), 0u);
        }
    });
    run();
    EXPECT_EQ(world.clients(), 1u);
    world.before(fn::l2vpn_ipc_ucastv, {});
    acs a(1);
    EXPECT_EQ(create(other, 0, a), 0u);
    EXPECT_EQ(sent(5).size(), 1u);
}

/* An address may be a client's before that is connected: a handle of that value meets nobody, and takes
 * nothing away. Nor does one of any other value. */
class in_the_making : public contract {};

TEST_F(in_the_making, a_client_is_nobodys_handle)
{
    connect(5);
    qerrno same = 0, other = 0;
    world.before(fn::mgd_timer_leaf_new, [&] {
        const auto address = static_cast<std::uint64_t>(world.calls(fn::calloc_named).back().result);
        same = lib.update(reinterpret_cast<l2vpn_ac_client_hd_t>(address), 0, 0, nullptr, nullptr);
        other = lib.update(reinterpret_cast<l2vpn_ac_client_hd_t>(this), 0, 0, nullptr, nullptr);
    });
    const auto hd = connect(4);
    EXPECT_EQ(same, 22u);
    EXPECT_EQ(other, 22u);
    EXPECT_EQ(lib.update(hd, 0, 0, nullptr, nullptr), 0u);
}

class timer : public contract {};

TEST_F(timer, of_a_client_that_is_disconnected_while_it_runs)
{
    for (const fn function :
         {fn::mgd_timer_leaf_get_addl_context, fn::wavl_search, fn::l2vpn_ipc_ucast,
          fn::mgd_timer_leaf_running, fn::gen_format_debug_fmt, fn::mgd_timer_leaf_start}) {
        const auto hd = connect(4);
        bool disconnected = false;
        world.before(function, [&, done = false]() mutable {
            if (!std::exchange(done, true))
                disconnected = lib.disconnect(hd) == 0;
        });
        world.advance(seconds(4));
        world.before(function, {});
        EXPECT_TRUE(disconnected) << name_of(function);
        EXPECT_EQ(world.clients(), 0u);
        EXPECT_EQ(world.live_leaves(), 0u);
        world.advance(seconds(60));
        EXPECT_THAT(world.timers(), IsEmpty()) << name_of(function);
    }
}

} // namespace
