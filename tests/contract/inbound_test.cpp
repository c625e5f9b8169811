/*
 * Messages from the L2VPN process: their types and lengths, and what is provisioned.
 */
#include "inbound_test.h"

using namespace inbound_test;

namespace {

/* --- types --- */

class ignored_type : public inbound, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(ignored_type, reaches_no_callback_but_the_notice_of_its_flags)
{
    connect_up(4);
    world.clear_calls();
    deliver(4, message_of(GetParam(), 1, 0, 100));
    EXPECT_THAT(notices, IsEmpty());
    deliver(4, message_of(GetParam(), 1, 0xf2, 100));
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].what, notice::status);
    EXPECT_EQ(notices[0].first, flag);
    EXPECT_EQ(notices[0].second, 0xf2u);
    EXPECT_EQ(called(fn::vy_syslog), 0u);
}

/* Those that nobody sends, and those that only the library sends. */
INSTANTIATE_TEST_SUITE_P(types, ignored_type, testing::Values(1, 4, 5, 10, 16, 0, 2, 3, 6, 9, 11, 12, 14));

class invalid_type : public inbound, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(invalid_type, goes_to_syslog_and_is_ignored)
{
    connect_up(4);
    world.clear_calls();
    deliver(4, message_of(GetParam(), 1, 0x2, 100));
    EXPECT_THAT(kinds(), ElementsAre(notice::status)) << "its flags are looked at all the same";

    const auto lines = world.calls(fn::vy_syslog);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].args[0], 6u);
    EXPECT_EQ(lines[0].format, "Invalid message type(0x%x) possible endian mismatch file %s:%d");
    char begin[128];
    std::snprintf(
        begin, sizeof begin,
        "Invalid message type(0x%x) possible endian mismatch file l2vpn/lib/src/l2vpn_ac_api:", GetParam());
    EXPECT_THAT(lines[0].text, testing::StartsWith(begin));
    EXPECT_GT(std::stoi(lines[0].text.substr(std::strlen(begin))), 0) << "a line number";
}

INSTANTIATE_TEST_SUITE_P(types, invalid_type, testing::Values(17, 18, 255, 0x07000000, 0xffffffff));

/* --- provision --- */

TEST_F(inbound, provision_without_acs_is_logged_and_nothing_more)
{
    connect_up(4);
    world.clear_calls();
    deliver(4, message_of(prov, 0, 0));
    EXPECT_THAT(notices, IsEmpty());
    EXPECT_EQ(logged("Receiving prov AC msg len=16, bulk=0"), 1);
    deliver(4, message_of(prov, 0, 2, 7));
    EXPECT_EQ(logged("Receiving prov AC msg len=23, bulk=0"), 1) << "its length is not checked";
    EXPECT_THAT(kinds(), ElementsAre(notice::status));
    EXPECT_EQ(logged("incorrect provision msg len=23, bulk=0"), 0);
    EXPECT_EQ(called(fn::calloc_named), 0u);
}

TEST_F(inbound, provision_of_class_3_yields_records_without_a_tail)
{
    const auto hd = connect_up(3);
    bytes message = message_of(prov, 2, 0x40, 64);
    for (std::size_t i = 16; i < message.size(); ++i)
        message[i] = static_cast<std::uint8_t>(i);
    ASSERT_EQ(message.size(), 80u);
    deliver(3, message);
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].hd, hd);
    ASSERT_EQ(notices[0].data.size(), 2u);
    for (const auto &record : notices[0].data) {
        const auto *const at = reinterpret_cast<const std::uint8_t *>(&record);
        EXPECT_EQ(bytes(at + 28, at + 2676), bytes(2648, 0));
    }
    EXPECT_EQ(notices[0].data[1].words[6], be32(&message[16 + 8 + 28 + 24]));
}

class wrong_length : public inbound, public testing::WithParamInterface<int> {};

TEST_P(wrong_length, of_a_provision_is_refused)
{
    connect_up(4);
    world.clear_calls();
    const std::size_t payload = static_cast<std::size_t>(64 + GetParam());
    deliver(4, message_of(prov, 2, 0x2, payload));
    EXPECT_EQ(logged("incorrect provision msg len=" + std::to_string(16 + payload) + ", bulk=2"), 1);
    EXPECT_THAT(kinds(), ElementsAre(notice::status)) << "the notice is raised all the same";
    EXPECT_EQ(called(fn::calloc_named), 0u);
}

TEST_P(wrong_length, of_an_unprovision_is_refused)
{
    connect_up(4);
    const std::size_t payload = static_cast<std::size_t>(8 + GetParam());
    deliver(4, message_of(unprov, 2, 0x2, payload));
    EXPECT_EQ(logged("incorrect unprovision msg len=" + std::to_string(16 + payload) + ", bulk=2"), 1);
    EXPECT_THAT(kinds(), ElementsAre(notice::status));
}

TEST_P(wrong_length, of_a_bulk_notice_is_refused_with_the_text_of_an_unprovision)
{
    connect_up(4);
    world.clear_calls();
    const std::size_t payload = static_cast<std::size_t>(64 + GetParam());
    deliver(4, message_of(bulk_notify, 2, 0x2, payload));
    EXPECT_EQ(called(fn::gen_dbg_ltrace_ctx), 0u) << "logged, not traced";
    EXPECT_EQ(logged("incorrect unprovision msg len=" + std::to_string(16 + payload) + ", bulk=2"), 1);
    EXPECT_THAT(kinds(), ElementsAre(notice::status));
}

INSTANTIATE_TEST_SUITE_P(lengths, wrong_length, testing::Values(-8, -1, 1, 4));

/* Counts whose product with the size wraps in 32 bits to the length that the message has. */
TEST_F(inbound, a_huge_count_cannot_wrap_into_a_match)
{
    connect_up(4);
    deliver(4, message_of(prov, 0x08000001, 0, 32));  /* times 32: 2^32 + 32 */
    deliver(4, message_of(unprov, 0x40000001, 0, 4)); /* times 4: 2^32 + 4 */
    deliver(4, message_of(bulk_notify, 0x08000001, 0, 32));
    deliver(4, message_of(unprov, 0xffffffff, 0, 0));
    EXPECT_THAT(notices, IsEmpty());
    EXPECT_EQ(logged("incorrect provision msg len=48, bulk=134217729"), 1);
    EXPECT_EQ(logged("incorrect unprovision msg len=20, bulk=1073741825"), 1);
    EXPECT_EQ(logged("incorrect unprovision msg len=48, bulk=134217729"), 1);
    EXPECT_EQ(logged("incorrect unprovision msg len=16, bulk=-1"), 1);
}

TEST_F(inbound, the_class_argument_selects_the_sizes)
{
    connect_up(4);
    world.link_of(4).inject(message_of(prov, 1, 0, 36), 0); /* right for class 0, wrong for class 4 */
    world.run();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].what, notice::prov);
    notices.clear();
    world.link_of(4).inject(message_of(prov, 1, 0, 32), 0);
    world.run();
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(inbound, a_class_argument_that_is_no_class_is_logged_with_the_clients_class)
{
    connect_up(4);
    for (const std::uint32_t class_id : {15u, 18u, 0xffffffffu}) {
        const long before = logged("Unable to get AC data size for class id 4");
        world.link_of(4).inject(message_of(prov, 1, 0x2, 36), class_id);
        world.run();
        EXPECT_EQ(logged("Unable to get AC data size for class id 4"), before + 1);
    }
    EXPECT_THAT(kinds(), ElementsAre(notice::status, notice::status, notice::status));
    EXPECT_EQ(logged("Receiving prov AC msg len=52, bulk=1"), 3);
}

/* What is asked first: records at all, then the class, then the length. */
TEST_F(inbound, of_several_faults_the_first_one_is_logged)
{
    connect_up(4);
    world.link_of(4).inject(message_of(prov, 0, 0, 36), 15);
    world.run();
    EXPECT_EQ(logged("Receiving prov AC msg len=52, bulk=0"), 1);
    EXPECT_EQ(logged("Unable to get AC data size for class id 4"), 0);
    EXPECT_EQ(logged("incorrect provision msg len=52, bulk=0"), 0);

    world.link_of(4).inject(message_of(prov, 1, 0, 7), 15);
    world.run();
    EXPECT_EQ(logged("Unable to get AC data size for class id 4"), 1);
    EXPECT_EQ(logged("incorrect provision msg len=23, bulk=1"), 0);
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(inbound, without_memory_the_client_is_not_called_but_the_handles_are_converted)
{
    connect_up(4);
    world.fail(fn::calloc_named, 1, 12);
    world.clear_calls();
    alignas(8) std::uint8_t buffer[48];
    bytes message = message_of(prov, 1, 0, 32);
    for (std::size_t i = 16; i < 48; ++i)
        message[i] = static_cast<std::uint8_t>(i);
    std::copy(message.begin(), message.end(), buffer);
    world.msg_cb(4)(world.ipc_client(), 4, 0, buffer, 48, 0, world.link_of(4).cookie());

    EXPECT_THAT(notices, IsEmpty());
    EXPECT_EQ(logged("Cannot allocate memory for AC data array"), 1);
    std::uint32_t handle = 0;
    std::memcpy(&handle, buffer + 16, 4);
    EXPECT_EQ(handle, be32(&message[16])) << "host order";
    EXPECT_EQ(bytes(buffer + 20, buffer + 48), bytes(message.begin() + 20, message.end())) << "as received";
    const auto traces = world.calls(fn::gen_dbg_ltrace_ctx);
    ASSERT_EQ(traces.size(), 2u);
    EXPECT_EQ(traces[1].text, "12 1") << "status and count";
}

TEST_F(inbound, the_decoded_array_is_named)
{
    connect_up(4);
    world.clear_calls();
    deliver(4, message_of(prov, 2, 0, 64));
    const auto allocations = world.calls(fn::calloc_named);
    ASSERT_EQ(allocations.size(), 1u);
    EXPECT_EQ(allocations[0].args[0], 2u);
    EXPECT_EQ(allocations[0].args[1], 2676u);
    EXPECT_EQ(allocations[0].text, "AC data array");
}

/* The records are converted where they lie: after the call the buffer is in host order. */
TEST_F(inbound, provision_converts_the_buffer_in_place)
{
    connect_up(0);
    const auto message = golden::load("provision_class_0");
    std::vector<std::uint64_t> aligned((message.wire.size() + 7) / 8);
    auto *const buffer = reinterpret_cast<std::uint8_t *>(aligned.data());
    std::copy(message.wire.begin(), message.wire.end(), buffer);
    world.msg_cb(0)(world.ipc_client(), 0, 0, buffer, static_cast<std::uint32_t>(message.wire.size()), 0,
                    world.link_of(0).cookie());
    EXPECT_EQ(bytes(buffer, buffer + message.host.size()), message.host);
}

TEST_F(inbound, class_11_tails_reach_the_client_as_received)
{
    connect_up(11);
    bytes message = message_of(prov, 1, 0, 71);
    for (std::size_t i = 0; i < 39; ++i)
        message[16 + 4 + 28 + i] = static_cast<std::uint8_t>(0xa0 + i);
    deliver(11, message);
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(std::memcmp(notices[0].data[0].by_class.class11, &message[16 + 4 + 28], 39), 0);
}

TEST_F(inbound, class_8_tail_bytes_28_to_63_are_copied_as_received)
{
    connect_up(8);
    bytes message = message_of(prov, 1, 0, 2680);
    for (std::size_t i = 28; i < 64; ++i)
        message[16 + 4 + i] = static_cast<std::uint8_t>(i);
    deliver(8, message);
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(std::memcmp(notices[0].data[0].by_class.class8.opaque, &message[16 + 4 + 28], 36), 0);
}

using inbound_death = inbound;

TEST_F(inbound_death, a_class_with_a_size_and_no_layout_is_fatal)
{
    for (const auto &[class_id, size] : {std::pair{7u, 76u}, {9u, 112u}, {17u, 97u}}) {
        connect_up(class_id);
        EXPECT_DEATH(deliver(class_id, message_of(prov, 1, 0, size)),
                     "l2vpn_ac_data_base_to_ac_data: Assertion `size == 0' failed");
        deliver(class_id, message_of(prov, 1, 0, size - 1));
        deliver(class_id, message_of(prov, 0, 0));
    }
    EXPECT_THAT(notices, IsEmpty());
}

/* --- unprovision and notices without records --- */

TEST_F(inbound, unprovision_without_acs_is_logged_and_nothing_more)
{
    connect_up(4);
    deliver(4, message_of(unprov, 0, 2));
    EXPECT_EQ(logged("Receiving unprov AC msg len=16, bulk=0"), 1);
    EXPECT_THAT(kinds(), ElementsAre(notice::status));
}

TEST_F(inbound, a_bulk_notice_without_records_is_silent)
{
    connect_up(4);
    world.clear_calls();
    deliver(4, message_of(bulk_notify, 0, 0, 9));
    EXPECT_THAT(world.log(), IsEmpty());
    EXPECT_THAT(notices, IsEmpty());
    EXPECT_EQ(called(fn::gen_dbg_ltrace_ctx), 0u);
}

TEST_F(inbound, traces_what_it_receives)
{
    connect_up(4);
    world.clear_calls();
    deliver(4, message_of(prov, 1, 0, 32));
    deliver(4, message_of(unprov, 1, 0, 4));
    deliver(4, message_of(prov, 1, 0, 31));
    deliver(4, message_of(unprov, 1, 0, 3));
    std::vector<std::string> texts;
    for (const auto &trace : world.calls(fn::gen_dbg_ltrace_ctx))
        texts.push_back(trace.text);
    EXPECT_THAT(texts, ElementsAre("48 1", "20 1", "47 1", "47 1", "19 1", "19 1"))
        << "length and count; once more for a wrong length";
}

} // namespace
