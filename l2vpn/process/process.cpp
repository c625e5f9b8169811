#include "process.h"

#include "probe.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cinttypes>
#include <new>
#include <platform/debug.h>

namespace l2vpnd {

namespace {

constexpr size_t shown_bytes = 32; /* of a dropped message, in the log */

void add(counters &sum, const counters &more)
{
    using words = std::array<uint64_t, sizeof(counters) / sizeof(uint64_t)>;
    auto to = std::bit_cast<words>(sum);
    const auto from = std::bit_cast<words>(more);
    std::transform(to.begin(), to.end(), from.begin(), to.begin(), std::plus<>());
    sum = std::bit_cast<counters>(to);
}

} // namespace

l2vpn_process::l2vpn_process(const process_options &options, transport &out, event_log &log)
    : m_options(options), m_out(out), m_log(log), m_acs(options.max_acs), m_mstp_budget{options.max_mstp},
      m_owners(options.max_owners), m_since(time(nullptr))
{
}

qerrno l2vpn_process::accept(l2vpn_ipc_peer_t peer, const l2vpn_ipc_peer_info_t &info, owner **made)
{
    const class_row *cls = find_class(info.class_id);
    qerrno status = EOK;
    if (cls == nullptr || !cls->valid) {
        status = EINVAL;
    } else if (m_owners.full()) {
        status = EUSERS;
    }
    if (status != EOK) {
        m_owners_refused++;
        m_log.write(topic::owners, LOG_WARNING, "owner refused (class %u, node %u, pid %d, uid %u): %s",
                    info.class_id, info.nodeid, static_cast<int>(info.pid), info.uid,
                    status == EINVAL ? "no such class" : "too many owners");
        return status;
    }
    try {
        owner &fresh = m_owners.add(peer, info, m_mstp_budget);
        try {
            client_links none{{}, 0};
            none.latest.fill(no_slot);
            client_links &links = m_links.try_emplace(client_of(fresh), none).first->second;
            links.latest[info.class_id] = fresh.slot;
            links.count++;
        } catch (...) {
            m_owners.remove(fresh);
            throw;
        }
        *made = &fresh;
    } catch (const std::bad_alloc &) {
        m_owners_refused++;
        return ENOMEM;
    }
    know_again(**made);
    m_owners_seen++;
    m_log.write(topic::owners, LOG_INFO, "owner %" PRIu64 ": here (class %u, node %u, pid %d, uid %u)",
                info.peer_id, info.class_id, info.nodeid, static_cast<int>(info.pid), info.uid);
    return EOK;
}

drop l2vpn_process::take(owner &from, bytes raw, message &msg)
{
    const drop reason = decode(from.info.class_id, raw, msg);
    if (reason != drop::none) {
        return reason;
    }
    const batch_step step = from.batch.follow(*msg.row, msg.flags, msg.count, from.count.batch);
    L2VPN_PROBE(l2vpnd, batch, from.info.peer_id, from.info.class_id, msg.row->type, msg.count,
                uint32_t{step.opened}, uint32_t{step.closed});
    drop result = drop::none;
    try {
        result = (this->*s_handlers[msg.row->type].fn)(from, msg, step);
    } catch (const std::bad_alloc &) {
        result = drop::memory;
    }
    if (step.ends) {
        end_batches(from, msg.row->type, step);
    }
    return result;
}

/* All links of one client process go by its pid, where the kernel knows one. */
uint64_t l2vpn_process::client_of(const owner &o)
{
    return o.info.pid > 0 ? static_cast<uint64_t>(o.info.pid) : (uint64_t{1} << 32 | o.slot);
}

void l2vpn_process::know_again(owner &fresh)
{
    if (const auto past = m_ended.extract({fresh.info.pid, fresh.info.class_id, fresh.info.nodeid})) {
        fresh.reconnects = past.mapped().links;
        m_reconnects++;
    }
}

void l2vpn_process::remember(const owner &gone) noexcept
try {
    if (gone.info.pid <= 0) {
        return;
    }
    m_ended[{gone.info.pid, gone.info.class_id, gone.info.nodeid}] = {gone.reconnects + 1, ++m_ends};
    if (m_ended.size() > m_options.max_owners) {
        m_ended.erase(
            std::ranges::min_element(m_ended, {}, [](const auto &ended) { return ended.second.when; }));
    }
} catch (const std::bad_alloc &) {
    return; /* it counts as another */
}

/* Ends what a message ends: its own batch, and those of its type on the same client's other links. Needs no
 * memory, so that a message that found none still ends what it ends. */
void l2vpn_process::end_batches(owner &from, uint32_t type, const batch_step &step)
{
    if (step.closed) {
        end_batch(from, type);
    }
    for (const uint32_t slot : m_links.at(client_of(from)).latest) {
        if (slot != no_slot && slot != from.slot && m_owners.at(slot).batch.of(type).open) {
            owner &other = m_owners.at(slot);
            other.batch.close(type, other.count.batch);
            end_batch(other, type);
        }
    }
}

void l2vpn_process::received(owner &from, bytes raw)
{
    message msg{};
    const drop reason = take(from, raw, msg);
    from.count.bytes_received += raw.size();
    const uint32_t type = raw.size() >= hdr_len ? get32(raw.data() + 4) : 0;
    if (reason == drop::none) {
        gen_ltrace(trace_received, "received: owner %" PRIu64 " class %u type %u bytes %zu",
                   from.info.peer_id, from.info.class_id, type, raw.size());
        from.count.received[msg.row->type]++;
        from.count.records[msg.row->type] += msg.count;
        return;
    }
    gen_ltrace(trace_dropped, "dropped: owner %" PRIu64 " class %u type %u bytes %zu: %s", from.info.peer_id,
               from.info.class_id, type, raw.size(), drop_text(reason));
    from.count.dropped[static_cast<size_t>(reason)]++;

    static constexpr char digits[] = "0123456789abcdef";
    char hex[2 * shown_bytes + 1] = "";
    const size_t shown = std::min(raw.size(), shown_bytes);
    for (size_t i = 0; i < shown; i++) {
        hex[2 * i] = digits[raw[i] >> 4];
        hex[2 * i + 1] = digits[raw[i] & 15];
    }
    hex[2 * shown] = '\0';
    m_log.write(topic::dropped, LOG_WARNING,
                "owner %" PRIu64 " (class %u, node %u, pid %d): message of %zu bytes dropped: %s: %s%s",
                from.info.peer_id, from.info.class_id, from.info.nodeid, static_cast<int>(from.info.pid),
                raw.size(), drop_text(reason), hex, shown < raw.size() ? "..." : "");
}

void l2vpn_process::closed(owner &gone, qerrno reason)
{
    ac_store &store = m_acs.store(gone.info.class_id);
    const uint64_t withdrawn = gone.ac_count();
    for (const ac_list &list : gone.acs) {
        for (uint32_t slot = list.first, left = list.count; left > 0; left--) {
            const uint32_t next = store.head(slot).next;
            store.erase(slot);
            slot = next;
        }
    }
    gone.count.acs_withdrawn += withdrawn;
    const auto links = m_links.find(client_of(gone));
    uint32_t &latest = links->second.latest[gone.info.class_id];
    latest = latest == gone.slot ? no_slot : latest;
    if (--links->second.count == 0) {
        m_links.erase(links);
    }
    gone.batch.abandon(gone.count.batch);
    m_log.write(topic::owners, reason == EOK ? LOG_INFO : LOG_WARNING,
                "owner %" PRIu64 ": gone (class %u, node %u, pid %d): %s; %" PRIu64 " ACs withdrawn",
                gone.info.peer_id, gone.info.class_id, gone.info.nodeid, static_cast<int>(gone.info.pid),
                reason == EOK ? "link closed" : qerr_strerror(reason), withdrawn);
    add(m_gone, gone.count);
    remember(gone);
    m_owners.remove(gone);
}

counters l2vpn_process::totals() const
{
    counters sum = m_gone;
    for (const owner *o = m_owners.after(0); o != nullptr; o = m_owners.after(o->info.peer_id)) {
        add(sum, o->count);
    }
    return sum;
}

} // namespace l2vpnd
