/*
 * The callbacks of the owners.
 */
#include "subject.h"

#include <cstring>
#include <utility>

namespace simulation {

/* The callbacks of a class's owner. Each knows whose it is, so that one that reaches the wrong owner shows.
 * Arrays are copied and then written over: a client may. */
template <std::uint32_t Owner>
struct subject::callbacks {
    static qerrno on_status(l2vpn_ac_client_hd_t hd, std::uint32_t status, std::uint32_t argument)
    {
        current->called_back(
            Owner, {"callback", {Owner, reinterpret_cast<std::uintptr_t>(hd), status, argument}, "status"});
        return 77;
    }
    static void take(bytes &into, void *array, std::size_t size)
    {
        const auto *from = static_cast<const std::uint8_t *>(array);
        into.insert(into.end(), from, from + size);
        std::memset(array, 0xee, size);
    }
    static qerrno on_prov(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, ifhtype *ifh,
                          l2vpn_ac_xcid_data_t *data, std::uint32_t flags)
    {
        event what{"callback", {Owner, reinterpret_cast<std::uintptr_t>(hd), bulk, flags}, "prov"};
        take(what.data, ifh, bulk * sizeof *ifh);
        take(what.data, data, bulk * sizeof *data);
        current->called_back(Owner, what);
        return 1;
    }
    static qerrno on_unprov(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, ifhtype *ifh, std::uint32_t flags)
    {
        event what{"callback", {Owner, reinterpret_cast<std::uintptr_t>(hd), bulk, flags}, "unprov"};
        take(what.data, ifh, bulk * sizeof *ifh);
        current->called_back(Owner, what);
        return 2;
    }
    static qerrno on_bulk_notify(l2vpn_ac_client_hd_t hd, std::uint32_t bulk, l2vpn_ac_bulk_notify_t *records,
                                 std::uint32_t flags)
    {
        event what{"callback", {Owner, reinterpret_cast<std::uintptr_t>(hd), bulk, flags}, "bulk_notify"};
        take(what.data, records, bulk * sizeof *records);
        current->called_back(Owner, what);
        return 3;
    }
    static qerrno on_hdr_notify(l2vpn_ac_client_hd_t hd, std::uint32_t word2, void *null, std::uint32_t word3)
    {
        current->called_back(Owner, {"callback",
                                     {Owner, reinterpret_cast<std::uintptr_t>(hd), word2, word3},
                                     null == nullptr ? "hdr_notify" : "not null"});
        return 4;
    }

    static l2vpn_ac_callback_vector_t without(std::uint32_t nulls)
    {
        const auto is_null = [nulls](unsigned n) { return (nulls >> n & 1) != 0; };
        return {on_status,
                is_null(1) ? nullptr : on_prov,
                is_null(2) ? nullptr : on_unprov,
                is_null(3) ? nullptr : on_bulk_notify,
                is_null(4) ? nullptr : on_hdr_notify,
                nullptr,
                nullptr};
    }
};

/* `nulls`: bit N set, the N-th entry is null. */
l2vpn_ac_callback_vector_t subject::callbacks_of(std::uint32_t class_id, std::uint32_t nulls)
{
    return [&]<std::uint32_t... Owners>(std::integer_sequence<std::uint32_t, Owners...>)
    {
        l2vpn_ac_callback_vector_t vector{};
        ((Owners == class_id ? void(vector = callbacks<Owners>::without(nulls)) : void()), ...);
        return vector;
    }
    (std::make_integer_sequence<std::uint32_t, class_count>{});
}

void subject::called_back(std::uint32_t class_id, event what)
{
    say(std::move(what));
    const auto found = owners_.find(class_id);
    if (!reacting_ || found == owners_.end() || found->second.reactions.empty())
        return;
    const step reaction = std::move(found->second.reactions.front());
    found->second.reactions.pop_front();
    take(reaction);
}

} // namespace simulation
