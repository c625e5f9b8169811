#include "request.h"

#include <cstring>

namespace owner {

void request_arrays::fill(std::span<const interface_ptr> entries)
{
    handles.clear();
    defns.assign(entries.size(), l2vpn_ac_defn_t{});
    infos.assign(entries.size(), l2vpn_ac_info_t{});
    for (std::size_t at = 0; at < entries.size(); ++at) {
        const interface &entry = *entries[at];
        handles.push_back(entry.handle);
        std::memcpy(defns[at].opaque, entry.name.data(), entry.name.size());
        ac_records records{defns[at], infos[at]};
        for (const interface::given &given : entry.fields)
            given.row->store(records, given.value);
    }
}

} // namespace owner
