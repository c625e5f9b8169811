/*
 * explain, asked of a process without sockets: each reason why an AC is or is not provisioned, and what is kept
 * of its origin. And what there is to be seen of owners that wait, and of those that come again.
 */
#include "support.h"
#include "verbs.h"

#include <gtest/gtest.h>

using namespace process_test;
using namespace l2vpnd;

namespace {

json asked(bench &b, const std::string &verb, const json &args, json *result = nullptr)
{
    const verb_context context{b.process, "service", "control"};
    const answer_ptr answer = start_verb(context, verb, args);
    json all = json::array();
    for (bool more = true; more;) {
        row_writer rows;
        more = answer->step(rows);
        for (const json &row : json::parse("[" + rows.rows() + "]")) {
            all.push_back(row);
        }
    }
    json last = answer->result();
    if (result != nullptr) {
        *result = last;
    }
    return all;
}

std::string reason(bench &b, uint32_t handle)
{
    const json rows = asked(b, "explain", json::object({{"handles", {handle}}}));
    return rows.size() == 1 ? rows[0]["reason"].get<std::string>() : std::to_string(rows.size()) + " rows";
}

} // namespace

TEST(explain, has_a_reason_for_every_state)
{
    bench b({.auto_provision = true});
    owner *o = b.connect(3);
    b.process.received(*o, create(3, {1}, 0x1));
    EXPECT_EQ(reason(b, 1), "not-provisioned:batch-open");
    b.out.status = ENOMEM;
    b.process.received(*o, create(3, {2}, 0x2));
    EXPECT_EQ(reason(b, 1), "not-provisioned:waiting") << "a message was not taken, and not for want of room";
    b.out.waiting = 256 * 1024;
    b.process.send_all_waiting();
    EXPECT_EQ(reason(b, 1), "not-provisioned:link-full");
    b.out.waiting--;
    EXPECT_EQ(reason(b, 1), "not-provisioned:waiting") << "for its turn";
    b.out.waiting = 0;
    b.out.status = EOK;
    b.process.send_all_waiting();
    EXPECT_EQ(reason(b, 1), "provisioned");
    b.out.status = ENOBUFS;
    b.process.want(*o, b.slot(3, 1), false);
    b.process.send_all_waiting();
    EXPECT_EQ(reason(b, 1), "provisioned:unprovision-waiting");
    b.out.status = EOK;
    b.process.send_all_waiting();
    EXPECT_EQ(reason(b, 1), "not-provisioned:unprovisioned");
    EXPECT_EQ(reason(b, 2), "provisioned");

    b.process.set_auto_provision(false);
    b.process.received(*o, create(3, {3}));
    b.process.set_auto_provision(true);
    EXPECT_EQ(reason(b, 3), "not-provisioned:automatic-off") << "it was, when the AC was complete";

    b.process.received(*b.connect(7), create(7, {4}));
    EXPECT_EQ(reason(b, 4), "not-provisioned:no-layout");
    b.process.received(*b.connect(8, 7, 16 + 2679), create(8, {5}));
    EXPECT_EQ(reason(b, 5), "not-provisioned:link-too-narrow");
    EXPECT_EQ(reason(b, 6), "0 rows");
}

TEST(explain, tells_the_message_that_created_an_ac)
{
    bench b;
    owner *one = b.connect(3);
    owner *other = b.connect(3);
    const time_t before = time(nullptr);
    b.process.received(*one, header(0, 0, 0).bytes());
    b.process.received(*one, header(99, 0, 0).bytes());
    b.process.received(*one, create(3, {1, 2}));
    json row = asked(b, "explain", json::object({{"name", "ac2"}}))[0];
    EXPECT_EQ(row["message"], 3) << "those that were dropped count";
    EXPECT_GE(row["created"].get<time_t>(), before);
    EXPECT_LE(row["created"].get<time_t>(), time(nullptr));
    EXPECT_EQ(row["owner"], one->info.peer_id);
    EXPECT_EQ(row["asked_by"], "nobody");
    EXPECT_FALSE(row.contains("batch"));
    b.process.received(*other, create(3, {2}, 0x1));
    row = asked(b, "explain", json::object({{"handles", {2U}}}))[0];
    EXPECT_EQ(row["message"], 1);
    EXPECT_EQ(row["owner"], other->info.peer_id);
    EXPECT_EQ(row["batch"]["messages"], 1);
}

TEST(explain, needs_a_handle_or_a_name_and_bounds_its_answer)
{
    bench b;
    EXPECT_THROW(asked(b, "explain", json::object()), refusal);
    EXPECT_THROW(asked(b, "explain", json::object({{"class", 3U}})), refusal);
    b.process.received(*b.connect(3), create(3, handles_from(1, 150)));
    json result;
    EXPECT_EQ(asked(b, "explain", json::object({{"name", "ac*"}}), &result).size(), 100U);
    EXPECT_EQ(result["acs"], 150);
}

TEST(clients, tell_since_when_something_waits)
{
    bench b({.auto_provision = true});
    owner *o = b.connect(3);
    b.process.send_all_waiting();
    json row = asked(b, "show clients", json::object())[0];
    EXPECT_TRUE(row["waiting_since"].is_null());
    EXPECT_TRUE(row["batch_since"].is_null());
    EXPECT_EQ(row["open_batches"], 0);

    const time_t before = time(nullptr);
    b.out.status = ENOBUFS;
    b.process.received(*o, create(3, {1, 2}));
    b.process.received(*o, update(3, {1}, 1, 0x4));
    row = asked(b, "show clients", json::object())[0];
    EXPECT_EQ(row["waiting"], 2);
    EXPECT_GE(row["waiting_since"].get<time_t>(), before);
    EXPECT_EQ(row["open_batches"], 1);
    EXPECT_GE(row["batch_since"].get<time_t>(), before);
    EXPECT_EQ(row["changes"]["created"], 2);
    EXPECT_EQ(row["changes"]["updated"], 1);

    b.out.status = EOK;
    b.out.waiting = 77;
    b.process.send_all_waiting();
    row = asked(b, "show clients", json::object())[0];
    EXPECT_EQ(row["waiting"], 0);
    EXPECT_EQ(row["queued"], 77);
    EXPECT_FALSE(row["waiting_since"].is_null()) << "in the link's queue";
    b.out.waiting = 0;
    b.process.send_all_waiting();
    EXPECT_TRUE(asked(b, "show clients", json::object())[0]["waiting_since"].is_null());
}

TEST(clients, tell_how_often_a_class_of_a_process_has_come_again)
{
    bench b({.max_owners = 3});
    b.process.closed(*b.connect(3, 7, 65536, 100), ECONNRESET);
    b.process.closed(*b.connect(3, 7, 65536, 100), EOK);
    owner *third = b.connect(3, 7, 65536, 100);
    EXPECT_EQ(third->reconnects, 2U);
    EXPECT_EQ(b.connect(4, 7, 65536, 100)->reconnects, 0U) << "another class";
    EXPECT_EQ(b.connect(3, 7, 65536, 101)->reconnects, 0U) << "another process";
    EXPECT_EQ(b.connect(5), nullptr);
    json result;
    const json rows = asked(b, "show clients", json::object({{"class", 3U}}), &result);
    EXPECT_EQ(rows[0]["reconnects"], 2);
    EXPECT_EQ(result["owners"], 2);
    EXPECT_EQ(result["seen"], 5);
    EXPECT_EQ(result["refused"], 1);
    EXPECT_EQ(result["reconnects"], 2);
}

/* However many processes come and go. */
TEST(clients, that_have_gone_are_remembered_within_bounds)
{
    bench b({.max_owners = 4});
    for (pid_t pid = 1; pid <= 100; pid++) {
        b.process.closed(*b.connect(3, 7, 65536, pid), EOK);
    }
    uint32_t known = 0;
    for (pid_t pid = 100; pid > 0; pid--) {
        owner *o = b.connect(3, 7, 65536, pid);
        known += o->reconnects;
        b.process.closed(*o, EOK);
    }
    EXPECT_EQ(known, 4U);
}

/* Pids are given out in no order that lasts. */
TEST(clients, that_have_gone_last_are_remembered)
{
    bench b({.max_owners = 2});
    for (const pid_t pid : {300, 200, 100}) {
        b.process.closed(*b.connect(3, 7, 65536, pid), EOK);
    }
    EXPECT_EQ(b.connect(3, 7, 65536, 100)->reconnects, 1U);
    owner *oldest = b.connect(3, 7, 65536, 300);
    EXPECT_EQ(oldest->reconnects, 0U);
    b.process.closed(*oldest, EOK);
    EXPECT_EQ(b.connect(3, 7, 65536, 200)->reconnects, 1U);
}
