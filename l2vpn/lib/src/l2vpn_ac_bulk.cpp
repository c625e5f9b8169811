/*
 * One request, from the entry trace to the restored arrays. All of it up to the last send runs under
 * `api_lock`; the caller's handles and definitions are sent from where they lie, so they are in network
 * byte order from the conversion until after the unlock, and restored on every path that converted them.
 */
#include "l2vpn_ac_bulk.h"

#include "l2vpn_ac_class.h"
#include "l2vpn_ac_debug.h"
#include "l2vpn_ac_info.h"
#include "l2vpn_ac_lock.h"
#include "l2vpn_ac_wire.h"

#include <algorithm>
#include <alloca.h>
#include <cerrno>
#include <cstdlib>
#include <sys/mman.h>

namespace {

/* A request, with what the caller gave. */
struct request {
    const l2vpn_ac_kind &kind;
    uint32_t flags;
    uint32_t bulk_size;
    ifhtype *ifh;
    l2vpn_ac_defn_t *defns;
    l2vpn_ac_info_t *infos;
};

/* --- the platform's check ---------------------------------------------------------------------------- */

/* Up to here the entries stand on the stack; a larger request's in a mapping that lives for the call. */
constexpr uint32_t stack_entries_max = 16384;

qerrno check(const request &req, const l2vpn_ac_client_ctx *ctx, l2vpn_ac_data_entry_t *entries)
{
    static_assert(sizeof *entries == 8 && offsetof(l2vpn_ac_data_entry_t, spare) == 4);
    l2vpn_ac_spread_words(req.ifh, req.bulk_size, reinterpret_cast<std::byte *>(entries));
    const qerrno rc = l2vpn_ac_data_sanitize(ctx->class_id, entries, req.defns, req.infos, req.bulk_size);
    return rc == EOK || req.kind.refused == EOK ? rc : req.kind.refused;
}

qerrno check_on_stack(const request &req, const l2vpn_ac_client_ctx *ctx)
{
    /* One more than asked for: an empty request is checked too, with entries that are not null. */
    return check(req, ctx,
                 static_cast<l2vpn_ac_data_entry_t *>(
                     alloca((size_t{req.bulk_size} + 1) * sizeof(l2vpn_ac_data_entry_t))));
}

/* From an eighth of it on one huge page costs less than the small ones. */
constexpr uint64_t huge_page = 2u << 20;

constexpr uint64_t round_up(uint64_t value, uint64_t to)
{
    return (value + to - 1) / to * to;
}

uint64_t mapping_size(uint32_t entries)
{
    const uint64_t size = uint64_t{entries} * sizeof(l2vpn_ac_data_entry_t);
    return size < huge_page / 8 ? size : round_up(size, huge_page);
}

qerrno check_in_mapping(const request &req, const l2vpn_ac_client_ctx *ctx)
{
    const uint64_t wanted = mapping_size(req.bulk_size);
    /* Not every kernel places a mapping where its huge pages begin. What is asked for more is never touched. */
    const uint64_t spare = wanted < huge_page ? 0 : huge_page;
    /* Where an address has 32 bits the size may not fit; the largest that does is always refused. */
    const auto size = static_cast<size_t>(std::min(wanted + spare, uint64_t{SIZE_MAX}));
    void *const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return ENOMEM;
    auto *entries = static_cast<l2vpn_ac_data_entry_t *>(memory);
    if (spare > 0) {
        const auto begin = round_up(reinterpret_cast<uintptr_t>(memory), huge_page);
        entries = reinterpret_cast<l2vpn_ac_data_entry_t *>(static_cast<uintptr_t>(begin));
        (void)madvise(entries, static_cast<size_t>(wanted), MADV_HUGEPAGE);
    }
    const qerrno rc = check(req, ctx, entries);
    munmap(memory, size);
    return rc;
}

/* --- back from the wire ------------------------------------------------------------------------------ */

void restore_arrays(const request &req, const l2vpn_ac_class_row &row)
{
    l2vpn_ac_convert_words(req.ifh, req.bulk_size);
    if (req.kind.has_defns)
        row.restore_defns(req.defns, req.bulk_size);
}

/* --- the two ways a request goes on after the check -------------------------------------------------- */

qerrno send_empty(const request &req, l2vpn_ac_client_ctx *ctx)
{
    const l2vpn_ac_kind &kind = req.kind;
    if (kind.empty == l2vpn_ac_empty::nothing)
        return EOK;

    const bool with_flags = kind.empty == l2vpn_ac_empty::header_with_flags;
    qerrno rc = l2vpn_ac_send_header(ctx, {L2VPN_AC_HDR_MARK, kind.msg_type, 0, with_flags ? req.flags : 0});
    if (rc != EOK) {
        rc = l2vpn_ac_send_failed(ctx, rc);
        L2VPN_AC_DEBUG(kind.function, kind.empty_failed_text, qerr_strerror(rc));
    }
    if (kind.marking.batch != nullptr)
        *kind.marking.batch = 0;
    return rc;
}

/* The information messages of a request, where its kind has them. */
struct info_msgs {
    l2vpn_ac_info_msg_t *array = nullptr;
    ~info_msgs() { free(array); }
};

qerrno prepare(const request &req, const l2vpn_ac_client_ctx *ctx, info_msgs &msgs)
{
    if (!req.kind.has_infos)
        return EOK;
    const qerrno rc = l2vpn_ac_info_to_msg(ctx->class_id, req.bulk_size, req.infos, &msgs.array,
                                           req.kind.has_defns ? req.defns : nullptr);
    if (rc != EOK)
        L2VPN_AC_DEBUG(req.kind.function, "Failed to convert l2vpn_ac_info_t struct:%s", qerr_strerror(rc));
    return rc;
}

qerrno send_acs(const request &req, l2vpn_ac_client_ctx *ctx, l2vpn_ac_lock &lock)
{
    const l2vpn_ac_kind &kind = req.kind;
    const uint32_t word = l2vpn_ac_open_marks(kind.marking, req.flags);

    const l2vpn_ac_class_row *const row = l2vpn_ac_class_find(ctx->class_id);
    info_msgs msgs;
    qerrno rc = prepare(req, ctx, msgs);
    if (rc != EOK)
        return rc;
    if (l2vpn_ac_class_find(ctx->class_id) == nullptr) { /* that of now, not the one that was prepared for */
        l2vpn_ac_report_bad_class(kind.function, __LINE__, ctx->class_id);
        if (kind.has_defns)
            row->restore_defns(req.defns, req.bulk_size);
        return EINVAL;
    }

    l2vpn_ac_pieces pieces = {};
    pieces.piece[pieces.count++] = {reinterpret_cast<std::byte *>(req.ifh), L2VPN_AC_IFH_LEN, false};
    if (kind.has_defns)
        pieces.piece[pieces.count++] = {reinterpret_cast<std::byte *>(req.defns), sizeof(l2vpn_ac_defn_t),
                                        false};
    if (kind.has_infos)
        pieces.piece[pieces.count++] = {reinterpret_cast<std::byte *>(msgs.array), row->info_size, true};

    l2vpn_ac_convert_words(req.ifh, req.bulk_size);
    rc = l2vpn_ac_send_records(ctx, kind.msg_type, kind.marking, req.flags, word,
                               s_l2vpn_ac_global.*kind.limit, pieces, req.bulk_size);
    const bool sent = rc == EOK;
    if (sent)
        l2vpn_ac_close_marks(kind.marking, req.flags);
    else
        rc = l2vpn_ac_send_failed(ctx, rc);
    lock.unlock();

    restore_arrays(req, *row);
    if (!sent)
        L2VPN_AC_DEBUG(kind.function, kind.failed_text, qerr_strerror(rc));
    return rc;
}

bool arrays_are_missing(const request &req)
{
    return req.bulk_size > 0 && (req.ifh == nullptr || (req.kind.has_defns && req.defns == nullptr) ||
                                 (req.kind.has_infos && req.infos == nullptr));
}

} // namespace

qerrno l2vpn_ac_bulk_send(const l2vpn_ac_kind &kind, l2vpn_ac_client_hd_t hd, uint32_t flags,
                          uint32_t bulk_size, ifhtype *ifh, l2vpn_ac_defn_t *defns, l2vpn_ac_info_t *infos)
{
    L2VPN_AC_TRACE(kind.trace_id, kind.function, "%p 0x%x %u", static_cast<void *>(hd), flags, bulk_size);

    l2vpn_ac_lock lock(s_l2vpn_ac_global.api_lock, kind.function);
    const l2vpn_ac_client_use client(hd);
    if (!client) {
        lock.unlock();
        if (kind.not_found_text != nullptr)
            L2VPN_AC_DEBUG(kind.function, "%s", kind.not_found_text);
        return kind.not_found;
    }

    const request req = {kind, flags, bulk_size, ifh, defns, infos};
    if (arrays_are_missing(req))
        return EINVAL;
    const qerrno rc = bulk_size <= stack_entries_max ? check_on_stack(req, client.get())
                                                     : check_in_mapping(req, client.get());
    if (rc != EOK)
        return rc;
    L2VPN_AC_DEBUG(kind.function, "Flags from AC_class=%d: 0x%x bulk_size=%d", client->class_id, flags,
                   bulk_size);
    return bulk_size == 0 ? send_empty(req, client.get()) : send_acs(req, client.get(), lock);
}
