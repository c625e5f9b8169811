/* The owner's inventory: the input is the file. */
#include "owner_input.h"

#include "inventory.h"
#include "wire.h"

#include <set>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    owner::interface_list interfaces;
    const bool right = fuzz::read_text({data, size}, [&](const std::string &path, owner::fault_list &faults) {
        return owner::read_inventory(path, interfaces, faults);
    });
    if (!right)
        return 0;

    FUZZ_CHECK(!interfaces.empty());
    std::set<std::pair<uint32_t, ifhtype>> seen;
    for (const owner::interface_ptr &one : interfaces) {
        FUZZ_CHECK(one->handle != 0 && one->handle != UINT32_MAX);
        FUZZ_CHECK((owner::usable_classes >> one->class_id & 1) != 0);
        FUZZ_CHECK(!one->name.empty() && one->name.size() < 64);
        FUZZ_CHECK(seen.emplace(one->class_id, one->handle).second);

        l2vpn_ac_defn_t defn{};
        l2vpn_ac_info_t info{};
        owner::ac_records records{defn, info};
        for (const owner::interface::given &field : one->fields)
            field.row->store(records, field.value);
        fuzz::read_all(&info, sizeof info);
        const owner::wire_ac wire = owner::wire_form(*one);
        FUZZ_CHECK(wire.definition.size() == 616);
        FUZZ_CHECK(wire.info.size() == owner::wire_info_size(one->class_id));
    }
    return 0;
}
