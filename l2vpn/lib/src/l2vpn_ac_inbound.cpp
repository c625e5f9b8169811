/*
 * Dispatch of inbound messages, one row a message type.
 *
 * Nothing is answered to the sender: a bad message is logged and dropped, but for the notice that its flags
 * word may raise. Callbacks run with no lock held and the client busy. Odd on purpose:
 *
 *   - A bad bulk notice is logged with the text of a bad unprovision.
 *   - The header of a header notice is converted back to network order before the client sees it, and the
 *     flags word is then read as it lies: on a little-endian host the notice bit of this type is 0x02000000.
 *   - A provision of a bad class is logged with the class of the client, not that of the message.
 */
#include "l2vpn_ac_inbound.h"

#include "l2vpn_ac_callback.h"
#include "l2vpn_ac_class.h"
#include "l2vpn_ac_data.h"
#include "l2vpn_ac_debug.h"
#include "l2vpn_ac_delivery.h"
#include "l2vpn_ac_wire.h"

#include <cstdlib>

namespace {

struct inbound {
    l2vpn_ac_client_ctx *client;
    l2vpn_ac_msg_hdr_t *hdr; /* host order */
    uint32_t class_id;
    uint32_t length;

    uint32_t bulk() const { return hdr->bulk; }
    std::byte *payload() const { return reinterpret_cast<std::byte *>(hdr) + L2VPN_AC_HDR_LEN; }
    ifhtype *handles() const { return reinterpret_cast<ifhtype *>(payload()); }

    /* Exactly `bulk` records of `size` bytes follow the header. In 64 bits: a huge count cannot wrap. */
    bool holds_records_of(uint64_t size) const { return L2VPN_AC_HDR_LEN + size * bulk() == length; }
};

constexpr char name[] = "l2vpn_ac_msg_cb";

/* --- sizes of a type's records; 0: refused, and logged ----------------------------------------------- */

uint32_t data_size(const inbound &message)
{
    const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(message.class_id);
    if (row != nullptr)
        return row->data_size;
    L2VPN_AC_DEBUG(name, "Unable to get AC data size for class id %u", message.client->class_id);
    return 0;
}

uint32_t ifh_size(const inbound &)
{
    return L2VPN_AC_IFH_LEN;
}

uint32_t notify_size(const inbound &)
{
    return sizeof(l2vpn_ac_bulk_notify_t);
}

/* --- conversion and callback, the length being right ------------------------------------------------- */

void provision(const inbound &message)
{
    const uint32_t bulk = message.bulk();
    auto *const base =
        reinterpret_cast<l2vpn_ac_xcid_data_base_t *>(message.payload() + size_t{bulk} * L2VPN_AC_IFH_LEN);

    l2vpn_ac_xcid_data_t *data = nullptr;
    const qerrno rc = l2vpn_ac_data_base_to_ac_data(message.class_id, bulk, base, &data);
    l2vpn_ac_convert_words(message.handles(), bulk);
    if (rc != EOK) {
        L2VPN_AC_TRACE(L2VPN_AC_TRACE_INBOUND_BAD, name, "%u %u", rc, bulk);
        return;
    }
    if (message.client->cbv.prov_cb != nullptr)
        l2vpn_ac_call<L2VPN_AC_MSG_PROV>(message.client, message.client->cbv.prov_cb, bulk, message.handles(),
                                         data, message.hdr->flags);
    free(data);
}

void unprovision(const inbound &message)
{
    l2vpn_ac_convert_words(message.handles(), message.bulk());
    if (message.client->cbv.unprov_cb != nullptr)
        l2vpn_ac_call<L2VPN_AC_MSG_UNPROV>(message.client, message.client->cbv.unprov_cb, message.bulk(),
                                           message.handles(), message.hdr->flags);
}

void bulk_notify(const inbound &message)
{
    using program = l2vpn_ac_program<u32(0), u16(4), u32(8), u32(12), u32(16), u32(20), u32(28)>;
    l2vpn_ac_convert_records<program, sizeof(l2vpn_ac_bulk_notify_t)>(message.payload(), message.bulk());

    auto *const records = reinterpret_cast<l2vpn_ac_bulk_notify_t *>(message.payload());
    if (message.client->cbv.bulk_notify_cb != nullptr)
        l2vpn_ac_call<L2VPN_AC_MSG_BULK_NOTIFY>(message.client, message.client->cbv.bulk_notify_cb,
                                                message.bulk(), records, message.hdr->flags);
}

void hdr_notify(const inbound &message)
{
    l2vpn_ac_convert_hdr(message.hdr);
    if (message.client->cbv.hdr_notify_cb != nullptr)
        l2vpn_ac_call<L2VPN_AC_MSG_HDR_NOTIFY>(message.client, message.client->cbv.hdr_notify_cb,
                                               message.hdr->bulk, nullptr, message.hdr->flags);
}

/* --- the table --------------------------------------------------------------------------------------- */

struct row {
    uint32_t msg_type;
    bool traced;                                     /* on reception, and when the length is wrong */
    const char *received;                            /* logged on reception; null: nothing is */
    uint32_t (*record_size)(const inbound &message); /* null: the type has no records */
    const char *incorrect;                           /* logged when the length is wrong */
    void (*deliver)(const inbound &message);
};

constexpr row rows[] = {
    {L2VPN_AC_MSG_PROV, true, "Receiving prov AC msg len=%d, bulk=%d", data_size,
     "incorrect provision msg len=%d, bulk=%d", provision},
    {L2VPN_AC_MSG_UNPROV, true, "Receiving unprov AC msg len=%d, bulk=%d", ifh_size,
     "incorrect unprovision msg len=%d, bulk=%d", unprovision},
    {L2VPN_AC_MSG_BULK_NOTIFY, false, nullptr, notify_size, "incorrect unprovision msg len=%d, bulk=%d",
     bulk_notify},
    {L2VPN_AC_MSG_HDR_NOTIFY, false, nullptr, nullptr, nullptr, hdr_notify},
};

void handle(const row &row, const inbound &message)
{
    if (row.traced)
        L2VPN_AC_TRACE(L2VPN_AC_TRACE_INBOUND, name, "%u %u", message.length, message.bulk());
    if (row.received != nullptr)
        L2VPN_AC_DEBUG(name, row.received, message.length, message.bulk());
    if (row.record_size != nullptr) {
        if (message.bulk() == 0)
            return;
        const uint32_t size = row.record_size(message);
        if (size == 0)
            return;
        if (!message.holds_records_of(size)) {
            if (row.traced)
                L2VPN_AC_TRACE(L2VPN_AC_TRACE_INBOUND_BAD, name, "%u %u", message.length, message.bulk());
            L2VPN_AC_DEBUG(name, row.incorrect, message.length, message.bulk());
            return;
        }
    }
    row.deliver(message);
}

} // namespace

void l2vpn_ac_msg_cb(l2vpn_ipc_client_t, uint32_t class_id, uint32_t, void *message, uint32_t length,
                     uint32_t, void *cookie)
{
    auto *const hdr = static_cast<l2vpn_ac_msg_hdr_t *>(message);
    const l2vpn_ac_delivery client(__func__, cookie, hdr);
    if (!client)
        return;

    const uint32_t msg_type = hdr->msg_type;
    if (msg_type >= L2VPN_AC_MSG_TYPE_MAX)
        vy_syslog(6, "Invalid message type(0x%x) possible endian mismatch file %s:%d", msg_type,
                  "l2vpn/lib/src/l2vpn_ac_api", __LINE__);

    for (const row &row : rows) {
        if (row.msg_type == msg_type)
            handle(row, {client.get(), hdr, class_id, length});
    }

    /* As the word lies now: a callback, or the header notice's conversion, may have changed it. */
    const uint32_t flags = hdr->flags;
    if ((flags & L2VPN_AC_FLAG_NOTICE) != 0)
        l2vpn_ac_tell_status(client.get(), L2VPN_AC_STATUS_FLAG, flags);
}
