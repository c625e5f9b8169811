/*
 * What the process does with each message of an owner: one row a type.
 */
#include "process.h"

#include <algorithm>
#include <cinttypes>
#include <l2vpn/l2vpn_ac_msg.h>

namespace l2vpnd {

namespace {

/*
 * A client process has one link a class at a time. Where it has opened another since, what is still read from the
 * one before is from before all that the new one says, though it may come after it. A pid of 0 is not known.
 */
bool is_outdated(const owner &from, const owner &holder)
{
    return from.info.pid != 0 && from.info.pid == holder.info.pid && from.info.peer_id < holder.info.peer_id;
}

} // namespace

/* Only what the decoder lets through comes here: types from owner to process, whole and of the right length. */
const std::array<l2vpn_process::handler_row, message_types> l2vpn_process::s_handlers = {{
    {L2VPN_AC_MSG_JOIN, &l2vpn_process::on_join},
    {1, nullptr},
    {L2VPN_AC_MSG_CREATE, &l2vpn_process::on_create},
    {L2VPN_AC_MSG_UPDATE, &l2vpn_process::on_update},
    {4, nullptr},
    {5, nullptr},
    {L2VPN_AC_MSG_DELETE, &l2vpn_process::on_delete},
    {L2VPN_AC_MSG_PROV, nullptr},
    {L2VPN_AC_MSG_UNPROV, nullptr},
    {L2VPN_MSTP_MSG_VID_MAP, &l2vpn_process::on_vid_map},
    {10, nullptr},
    {L2VPN_MSTP_MSG_STATE, &l2vpn_process::on_state},
    {L2VPN_MSTP_MSG_PROTECTED, &l2vpn_process::on_protected},
    {L2VPN_AC_MSG_BULK_NOTIFY, nullptr},
    {L2VPN_MSTP_MSG_IS_ROOT, &l2vpn_process::on_is_root},
    {L2VPN_AC_MSG_HDR_NOTIFY, nullptr},
    {16, nullptr},
}};

drop l2vpn_process::on_join(owner & /*from*/, const message & /*msg*/, const batch_step & /*step*/)
{
    return drop::none; /* counted, like every message */
}

bool l2vpn_process::fits(const owner &from, const message &msg) const
{
    const uint64_t room = m_acs.max_acs() - m_acs.size();
    if (msg.count <= room) {
        return true;
    }
    /* Only near the limit is it worth telling new ACs from known ones. */
    const ac_store &store = m_acs.store(from.info.class_id);
    uint64_t fresh = 0;
    for (uint32_t i = 0; i < msg.count; i++) {
        fresh += store.find(from.info.nodeid, handle_at(from, msg, i)) == no_slot ? 1 : 0;
    }
    return fresh <= room;
}

/* The handle of a message's AC. Places in the index are rarely in a cache, so they are asked for many at a time. */
uint32_t l2vpn_process::handle_at(const owner &from, const message &msg, uint32_t i) const
{
    constexpr uint32_t at_a_time = 32;
    if (i % at_a_time == 0) {
        const ac_store &store = m_acs.store(from.info.class_id);
        const uint32_t end = std::min(msg.count, i + at_a_time);
        for (uint32_t next = i; next < end; next++) {
            store.expect(from.info.nodeid, msg.handle(next));
        }
    }
    return msg.handle(i);
}

/* The slot of an AC that is to be `from`'s from now on, as good as new and on no list; none where it stays another's. */
uint32_t l2vpn_process::claim(owner &from, uint32_t handle, uint32_t now, uint32_t number)
{
    ac_store &store = m_acs.store(from.info.class_id);
    uint32_t slot = store.find(from.info.nodeid, handle);
    if (slot == no_slot) {
        from.count.acs_created++;
        slot = store.insert(from.info.nodeid, handle, from.slot);
    } else {
        const ac_head &old = store.head(slot);
        owner &holder = m_owners.at(old.owner);
        if (is_outdated(from, holder)) {
            from.count.acs_outdated++;
            m_log.write(
                topic::unknown, LOG_NOTICE,
                "owner %" PRIu64
                " (class %u, node %u): create of AC 0x%08x, which it has said since over a newer link",
                from.info.peer_id, from.info.class_id, from.info.nodeid, handle);
            return no_slot;
        }
        store.remove(holder.list(old.stage), slot);
        (old.owner == from.slot ? from.count.acs_replaced : from.count.acs_taken_over)++;
    }
    ac_head &ac = store.head(slot);
    ac.owner = from.slot;
    ac.created = now;
    ac.message = number;
    ac.provisioned = false;
    ac.wanted = false;
    ac.asker = ac_asker::nobody;
    return slot;
}

drop l2vpn_process::on_create(owner &from, const message &msg, const batch_step &step)
{
    if (!fits(from, msg)) {
        return drop::limit;
    }
    ac_store &store = m_acs.store(from.info.class_id);
    store.reserve(msg.count);
    const auto now = static_cast<uint32_t>(time(nullptr));
    const auto number = static_cast<uint32_t>(from.count.all_received() + 1);
    for (uint32_t i = 0; i < msg.count; i++) {
        const uint32_t slot = claim(from, handle_at(from, msg, i), now, number);
        if (slot == no_slot) {
            continue;
        }
        store.set_definition(slot, msg.definition(i));
        store.set_info(slot, msg.info(i));
        store.head(slot).stage = ac_stage::batched;
        store.append(from.list(ac_stage::batched), slot);
    }
    if (!step.inside) {
        settle(from);
    }
    return drop::none;
}

/* What there is to do when a batch is complete, also if its last message was dropped. */
void l2vpn_process::end_batch(owner &of, uint32_t type)
{
    if (type == L2VPN_AC_MSG_CREATE) {
        settle(of);
    } else if (type == L2VPN_MSTP_MSG_VID_MAP) {
        of.mstp.end_vlans();
    }
}

uint32_t l2vpn_process::find_own(const owner &from, uint32_t handle) const
{
    const ac_store &store = m_acs.store(from.info.class_id);
    const uint32_t slot = store.find(from.info.nodeid, handle);
    return slot != no_slot && store.head(slot).owner == from.slot ? slot : no_slot;
}

drop l2vpn_process::on_update(owner &from, const message &msg, const batch_step & /*step*/)
{
    ac_store &store = m_acs.store(from.info.class_id);
    for (uint32_t i = 0; i < msg.count; i++) {
        const uint32_t slot = find_own(from, handle_at(from, msg, i));
        if (slot != no_slot) {
            store.set_info(slot, msg.info(i));
            from.count.acs_updated++;
        } else {
            from.count.unknown_updates++;
            m_log.write(topic::unknown, LOG_WARNING,
                        "owner %" PRIu64 " (class %u, node %u): update of AC 0x%08x, which it does not have",
                        from.info.peer_id, from.info.class_id, from.info.nodeid, msg.handle(i));
        }
    }
    return drop::none;
}

drop l2vpn_process::on_delete(owner &from, const message &msg, const batch_step & /*step*/)
{
    ac_store &store = m_acs.store(from.info.class_id);
    for (uint32_t i = 0; i < msg.count; i++) {
        const uint32_t slot = find_own(from, handle_at(from, msg, i));
        if (slot != no_slot) {
            store.remove(from.list(store.head(slot).stage), slot);
            store.erase(slot);
            from.count.acs_deleted++;
        } else {
            from.count.unknown_deletes++;
            m_log.write(topic::unknown, LOG_WARNING,
                        "owner %" PRIu64 " (class %u, node %u): delete of AC 0x%08x, which it does not have",
                        from.info.peer_id, from.info.class_id, from.info.nodeid, msg.handle(i));
        }
    }
    return drop::none;
}

drop l2vpn_process::on_vid_map(owner &from, const message &msg, const batch_step &step)
{
    from.mstp.take_vlans(msg, step);
    return drop::none;
}

drop l2vpn_process::on_state(owner &from, const message &msg, const batch_step & /*step*/)
{
    return from.mstp.take_states(msg);
}

drop l2vpn_process::on_protected(owner &from, const message &msg, const batch_step & /*step*/)
{
    return from.mstp.take_protection(msg);
}

drop l2vpn_process::on_is_root(owner &from, const message &msg, const batch_step & /*step*/)
{
    return from.mstp.take_roots(msg);
}

} // namespace l2vpnd
