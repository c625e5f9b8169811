/*
 * Telling owners what to do with their ACs.
 *
 * An AC that its owner is to be told about stands on the owner's list of waiting ACs, with what is wanted. The
 * list is sent from its front, as many ACs of the same kind in a row as one message takes, and only while little
 * waits in the link's own queue: an owner that does not read keeps nothing but its list, and what is
 * wanted can change until the message is made.
 */
#include "encoder.h"
#include "probe.h"
#include "process.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <l2vpn/l2vpn_ac_msg.h>
#include <new>
#include <platform/debug.h>

namespace l2vpnd {

namespace {

/* More than this is not put into a link's queue. */
constexpr uint64_t queue_enough = 256 * 1024;

} // namespace

void l2vpn_process::move(owner &of, uint32_t slot, ac_stage stage)
{
    ac_store &store = m_acs.store(of.info.class_id);
    ac_head &ac = store.head(slot);
    store.remove(of.list(ac.stage), slot);
    ac.stage = stage;
    store.append(of.list(stage), slot);
}

bool l2vpn_process::can_provision(const owner &of)
{
    const class_row &cls = *find_class(of.info.class_id);
    return cls.data_size != 0 && provision_limit(cls, of.info.mtu) > 0;
}

bool l2vpn_process::has_room(const owner &of) const
{
    return m_out.queued(of) < queue_enough;
}

void l2vpn_process::want(owner &of, uint32_t slot, bool provisioned, ac_asker asker)
{
    ac_head &ac = m_acs.store(of.info.class_id).head(slot);
    ac.wanted = provisioned;
    ac.asker = asker;
    move(of, slot, ac_stage::waiting);
}

/* The ACs that came in a batch, or in a message of its own, are complete. */
void l2vpn_process::settle(owner &of)
{
    const bool provision = m_options.auto_provision && can_provision(of);
    const ac_stage stage = provision ? ac_stage::waiting : ac_stage::settled;
    ac_store &store = m_acs.store(of.info.class_id);
    ac_list &batched = of.list(ac_stage::batched);
    for (uint32_t slot = batched.first; slot != no_slot; slot = store.head(slot).next) {
        ac_head &ac = store.head(slot);
        ac.stage = stage;
        ac.wanted = provision;
        ac.asker = provision ? ac_asker::automatic : ac_asker::nobody;
    }
    store.splice(of.list(stage), batched);
    send_waiting(of);
}

qerrno l2vpn_process::send(owner &to, uint32_t type, bytes message)
{
    const qerrno status = m_out.send(to, message);
    gen_ltrace(trace_sent, "sent: owner %" PRIu64 " class %u type %u bytes %zu: status %d", to.info.peer_id,
               to.info.class_id, type, message.size(), static_cast<int>(status));
    if (status == EOK) {
        to.count.sent[type]++;
        to.count.bytes_sent += message.size();
    } else if (status != ENOBUFS) {
        to.count.send_failures++;
    }
    return status;
}

/* One message's worth from the front of the waiting list, which is not empty. */
qerrno l2vpn_process::tell_some(owner &to)
{
    const class_row &cls = *find_class(to.info.class_id);
    ac_store &store = m_acs.store(cls.id);
    ac_list &waiting = to.list(ac_stage::waiting);
    const bool provision = store.head(waiting.first).wanted;
    const uint32_t most = provision ? provision_limit(cls, to.info.mtu) : unprovision_limit(to.info.mtu);

    if (most == 0) {
        /* No message on this link holds an AC: none was told of, and none is. */
        move(to, waiting.first, ac_stage::settled);
        return EOK;
    }

    std::vector<uint32_t> slots;
    slots.reserve(std::min(most, waiting.count));
    for (uint32_t slot = waiting.first; slot != no_slot && slots.size() < most;
         slot = store.head(slot).next) {
        ac_head &ac = store.head(slot);
        if (ac.wanted != provision) {
            break;
        }
        if (provision && ac.xcid == 0) {
            m_last_xcid = m_last_xcid == UINT32_MAX ? 1 : m_last_xcid + 1;
            ac.xcid = m_last_xcid;
        }
        slots.push_back(slot);
    }

    const qerrno status =
        provision ? send(to, L2VPN_AC_MSG_PROV, encode_provision(cls, store, slots, m_options.nodeid, 0))
                  : send(to, L2VPN_AC_MSG_UNPROV, encode_unprovision(store, slots, 0));
    L2VPN_PROBE(l2vpnd, provision, to.info.peer_id, to.info.class_id, uint32_t{provision},
                uint64_t{slots.size()}, status);
    if (status == EOK) {
        for (const uint32_t slot : slots) {
            store.head(slot).provisioned = provision;
            move(to, slot, ac_stage::settled);
        }
        (provision ? to.count.acs_provisioned : to.count.acs_unprovisioned) += slots.size();
    }
    return status;
}

/* What waits is the process's own list, or in the link's queue. */
void l2vpn_process::note_waiting(owner &of)
{
    if (of.list(ac_stage::waiting).count == 0 && m_out.queued(of) == 0) {
        of.waiting_since = 0;
    } else if (of.waiting_since == 0) {
        of.waiting_since = time(nullptr);
    }
}

void l2vpn_process::send_waiting(owner &to)
{
    tell_waiting(to);
    note_waiting(to);
}

void l2vpn_process::tell_waiting(owner &to)
{
    try {
        while (to.list(ac_stage::waiting).count > 0 && has_room(to)) {
            if (tell_some(to) != EOK) {
                return;
            }
        }
    } catch (const std::bad_alloc &) {
        return; /* what waits is tried again like that of a full queue */
    }
}

void l2vpn_process::send_all_waiting()
{
    for (owner *o = m_owners.after(0); o != nullptr; o = m_owners.after(o->info.peer_id)) {
        send_waiting(*o);
    }
}

} // namespace l2vpnd
