/*
 * Messages from the L2VPN process: the notices of headers and flags, and what callbacks meet and may do.
 */
#include "inbound_test.h"

using namespace inbound_test;

namespace {

/* --- the header notice --- */

TEST_F(inbound, a_header_notice_gives_its_words_in_network_order)
{
    const auto hd = connect_up(4);
    const bytes message = message_of(hdr_notify, 0x01020304, 0x05060708);
    deliver(4, message);
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].hd, hd);
    EXPECT_EQ(std::memcmp(&notices[0].first, &message[8], 4), 0);
    EXPECT_EQ(std::memcmp(&notices[0].second, &message[12], 4), 0);
}

TEST_F(inbound, a_header_notice_is_checked_neither_for_class_nor_for_length)
{
    connect_up(4);
    world.link_of(4).inject(message_of(hdr_notify, 5, 0, 100), 15);
    world.link_of(4).inject(message_of(hdr_notify, 5, 0, 1), 99);
    world.run();
    EXPECT_THAT(kinds(), ElementsAre(notice::hdr_notify, notice::hdr_notify));
}

TEST_F(inbound, a_header_notice_tests_its_flags_as_they_lie)
{
    connect_up(4);
    deliver(4, message_of(hdr_notify, 0, hdr_notify_silent));
    EXPECT_THAT(kinds(), ElementsAre(notice::hdr_notify));
    notices.clear();
    deliver(4, message_of(hdr_notify, 0, hdr_notify_raising));
    ASSERT_THAT(kinds(), ElementsAre(notice::hdr_notify, notice::status));
    EXPECT_EQ(notices[1].first, flag);
    EXPECT_EQ(notices[1].second, 0x2u);
}

TEST_F(inbound, a_header_notice_is_neither_logged_nor_traced)
{
    connect_up(4);
    world.clear_calls();
    deliver(4, message_of(hdr_notify, 5, 0));
    EXPECT_THAT(world.log(), IsEmpty());
    EXPECT_EQ(called(fn::gen_dbg_ltrace_ctx), 0u);
    EXPECT_EQ(called(fn::gen_ltrace), 0u);
}

/* With a null callback the header is converted back all the same. */
TEST_F(inbound, a_header_notice_without_a_callback_still_converts)
{
    callbacks.hdr_notify_cb = nullptr;
    connect_up(4);
    alignas(8) std::uint8_t buffer[16];
    const bytes message = message_of(hdr_notify, 0x01020304, 0x05060708);
    std::copy(message.begin(), message.end(), buffer);
    world.msg_cb(4)(world.ipc_client(), 4, 0, buffer, 16, 0, world.link_of(4).cookie());
    EXPECT_EQ(bytes(buffer, buffer + 16), message);
    EXPECT_THAT(notices, IsEmpty());
}

/* --- optional callbacks --- */

TEST_F(inbound, callbacks_that_are_null_are_skipped)
{
    callbacks = {callbacks.status_cb, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    connect_up(4);
    world.clear_calls();
    deliver(4, message_of(prov, 1, 0x2, 32));
    EXPECT_EQ(called(fn::calloc_named), 1u) << "decoded, and freed";
    deliver(4, message_of(unprov, 1, 0x2, 4));
    deliver(4, message_of(bulk_notify, 1, 0x2, 32));
    deliver(4, message_of(hdr_notify, 1, hdr_notify_raising));
    EXPECT_THAT(kinds(), ElementsAre(notice::status, notice::status, notice::status, notice::status));
}

/* Each message looks for its own callback, whatever the others are. */
TEST_F(inbound, a_callback_is_called_though_the_others_are_null)
{
    const l2vpn_ac_callback_vector_t all = callbacks;
    const auto status = all.status_cb;
    const std::pair<notice::kind, l2vpn_ac_callback_vector_t> only[] = {
        {notice::prov, {status, all.prov_cb, nullptr, nullptr, nullptr, nullptr, nullptr}},
        {notice::unprov, {status, nullptr, all.unprov_cb, nullptr, nullptr, nullptr, nullptr}},
        {notice::bulk_notify, {status, nullptr, nullptr, all.bulk_notify_cb, nullptr, nullptr, nullptr}},
        {notice::hdr_notify, {status, nullptr, nullptr, nullptr, all.hdr_notify_cb, nullptr, nullptr}}};
    for (const auto &[kind, vector] : only) {
        callbacks = vector;
        const auto hd = connect_up(4);
        deliver(4, message_of(prov, 1, 0, 32));
        deliver(4, message_of(unprov, 1, 0, 4));
        deliver(4, message_of(bulk_notify, 1, 0, 32));
        deliver(4, message_of(hdr_notify, 1, 0));
        EXPECT_THAT(kinds(), ElementsAre(kind));
        ASSERT_EQ(lib.disconnect(hd), 0u);
    }
}

/* --- the notice of the flags --- */

TEST_F(inbound, the_flags_notice_follows_the_messages_own_callback)
{
    connect_up(4);
    deliver(4, message_of(prov, 1, 0x3, 32));
    deliver(4, message_of(unprov, 1, 0x6, 4));
    deliver(4, message_of(bulk_notify, 1, 0xffffffff, 32));
    deliver(4, message_of(bulk_notify, 1, 0xfffffffd, 32));
    EXPECT_THAT(kinds(), ElementsAre(notice::prov, notice::status, notice::unprov, notice::status,
                                     notice::bulk_notify, notice::status, notice::bulk_notify));
    EXPECT_EQ(notices[5].second, 0xffffffffu);
}

/* The flags word is read again after the callback, from the buffer that the client may write to. */
TEST_F(inbound, the_flags_are_read_again_after_the_callback)
{
    connect_up(4);
    alignas(8) std::uint8_t buffer[20];
    const bytes message = message_of(unprov, 1, 0, 4);
    std::copy(message.begin(), message.end(), buffer);
    during = [&](const notice &n) {
        const std::uint32_t raised = 0x12;
        if (n.what == notice::unprov)
            std::memcpy(buffer + 12, &raised, 4);
    };
    world.msg_cb(4)(world.ipc_client(), 4, 0, buffer, 20, 0, world.link_of(4).cookie());
    ASSERT_THAT(kinds(), ElementsAre(notice::unprov, notice::status));
    EXPECT_EQ(notices[1].second, 0x12u);
}

/* --- who is called, and what a callback may do --- */

TEST_F(inbound, a_message_for_an_unknown_cookie_is_dropped_after_the_header_conversion)
{
    const auto hd = connect_up(4);
    const auto msg = world.msg_cb(4);
    ASSERT_EQ(lib.disconnect(hd), 0u);
    alignas(8) std::uint8_t buffer[20];
    const bytes message = message_of(unprov, 1, 0x2, 4);
    std::copy(message.begin(), message.end(), buffer);
    msg(world.ipc_client(), 4, 0, buffer, 20, 0, hd);
    EXPECT_THAT(notices, IsEmpty());
    std::uint32_t words[4];
    std::memcpy(words, buffer, 16);
    EXPECT_THAT(words, ElementsAre(3, unprov, 1, 2)) << "host order";
    EXPECT_EQ(be32(buffer + 16), 0u);
}

TEST_F(inbound, the_mark_is_not_looked_at)
{
    connect_up(4);
    bytes message = message_of(unprov, 1, 0, 4);
    message[3] = 99;
    deliver(4, message);
    EXPECT_THAT(kinds(), ElementsAre(notice::unprov));
}

TEST_F(inbound, a_disconnect_from_any_callback_is_refused)
{
    const auto hd = connect_up(4);
    std::vector<qerrno> results;
    during = [&](const notice &) { results.push_back(lib.disconnect(hd)); };
    deliver(4, message_of(prov, 1, 0x2, 32));
    deliver(4, message_of(unprov, 1, 0x2, 4));
    deliver(4, message_of(bulk_notify, 1, 0x2, 32));
    deliver(4, message_of(hdr_notify, 1, hdr_notify_raising));
    EXPECT_EQ(results, std::vector<qerrno>(8, 35)) << "four callbacks and four flags notices";
    during = nullptr;
    EXPECT_EQ(lib.disconnect(hd), 0u) << "afterwards it is not";
}

TEST_F(inbound, another_clients_disconnect_from_a_callback_succeeds)
{
    connect_up(4);
    const auto other = connect_up(5);
    qerrno rc = 99;
    during = [&](const notice &) { rc = lib.disconnect(other); };
    deliver(4, message_of(unprov, 1, 0, 4));
    EXPECT_EQ(rc, 0u);
}

TEST_F(inbound, callbacks_may_send_requests)
{
    const auto hd = connect_up(4);
    acs a(2);
    during = [&](const notice &n) {
        if (n.what != notice::prov)
            return;
        EXPECT_EQ(create(hd, 0, a), 0u);
        EXPECT_EQ(update(hd, 0, a), 0u);
        EXPECT_EQ(remove(hd, 0, a), 0u);
        l2vpn_msti_vid_map_t entry = {};
        EXPECT_EQ(lib.msti_vid_map(hd, 0, &entry, 1), 0u);
    };
    deliver(4, message_of(prov, 1, 0, 32));
    std::vector<std::uint32_t> types;
    for (const header &h : sent_headers(4))
        types.push_back(h.msg_type);
    EXPECT_THAT(types, ElementsAre(2, 3, 6, 9));
}

TEST_F(inbound, callbacks_may_connect)
{
    connect_up(4);
    l2vpn_ac_client_hd_t other = nullptr;
    during = [&](const notice &) {
        during = nullptr;
        other = connect(5);
    };
    deliver(4, message_of(unprov, 1, 0, 4));
    EXPECT_NE(other, nullptr);
}

/* A request fails inside a callback: the DOWN it gives comes on top, and the client is busy all the while. */
TEST_F(inbound, a_failed_request_in_a_callback_says_down_inside_it)
{
    const auto hd = connect_up(4);
    acs a(1);
    during = [&](const notice &n) {
        if (n.what == notice::unprov) {
            world.fail(fn::l2vpn_ipc_ucastv, 1, 105);
            EXPECT_EQ(create(hd, 0, a), 0u);
        } else {
            EXPECT_EQ(lib.disconnect(hd), 35u);
        }
    };
    deliver(4, message_of(unprov, 1, 0, 4));
    EXPECT_THAT(kinds(), ElementsAre(notice::unprov, notice::status));
}

} // namespace
