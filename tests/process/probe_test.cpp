/*
 * What the process's probes tell: messages in their batches, and what owners are told of their ACs.
 */
#include "probe_watch.h"
#include "support.h"

#include <gmock/gmock.h>

using namespace l2vpnd;
using namespace process_test;
using probe_test::passed;
using testing::ElementsAre;

namespace {

struct process_probes : testing::Test {
    probe_test::probe_watch watch{"", "l2vpnd"};
};

} // namespace

TEST_F(process_probes, tell_of_batches_that_open_and_close)
{
    bench b;
    owner *const o = b.connect(4);
    const uint64_t id = o->info.peer_id;
    b.process.received(*o, create(4, {1, 2}, 1));
    EXPECT_THAT(watch.take(), ElementsAre(passed{"batch", {id, 4, 2, 2, 1, 0}}));
    b.process.received(*o, create(4, {3}, 0));
    EXPECT_THAT(watch.take(), ElementsAre(passed{"batch", {id, 4, 2, 1, 0, 0}}));
    b.process.received(*o, create(4, {4, 5, 6}, 2));
    EXPECT_THAT(watch.take(), ElementsAre(passed{"batch", {id, 4, 2, 3, 0, 1}}));
    b.process.received(*o, update(4, {4}, 7));
    EXPECT_THAT(watch.take(), ElementsAre(passed{"batch", {id, 4, 3, 1, 1, 1}}));
}

TEST_F(process_probes, tell_what_owners_are_told_and_with_what_success)
{
    bench b({.auto_provision = true});
    owner *const o = b.connect(4);
    const uint64_t id = o->info.peer_id;
    b.process.received(*o, create(4, {1, 2, 3}));
    EXPECT_THAT(watch.take("provision"), ElementsAre(passed{"provision", {id, 4, 1, 3, EOK}}));
    b.out.status = ENOBUFS;
    b.process.received(*o, create(4, {9}));
    EXPECT_THAT(watch.take("provision"), ElementsAre(passed{"provision", {id, 4, 1, 1, ENOBUFS}}));
}

TEST_F(process_probes, cost_an_instruction_that_does_nothing)
{
    EXPECT_GE(watch.all.size(), 2u); /* the watch has looked at the instructions */
    for (const auto &each : watch.all) {
        EXPECT_EQ(each.semaphore, 0u);
        EXPECT_EQ(each.values.size(), each.name == "batch" ? 6u : 5u);
    }
}
