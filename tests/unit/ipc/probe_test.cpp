/*
 * What the platform's probes tell of messages, at either end of a link.
 */
#include "harness.h"
#include "probe_watch.h"

#include <cerrno>
#include <gmock/gmock.h>

namespace {

using namespace ipc_test;
using probe_test::passed;
using testing::ElementsAre;

struct message_probes : testing::Test {
    message_probes() { EXPECT_EQ(server.start(on, service), qerrno{EOK}); }

    std::vector<passed> take() { return watch.take("message__.*"); }

    loop on;
    std::string service = test_name();
    recording_server server;
    probe_test::probe_watch watch{"libl2vpn_platform.so", "l2vpn_platform"};
};

} // namespace

TEST_F(message_probes, cost_an_instruction_that_does_nothing)
{
    size_t sent = 0;
    size_t received = 0;
    for (const auto &each : watch.all) { /* the watch has looked at the instructions */
        EXPECT_EQ(each.semaphore, 0u);
        sent += each.name == "message__sent" && each.values.size() == 5 ? 1 : 0;
        received += each.name == "message__received" && each.values.size() == 4 ? 1 : 0;
    }
    EXPECT_GE(sent, 2u);
    EXPECT_GE(received, 2u);
    EXPECT_EQ(sent + received, watch.all.size());
}

TEST_F(message_probes, tell_class_size_status_and_where_the_header_is)
{
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    const bytes up = message(1, 100);
    const bytes down = message(2, 200);
    const auto address_of = [](const bytes &of) { return reinterpret_cast<uint64_t>(of.data()); };

    EXPECT_EQ(one.send(up), qerrno{EOK});
    EXPECT_THAT(take(), ElementsAre(passed{"message__sent", {5, 100, EOK, address_of(up), 0}}))
        << "it waits for the link, as good as sent";
    ASSERT_TRUE(on.until([&] { return server.received.size() == 1; }));
    const std::vector<passed> got = take();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].first, "message__received");
    EXPECT_THAT(got[0].second, ElementsAre(5, 100, testing::Ne(0u), server.infos[0].peer_id));

    EXPECT_EQ(server.send(server.peers[0], down), qerrno{EOK});
    EXPECT_THAT(take(), ElementsAre(passed{"message__sent",
                                           {5, 200, EOK, address_of(down), server.infos[0].peer_id}}));
    ASSERT_TRUE(on.until([&] { return one.numbers().size() == 1; }));
    const std::vector<passed> back = take();
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back[0].first, "message__received");
    EXPECT_THAT(back[0].second, ElementsAre(5, 200, testing::Ne(0u), 0));
}

TEST_F(message_probes, tell_why_a_message_was_not_taken)
{
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    const bytes large = message(1, size_t{1} << 21);
    EXPECT_EQ(one.send(large), qerrno{EMSGSIZE});
    EXPECT_THAT(take(), ElementsAre(passed{
                            "message__sent",
                            {5, large.size(), EMSGSIZE, reinterpret_cast<uint64_t>(large.data()), 0}}));
}
