/*
 * The library's callback for messages of the L2VPN process, on the simulated platform.
 *
 *   offset  size
 *        0     1  the client, by its class
 *        1     1  the class that the callback is told: 0 to 23, 255: none at all, others: the client's
 *        2        the message
 *
 * Left out is what must end the process: a provision with data of class 7, 9 or 17 whose length is right.
 * Those classes have a size and no layout, and decoding them is a fatal assertion on purpose.
 */
#include "fuzz.h"

#include "../support/ac_classes.h"

#include <l2vpn/l2vpn_ac_api.h>
#include <l2vpn/l2vpn_ac_msg.h>
#include <platform/sim.h>

#include <vector>

namespace {

using fuzz::be32;

constexpr uint32_t classes = ac_classes::rows.size();
constexpr uint32_t bare_class = 14; /* its client has status_cb only */
constexpr size_t common = 28;       /* bytes of data that every class has */

bool has_no_layout(uint32_t class_id)
{
    return ac_classes::valid(class_id) && !ac_classes::rows[class_id].decoded;
}

struct expectation {
    fuzz::bytes message; /* as it was before the callback */
    l2vpn_ac_client_hd_t client;
    unsigned called;
    unsigned notices;
};
expectation s_now;

void check_handles(uint32_t count, const ifhtype *handles)
{
    for (uint32_t i = 0; i < count; ++i)
        FUZZ_CHECK(handles[i] == be32(s_now.message, 16 + size_t{i} * 4));
}

qerrno on_status(l2vpn_ac_client_hd_t client, uint32_t status, uint32_t)
{
    FUZZ_CHECK(client == s_now.client);
    FUZZ_CHECK(status == L2VPN_AC_STATUS_FLAG);
    ++s_now.notices;
    return EOK;
}

qerrno on_prov(l2vpn_ac_client_hd_t client, uint32_t count, ifhtype *handles, l2vpn_ac_xcid_data_t *data,
               uint32_t flags)
{
    FUZZ_CHECK(client == s_now.client && be32(s_now.message, 4) == 7 && flags == be32(s_now.message, 12));
    check_handles(count, handles);
    const size_t each = (s_now.message.size() - 16) / count;
    for (uint32_t i = 0; i < count; ++i) {
        fuzz::read_all(&data[i], sizeof data[i]);
        const size_t wire = 16 + size_t{count} * 4 + i * (each - 4);
        for (size_t word = 0; word < common / 4; ++word)
            FUZZ_CHECK(data[i].words[word] == be32(s_now.message, wire + word * 4));
    }
    ++s_now.called;
    return EOK;
}

qerrno on_unprov(l2vpn_ac_client_hd_t client, uint32_t count, ifhtype *handles, uint32_t flags)
{
    FUZZ_CHECK(client == s_now.client && be32(s_now.message, 4) == 8 && flags == be32(s_now.message, 12));
    check_handles(count, handles);
    ++s_now.called;
    return EOK;
}

qerrno on_bulk_notify(l2vpn_ac_client_hd_t client, uint32_t count, l2vpn_ac_bulk_notify_t *records,
                      uint32_t flags)
{
    FUZZ_CHECK(client == s_now.client && be32(s_now.message, 4) == 13 && flags == be32(s_now.message, 12));
    fuzz::read_all(records, size_t{count} * sizeof *records);
    for (uint32_t i = 0; i < count; ++i) {
        FUZZ_CHECK(records[i].word == be32(s_now.message, 16 + size_t{i} * 32));
        FUZZ_CHECK(records[i].word2 == be32(s_now.message, 16 + size_t{i} * 32 + 28));
    }
    ++s_now.called;
    return EOK;
}

qerrno on_hdr_notify(l2vpn_ac_client_hd_t client, uint32_t word2, void *nothing, uint32_t word3)
{
    FUZZ_CHECK(client == s_now.client && be32(s_now.message, 4) == 15 && nothing == nullptr);
    FUZZ_CHECK(memcmp(&word2, &s_now.message[8], 4) == 0 && memcmp(&word3, &s_now.message[12], 4) == 0);
    ++s_now.called;
    return EOK;
}

struct library {
    l2vpn::sim::world world;
    std::vector<uint32_t> connected;

    library()
    {
        world.set.record = false;
        for (uint32_t class_id = 0; class_id < classes; ++class_id) {
            l2vpn_ac_callback_vector_t callbacks{};
            callbacks.status_cb = on_status;
            if (class_id != bare_class) {
                callbacks.prov_cb = on_prov;
                callbacks.unprov_cb = on_unprov;
                callbacks.bulk_notify_cb = on_bulk_notify;
                callbacks.hdr_notify_cb = on_hdr_notify;
            }
            l2vpn_ac_client_hd_t client = nullptr;
            if (l2vpn_ac_process_connect(world.evm(), 0, class_id, &callbacks, &client) == EOK)
                connected.push_back(class_id);
        }
        FUZZ_CHECK(connected.size() >= classes - 1);
    }
};

library &subject()
{
    static library one;
    return one;
}

uint32_t told_class(uint8_t byte, uint32_t client_class)
{
    return byte < 24 ? byte : byte == 255 ? UINT32_MAX : client_class;
}

uint32_t client_class(uint8_t byte)
{
    const std::vector<uint32_t> &connected = subject().connected;
    return connected[byte % connected.size()];
}

/* 0: no class. */
uint32_t data_size(uint32_t class_id)
{
    return ac_classes::valid(class_id) ? ac_classes::rows[class_id].data : 0;
}

/* Bytes of each record of a message for `class_id`; 0: it has none that would be looked at. */
uint32_t record_size(uint32_t type, uint32_t class_id)
{
    return type == 7 ? data_size(class_id) : type == 8 ? 4 : type == 13 ? 32 : 0;
}

[[maybe_unused]] size_t size_of_each(const uint8_t *input)
{
    return record_size(be32({input, 18}, 6), told_class(input[1], client_class(input[0])));
}

} // namespace

FUZZ_MESSAGE_MUTATOR(2, size_of_each)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const uint32_t registered = client_class(in.u8());
    const uint32_t told = told_class(in.u8(), registered);
    const fuzz::bytes message = in.rest();
    if (message.size() < L2VPN_AC_HDR_LEN) /* the platform delivers no such message */
        return 0;

    const uint32_t type = be32(message, 4);
    const uint64_t count = be32(message, 8);
    const uint64_t each = record_size(type, told);
    const bool is_whole = each != 0 && count != 0 && 16 + count * each == message.size();
    if (type == 7 && is_whole && has_no_layout(told))
        return 0;

    l2vpn::sim::world &world = subject().world;
    l2vpn::sim::link &link = world.link_of(registered);
    const fuzz::exact received(message);
    s_now = {message, static_cast<l2vpn_ac_client_hd_t>(link.cookie()), 0, 0};
    world.msg_cb(registered)(world.ipc_client(), told, 0, received.data(),
                             static_cast<uint32_t>(received.size()), 0, link.cookie());

    FUZZ_CHECK(s_now.called == ((is_whole || type == 15) && registered != bare_class ? 1 : 0));
    /* The flags of a header notice are read as they lie, in network byte order. */
    uint32_t flags = be32(message, 12);
    if (type == 15)
        memcpy(&flags, &message[12], sizeof flags);
    FUZZ_CHECK(s_now.notices == (flags >> 1 & 1));
    return 0;
}
