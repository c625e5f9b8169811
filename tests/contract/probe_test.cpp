/*
 * What the library's probes tell tracers, and that they cost nothing else.
 */
#include "contract_test.h"
#include "probe_watch.h"

#include <set>

namespace {

using probe_test::passed;
using values = std::vector<std::uint64_t>;

class probes : public contract {
protected:
    probe_test::probe_watch watch{"libl2vpn_ac.so", "l2vpn_ac"};

    static std::uint64_t number_of(l2vpn_ac_client_hd_t hd) { return reinterpret_cast<std::uintptr_t>(hd); }

    /* The two probes of a request that finds its client. */
    void expect_request(std::uint32_t type, l2vpn_ac_client_hd_t hd, std::uint32_t count, std::uint32_t flags,
                        qerrno status)
    {
        EXPECT_THAT(watch.take("request__.*|client__found"),
                    ElementsAre(passed{"request__entry", {type, number_of(hd), count, flags}},
                                passed{"client__found", {number_of(hd), 3}},
                                passed{"request__return", {type, status}}));
    }
    void expect_unknown(std::uint32_t type, l2vpn_ac_client_hd_t hd, std::uint32_t count, std::uint32_t flags,
                        qerrno status)
    {
        EXPECT_THAT(watch.take("request__.*|client__found"),
                    ElementsAre(passed{"request__entry", {type, number_of(hd), count, flags}},
                                passed{"request__return", {type, status}}));
    }

    void deliver(const bytes &message)
    {
        world.link_of(3).inject(message);
        world.run();
    }
};

TEST_F(probes, are_an_instruction_that_does_nothing_each_and_count_on_nothing_else)
{
    std::set<std::pair<std::string, std::size_t>> found;
    for (const auto &each : watch.all) { /* the watch has looked at the instructions */
        EXPECT_EQ(each.semaphore, 0u) << each.name;
        found.emplace(each.name, each.values.size());
    }
    const std::set<std::pair<std::string, std::size_t>> told = {
        {"request__entry", 4},   {"request__return", 2}, {"client__found", 2}, {"callback__entry", 4},
        {"callback__return", 2}, {"state", 3},           {"join", 3},          {"retry", 3}};
    EXPECT_EQ(found, told);
}

TEST_F(probes, tell_of_ac_requests)
{
    const auto hd = connect_up(3);
    acs three(3);
    watch.take();
    EXPECT_EQ(create(hd, 1, three), 0u);
    expect_request(L2VPN_AC_MSG_CREATE, hd, 3, 1, EOK);
    EXPECT_EQ(update(hd, 0x40, three), 0u);
    expect_request(L2VPN_AC_MSG_UPDATE, hd, 3, 0x40, EOK);
    EXPECT_EQ(remove(hd, 0x80, three), 0u);
    expect_request(L2VPN_AC_MSG_DELETE, hd, 3, 0x80, EOK);
}

TEST_F(probes, tell_of_mstp_requests)
{
    const auto hd = connect_up(3);
    std::array<l2vpn_msti_root_t, 2> roots{};
    std::array<l2vpn_mstp_req_t, 3> ports{};
    std::array<l2vpn_msti_vid_map_t, 4> map{};
    l2vpn_mstp_prot_t protection{};
    watch.take();
    EXPECT_EQ(lib.mstp_root(hd, 1, roots.data(), 2), 0u);
    expect_request(L2VPN_MSTP_MSG_IS_ROOT, hd, 2, 1, EOK);
    EXPECT_EQ(lib.mstp_port_request(hd, 2, ports.data(), 3), 0u);
    expect_request(L2VPN_MSTP_MSG_STATE, hd, 3, 2, EOK);
    EXPECT_EQ(lib.msti_vid_map(hd, 3, map.data(), 4), 0u);
    expect_request(L2VPN_MSTP_MSG_VID_MAP, hd, 4, 3, EOK);
    EXPECT_EQ(lib.mstp_protect(hd, 4, &protection), 0u);
    expect_request(L2VPN_MSTP_MSG_PROTECTED, hd, 1, 4, EOK);
}

TEST_F(probes, tell_the_status_of_requests_that_are_refused)
{
    connect_up(3);
    auto *const nobody = reinterpret_cast<l2vpn_ac_client_hd_t>(std::uintptr_t{0x1000});
    acs two(2);
    l2vpn_msti_root_t root{};
    l2vpn_mstp_prot_t protection{};
    watch.take();
    EXPECT_EQ(create(nobody, 5, two), 2u);
    expect_unknown(L2VPN_AC_MSG_CREATE, nobody, 2, 5, ENOENT);
    EXPECT_EQ(update(nobody, 6, two), 22u);
    expect_unknown(L2VPN_AC_MSG_UPDATE, nobody, 2, 6, EINVAL);
    EXPECT_EQ(remove(nobody, 7, two), 22u);
    expect_unknown(L2VPN_AC_MSG_DELETE, nobody, 2, 7, EINVAL);
    EXPECT_EQ(lib.mstp_root(nobody, 8, &root, 1), 22u);
    expect_unknown(L2VPN_MSTP_MSG_IS_ROOT, nobody, 1, 8, EINVAL);
    EXPECT_EQ(lib.mstp_protect(nobody, 9, &protection), 22u);
    expect_unknown(L2VPN_MSTP_MSG_PROTECTED, nobody, 1, 9, EINVAL);
}

TEST_F(probes, tell_the_status_of_a_send_that_failed)
{
    const auto hd = connect_idle(3);
    acs one(1);
    watch.take();
    world.fail_from(fn::l2vpn_ipc_ucastv, 1, 107);
    EXPECT_EQ(create(hd, 0, one), 107u);
    expect_request(L2VPN_AC_MSG_CREATE, hd, 1, 0, 107);
}

TEST_F(probes, tell_of_callbacks)
{
    const auto hd = connect_up(3);
    constexpr std::uint64_t returned = 77;
    const auto expect_callback = [&](std::uint32_t type, std::uint32_t first) {
        EXPECT_THAT(watch.take("callback__.*"),
                    ElementsAre(passed{"callback__entry", {type, number_of(hd), 3, first}},
                                passed{"callback__return", {type, returned}}));
    };
    watch.take();
    deliver(message_of(L2VPN_AC_MSG_PROV, 2, 0, 2 * 32));
    expect_callback(L2VPN_AC_MSG_PROV, 2);
    deliver(message_of(L2VPN_AC_MSG_UNPROV, 3, 0, 3 * 4));
    expect_callback(L2VPN_AC_MSG_UNPROV, 3);
    deliver(message_of(L2VPN_AC_MSG_BULK_NOTIFY, 4, 0, 4 * sizeof(l2vpn_ac_bulk_notify_t)));
    expect_callback(L2VPN_AC_MSG_BULK_NOTIFY, 4);
    deliver(message_of(L2VPN_AC_MSG_HDR_NOTIFY, 0x01020304, 0));
    expect_callback(L2VPN_AC_MSG_HDR_NOTIFY, __builtin_bswap32(0x01020304));
    deliver(message_of(99, 1, L2VPN_AC_FLAG_NOTICE));
    expect_callback(L2VPN_AC_MSG_JOIN, L2VPN_AC_STATUS_FLAG);
}

TEST_F(probes, tell_of_no_callback_that_an_owner_has_not)
{
    callbacks = {callbacks.status_cb, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    connect_up(3);
    watch.take();
    deliver(message_of(L2VPN_AC_MSG_UNPROV, 3, 0, 3 * 4));
    EXPECT_THAT(watch.take("callback__.*"), IsEmpty());
}

TEST_F(probes, tell_of_states_joins_and_retries)
{
    const auto hd = connect(3);
    const auto client = number_of(hd);
    const std::string kinds = "state|join|retry|callback__entry";
    EXPECT_THAT(watch.take(kinds), ElementsAre(passed{"join", {client, 3, EOK}},
                                               passed{"state", {client, 3, L2VPN_AC_ST_JOINING}},
                                               passed{"retry", {client, 3, 4}}));
    world.fail_from(fn::l2vpn_ipc_ucast, 1, 107);
    world.advance(seconds(4));
    EXPECT_THAT(watch.take(kinds),
                ElementsAre(passed{"join", {client, 3, 107}}, passed{"retry", {client, 3, 5}}));
    world.clear_failures();

    world.link_of(3).up();
    world.run();
    EXPECT_THAT(watch.take(kinds),
                ElementsAre(passed{"state", {client, 3, L2VPN_AC_ST_UP}},
                            passed{"callback__entry", {L2VPN_AC_MSG_JOIN, client, 3, L2VPN_AC_STATUS_UP}}));

    acs one(1); /* a request that fails: DOWN, and with the next JOIN, UP */
    world.fail_from(fn::l2vpn_ipc_ucastv, 1, 107);
    EXPECT_EQ(create(hd, 0, one), 0u);
    EXPECT_THAT(watch.take(kinds),
                ElementsAre(passed{"retry", {client, 3, 1}},
                            passed{"callback__entry", {L2VPN_AC_MSG_JOIN, client, 3, L2VPN_AC_STATUS_DOWN}}));
    world.advance(seconds(1));
    EXPECT_THAT(watch.take(kinds),
                ElementsAre(passed{"join", {client, 3, EOK}},
                            passed{"callback__entry", {L2VPN_AC_MSG_JOIN, client, 3, L2VPN_AC_STATUS_UP}}));

    world.link_of(3).event(L2VPN_IPC_EVT_DISCONNECTED);
    world.run();
    EXPECT_THAT(watch.take(kinds),
                ElementsAre(passed{"state", {client, 3, L2VPN_AC_ST_IDLE}},
                            passed{"callback__entry", {L2VPN_AC_MSG_JOIN, client, 3, L2VPN_AC_STATUS_DOWN}}));
}

} // namespace
