/*
 * What the two ends of a link record, and when: sent is what has gone out, and every end of a link is told.
 */
#include "../unit/ipc/harness.h"
#include "child.h"
#include "describe.h"
#include "ring_reader.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <platform/config.h>

namespace {

using namespace ipc_test;
using namespace l2vpn::capture;

const test_environment s_environment;

struct recorded_links : testing::Test {
    recorded_links()
    {
        EXPECT_EQ(platform_capture_set(m_dir.file("links.ring").c_str(), 16 * 1024, 0), qerrno{EOK});
        m_ring.emplace(platform_capture_path());
    }
    ~recorded_links() override { platform_capture_set("off", 64, 0); }

    /* All records so far. */
    const std::vector<captured> &records()
    {
        m_ring->read(m_records);
        return m_records;
    }
    size_t count(record_kind kind, flow direction = flow::none)
    {
        return static_cast<size_t>(std::ranges::count_if(records(), [=](const captured &record) {
            return record.head.kind == kind && record.head.direction == direction;
        }));
    }

    raw_socket open()
    {
        const size_t before = server.peers.size();
        raw_socket made = raw_socket::connect_to(socket_path(service));
        EXPECT_TRUE(made.send(greeting_bytes({})));
        EXPECT_TRUE(on.until([&] { return server.peers.size() == before + 1; }));
        bytes packet;
        EXPECT_TRUE(made.receive(&packet));
        return made;
    }

    system_test::temp_dir m_dir;
    std::optional<ring_reader> m_ring;
    std::vector<captured> m_records;
    loop on;
    std::string service = test_name();
    recording_server server;
};

} // namespace

TEST_F(recorded_links, a_message_of_the_server_is_recorded_when_it_goes_out)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    const raw_socket owner = open();
    uint32_t sent = 0;
    while (l2vpn_ipc_server_queued(server.handle, server.peers[0]) == 0) {
        ASSERT_EQ(server.send(server.peers[0], message(sent++, 4096)), qerrno{EOK});
    }
    EXPECT_EQ(server.send(server.peers[0], message(sent++, 4096)), qerrno{EOK});
    EXPECT_EQ(count(record_kind::message, flow::to_owner), sent - 2) << "two wait";
    bytes packet;
    for (uint32_t got = 0; got < sent; got++) {
        ASSERT_TRUE(on.until([&] { return owner.receive(&packet); }));
        EXPECT_EQ(number_of(packet.data()), got);
    }
    uint32_t next = 0;
    for (const captured &record : records()) {
        if (record.head.kind == record_kind::message) {
            EXPECT_EQ(record.head.status, 0U);
            EXPECT_EQ(number_of(record.message.data()), next++);
        }
    }
    EXPECT_EQ(next, sent);
}

TEST_F(recorded_links, links_that_the_server_ends_are_down)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    const raw_socket one = open();
    const raw_socket other = open();
    l2vpn_ipc_server_close(server.handle, server.peers[0]);
    ASSERT_EQ(count(record_kind::link_down), 1U);
    EXPECT_EQ(m_records.back().head.link, 1U);
    EXPECT_EQ(m_records.back().head.status, static_cast<uint32_t>(ECANCELED));
    server.stop();
    ASSERT_EQ(count(record_kind::link_down), 2U);
    EXPECT_EQ(m_records.back().head.link, 2U);
}

/* Not of class 0, which it never named. */
TEST_F(recorded_links, a_link_that_is_refused_before_it_has_told_a_class_has_none)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    const raw_socket stranger = raw_socket::connect_to(socket_path(service));
    ASSERT_TRUE(stranger.send(bytes(12, 'x')));
    ASSERT_TRUE(on.until([&] { return count(record_kind::link_refused) == 1; }));
    const captured &refused = m_records.back();
    EXPECT_EQ(refused.head.class_id, no_class);
    EXPECT_EQ(refused.head.status, static_cast<uint32_t>(EPROTO));
    EXPECT_TRUE(describe(refused, read(refused), detail::none)["class"].is_null());
    EXPECT_NE(
        to_lines(refused, read(refused), detail::none, false).find("] no class REFUSED: Protocol error\n"),
        std::string::npos);

    const raw_socket wide = raw_socket::connect_to(socket_path(service));
    ASSERT_TRUE(wide.send(greeting_bytes({.class_id = 5, .mtu = 1 << 20})));
    ASSERT_TRUE(on.until([&] { return count(record_kind::link_refused) == 2; }));
    EXPECT_EQ(m_records.back().head.class_id, 5U) << "it has told its own";
}

TEST_F(recorded_links, a_link_that_its_peer_ends_is_down_once)
{
    ASSERT_EQ(server.start(on, service), qerrno{EOK});
    open().reset();
    ASSERT_TRUE(on.until([&] { return !server.closed.empty(); }));
    EXPECT_EQ(count(record_kind::link_down), 1U);
    EXPECT_EQ(m_records.back().head.status, 0U);
}

TEST_F(recorded_links, a_class_that_is_withdrawn_ends_its_link)
{
    raw_server raw(on, service);
    owner one(new_client(on, service), 5);
    ASSERT_EQ(one.start(), qerrno{EOK});
    ASSERT_TRUE(raw.take_hello());
    ASSERT_TRUE(raw.answer());
    ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
    ASSERT_EQ(one.stop(), qerrno{EOK});
    ASSERT_EQ(count(record_kind::link_down), 1U);
    EXPECT_EQ(m_records.back().head.status, static_cast<uint32_t>(ECANCELED));
    EXPECT_EQ(m_records.back().head.link, m_records.front().head.link);
    EXPECT_NE(m_records.back().head.link, 0U);
}

TEST_F(recorded_links, every_link_of_a_process_has_its_own_number)
{
    raw_server raw(on, service);
    std::vector<uint64_t> numbers;
    for (size_t round = 0; round < 3; round++) {
        owner one(new_client(on, service), 5);
        ASSERT_EQ(one.start(), qerrno{EOK});
        ASSERT_TRUE(raw.take_hello());
        ASSERT_TRUE(raw.answer());
        ASSERT_TRUE(on.until([&] { return one.count(L2VPN_IPC_EVT_CONNECTED) == 1; }));
        ASSERT_EQ(count(record_kind::link_up), round + 1);
        numbers.push_back(m_records.back().head.link);
    }
    EXPECT_LT(numbers[0], numbers[1]);
    EXPECT_LT(numbers[1], numbers[2]);
}

TEST_F(recorded_links, a_message_that_is_not_taken_is_recorded_with_the_reason)
{
    constexpr size_t queue_room = 65536;
    owner one(new_client(on, service), 5); /* there is no server */
    ASSERT_EQ(one.start(), qerrno{EOK});
    EXPECT_EQ(one.send(message(1, size_t{1} << 21)), qerrno{EMSGSIZE});
    ASSERT_EQ(count(record_kind::message, flow::to_process), 1U);
    EXPECT_EQ(m_records.back().head.status, static_cast<uint32_t>(EMSGSIZE));
    const bytes small = message(2);
    for (size_t i = 0; i < queue_room; i++) {
        ASSERT_EQ(one.send(small), qerrno{EOK});
    }
    EXPECT_EQ(count(record_kind::message, flow::to_process), 1U) << "what waits was not sent yet";
    EXPECT_EQ(one.send(message(3)), qerrno{ENOBUFS});
    ASSERT_EQ(count(record_kind::message, flow::to_process), 2U);
    EXPECT_EQ(m_records.back().head.status, static_cast<uint32_t>(ENOBUFS));
    EXPECT_EQ(m_records.back().head.link, 0U);
}
