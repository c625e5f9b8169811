/*
 * What a send costs in system calls, through the link as it is: one sendmsg() a message, of the memory that the sender
 * named, and nothing between two of them. The sender is a traced process; its tracer is the other end of the link,
 * takes out each message as soon as it is there, and so there is always room.
 */
#include "../../support/ac_classes.h"
#include "../../support/forked.h"
#include "harness.h"
#include "tracer.h"

#include <algorithm>
#include <array>
#include <l2vpn/l2vpn_ac_api.h>
#include <numeric>
#include <platform/config.h>
#include <sys/syscall.h>

namespace {

using namespace ipc_test;
using system_test::forked;

const test_environment s_environment;

/* Dispatches until `is_up`: false after half a minute. */
bool come_up(const loop &on, const bool &is_up)
{
    return on.until([&] { return is_up; });
}

/* Every message is a sendmsg() that sent the whole of it; before the first and behind the last one there are calls
 * about memory at most. */
void expect_one_call_a_message(const traffic &seen)
{
    ASSERT_FALSE(seen.calls.empty());
    constexpr std::array about_memory{SYS_mmap, SYS_munmap, SYS_mremap, SYS_madvise, SYS_brk};
    const auto sends = [](const call &of) { return of.number == SYS_sendmsg; };
    const auto first = std::ranges::find_if(seen.calls, sends);
    const auto behind = std::find_if(seen.calls.rbegin(), seen.calls.rend(), sends).base();
    for (auto at = seen.calls.begin(); at != seen.calls.end(); ++at) {
        if (at >= first && at < behind)
            ASSERT_EQ(at->number, static_cast<uint64_t>(SYS_sendmsg)) << "between two messages";
        else
            ASSERT_NE(std::ranges::find(about_memory, static_cast<long>(at->number)), about_memory.end())
                << at->number;
    }
    ASSERT_EQ(static_cast<size_t>(behind - first), seen.arrived.size());
    for (size_t i = 0; i < seen.arrived.size(); ++i)
        ASSERT_EQ((first + static_cast<ptrdiff_t>(i))->result, seen.arrived[i]) << "message " << i;
}

std::vector<call> sends_of(const traffic &seen)
{
    std::vector<call> sends;
    std::ranges::copy_if(seen.calls, std::back_inserter(sends),
                         [](const call &of) { return of.number == SYS_sendmsg; });
    return sends;
}

/* --- the platform by itself ---------------------------------------------------------------------------- */

constexpr uint32_t class_id = 5;
constexpr uint32_t pieces_max = 16;

std::array<iovec, pieces_max> pieces_in(bytes &room)
{
    std::array<iovec, pieces_max> pieces{};
    for (uint32_t i = 0; i < pieces_max; ++i)
        pieces[i] = {&room[size_t{i} * 4000], 16 + size_t{i} * 200};
    return pieces;
}

/* Messages of 1 to 16 pieces, and one that is whole. */
int send_pieces(bytes &room)
{
    const loop on;
    l2vpn_ipc_client_t client = new_client(on, "pieces");
    owner one(client, class_id);
    bool is_up = false;
    one.event_hook = [&](l2vpn_ipc_evt_t event) { is_up = event == L2VPN_IPC_EVT_CONNECTED; };
    if (one.start() != EOK || !come_up(on, is_up) || platform_capture_set("off", 256, 160) != EOK ||
        !be_traced())
        return 1;
    const std::array<iovec, pieces_max> pieces = pieces_in(room);
    qerrno status = EOK;
    mark();
    for (uint32_t count = 1; count <= pieces_max; ++count)
        status |= l2vpn_ipc_ucastv(client, class_id, L2VPN_IPC_DEST_L2VPN, pieces.data(), count, 0);
    status |= l2vpn_ipc_ucast(client, class_id, L2VPN_IPC_DEST_L2VPN, room.data(),
                              static_cast<uint32_t>(room.size()), 0);
    mark();
    return status == EOK ? 0 : 2;
}

/* --- the ten functions --------------------------------------------------------------------------------- */

constexpr uint32_t acs = 10'000;
constexpr uint32_t vlans = 4094;

/* What an owner holds. */
struct arrays {
    std::vector<ifhtype> handles = std::vector<ifhtype>(acs);
    std::vector<l2vpn_ac_defn_t> definitions = std::vector<l2vpn_ac_defn_t>(acs);
    std::vector<l2vpn_ac_info_t> infos = std::vector<l2vpn_ac_info_t>(acs);
    std::vector<l2vpn_msti_root_t> roots = std::vector<l2vpn_msti_root_t>(acs);
    std::vector<l2vpn_mstp_req_t> ports = std::vector<l2vpn_mstp_req_t>(acs);
    std::vector<l2vpn_msti_vid_map_t> map = std::vector<l2vpn_msti_vid_map_t>(vlans);
    l2vpn_mstp_prot_t protection{};

    arrays() { std::iota(handles.begin(), handles.end(), 1u); }
};

/* One piece of each message of a request: the owner's own records, or, without a beginning, the library's. */
struct piece {
    const void *begin;
    size_t record;
};

struct request {
    const char *name;
    qerrno (*make)(l2vpn_ac_client_hd_t client, arrays &own);
    uint32_t records;
    std::vector<piece> pieces;
};

std::vector<request> requests_of(uint32_t of_class, const arrays &own)
{
    const size_t info = ac_classes::rows[of_class].info;
    const piece handles{own.handles.data(), sizeof own.handles[0]};
    return {
        {"create",
         [](l2vpn_ac_client_hd_t client, arrays &a) {
             return l2vpn_ac_create(client, 0, acs, a.handles.data(), a.definitions.data(), a.infos.data());
         },
         acs,
         {handles, {own.definitions.data(), sizeof own.definitions[0]}, {nullptr, info}}},
        {"update",
         [](l2vpn_ac_client_hd_t client, arrays &a) {
             return l2vpn_ac_update(client, 0, acs, a.handles.data(), a.infos.data());
         },
         acs,
         {handles, {nullptr, info}}},
        {"delete",
         [](l2vpn_ac_client_hd_t client, arrays &a) {
             return l2vpn_ac_delete(client, 0, acs, a.handles.data());
         },
         acs,
         {handles}},
        {"root",
         [](l2vpn_ac_client_hd_t client, arrays &a) {
             return l2vpn_mstp_root(client, 0, a.roots.data(), acs);
         },
         acs,
         {{own.roots.data(), sizeof own.roots[0]}}},
        {"port request",
         [](l2vpn_ac_client_hd_t client, arrays &a) {
             return l2vpn_mstp_port_request(client, 0, a.ports.data(), acs);
         },
         acs,
         {{own.ports.data(), sizeof own.ports[0]}}},
        {"VLAN map",
         [](l2vpn_ac_client_hd_t client, arrays &a) {
             return l2vpn_msti_vid_map(client, 0, a.map.data(), vlans);
         },
         vlans,
         {{own.map.data(), sizeof own.map[0]}}},
        {"protect",
         [](l2vpn_ac_client_hd_t client, arrays &a) { return l2vpn_mstp_protect(client, 0, &a.protection); },
         1,
         {{nullptr, sizeof own.protection}}},
    };
}

/* The sender's whole life: 0 when it was able to make every request. */
int make_requests(uint32_t of_class, bool recorded, arrays &own)
{
    static bool is_up;
    const loop on;
    l2vpn_ac_callback_vector_t callbacks{};
    callbacks.status_cb = [](l2vpn_ac_client_hd_t, uint32_t status, uint32_t) {
        is_up = status == L2VPN_AC_STATUS_UP;
        return qerrno{EOK};
    };
    l2vpn_ac_client_hd_t client = nullptr;
    if (l2vpn_ac_process_connect(on.evm(), 0, of_class, &callbacks, &client) != EOK || !come_up(on, is_up))
        return 1;
    if (platform_capture_set(recorded ? "on" : "off", 256, 160) != EOK || !be_traced())
        return 2;
    for (const request &each : requests_of(of_class, own)) {
        mark();
        const qerrno status = each.make(client, own);
        mark();
        if (status != EOK || !is_up)
            return 3;
    }
    return 0;
}

/* Each message is its header and a stretch of each array, one behind the other: none of it was moved. */
void expect_own_memory(const request &of, const traffic &seen)
{
    const std::vector<call> sends = sends_of(seen);
    ASSERT_EQ(sends.size(), seen.arrived.size());
    std::vector<const std::byte *> next;
    for (const piece &each : of.pieces)
        next.push_back(static_cast<const std::byte *>(each.begin));
    const size_t record = std::accumulate(of.pieces.begin(), of.pieces.end(), size_t{0},
                                          [](size_t sum, const piece &each) { return sum + each.record; });
    uint64_t records = 0;
    for (size_t i = 0; i < sends.size(); ++i) {
        const size_t in_message = (static_cast<size_t>(seen.arrived[i]) - header_size) / record;
        const std::vector<iovec> &pieces = sends[i].pieces;
        ASSERT_EQ(pieces.size(), 1 + of.pieces.size());
        ASSERT_EQ(pieces[0].iov_len, header_size);
        for (size_t which = 0; which < of.pieces.size(); ++which) {
            const iovec &sent = pieces[1 + which];
            ASSERT_TRUE(next[which] == nullptr || next[which] == sent.iov_base)
                << "message " << i << ", piece " << which;
            ASSERT_EQ(sent.iov_len, in_message * of.pieces[which].record);
            next[which] = static_cast<const std::byte *>(sent.iov_base) + sent.iov_len;
        }
        records += in_message;
    }
    EXPECT_EQ(records, of.records);
}

class sends : public testing::TestWithParam<bool> {};

} // namespace

TEST(send_calls, of_pieces_take_one_each_and_name_the_callers_own_memory)
{
    bytes room(65536, 0x5a);
    const loop on;
    raw_server server(on, "pieces");
    forked sender([&](int) { return send_pieces(room); });
    ASSERT_TRUE(server.take_hello());
    ASSERT_TRUE(server.answer({.kind = 2, .class_id = class_id, .nodeid = 42}));
    tracer watching(sender.pid(), server.peer.fd());
    ASSERT_TRUE(watching.begin());
    const traffic seen = watching.between_marks();
    expect_one_call_a_message(seen);
    ASSERT_EQ(seen.calls.size(), pieces_max + 1u) << "nothing but the messages";
    const std::array<iovec, pieces_max> pieces = pieces_in(room);
    for (size_t count = 1; count <= pieces_max; ++count) {
        ASSERT_EQ(seen.calls[count - 1].pieces.size(), count);
        for (size_t i = 0; i < count; ++i) {
            EXPECT_EQ(seen.calls[count - 1].pieces[i].iov_base, pieces[i].iov_base);
            EXPECT_EQ(seen.calls[count - 1].pieces[i].iov_len, pieces[i].iov_len);
        }
    }
    ASSERT_EQ(seen.calls.back().pieces.size(), 1u);
    EXPECT_EQ(seen.calls.back().pieces[0].iov_base, room.data());
    watching.end();
    EXPECT_EQ(sender.wait(), 0);
}

/* With the ring of the latest messages off and on. */
TEST_P(sends, of_ten_thousand_acs_take_one_call_a_message_from_the_owners_own_arrays)
{
    arrays own;
    for (uint32_t of_class = 0; of_class < ac_classes::rows.size(); ++of_class) {
        if (!ac_classes::valid(of_class) || of_class == 9)
            continue; /* class 9 has no layout for its information: the library ends the process */
        SCOPED_TRACE(of_class);
        const loop on;
        raw_server server(on, "L2VPN");
        forked sender([&](int) { return make_requests(of_class, GetParam(), own); });
        ASSERT_TRUE(server.take_hello());
        ASSERT_TRUE(server.answer({.kind = 2, .class_id = of_class, .nodeid = 42}));
        tracer watching(sender.pid(), server.peer.fd());
        ASSERT_TRUE(watching.begin());
        for (const request &each : requests_of(of_class, own)) {
            SCOPED_TRACE(each.name);
            traffic seen = watching.between_marks();
            ASSERT_FALSE(HasFailure());
            if (GetParam()) /* records have times, which not every machine tells without a call */
                std::erase_if(seen.calls, [](const call &of) { return of.number == SYS_clock_gettime; });
            expect_one_call_a_message(seen);
            expect_own_memory(each, seen);
            ASSERT_FALSE(HasFailure());
        }
        watching.end();
        EXPECT_EQ(sender.wait(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(ring, sends, testing::Bool(),
                         [](const auto &of) { return of.param ? "on" : "off"; });
