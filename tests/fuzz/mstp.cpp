/* The owner's MSTP scenario: the input is the file. */
#include "owner_input.h"

#include "field.h"
#include "mstp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    owner::mstp_scenario scenario;
    const bool right = fuzz::read_text({data, size}, [&](const std::string &path, owner::fault_list &faults) {
        return owner::read_mstp(path, scenario, faults);
    });
    if (!right)
        return 0;

    FUZZ_CHECK((owner::usable_classes >> scenario.class_id & 1) != 0 && !scenario.empty());
    for (const l2vpn_msti_root_t &one : scenario.roots)
        FUZZ_CHECK(one.word != 0 && one.word != UINT32_MAX && one.half <= 4094);
    for (const l2vpn_mstp_req_t &one : scenario.ports)
        FUZZ_CHECK(one.word != 0 && one.word != UINT32_MAX && one.half <= 4094 && one.word2 <= 2);
    uint32_t last = 0;
    for (const l2vpn_msti_vid_map_t &one : scenario.vlans) {
        FUZZ_CHECK(one.half <= 4094 && one.half2 > last && one.half2 <= 4094);
        last = one.half2;
    }

    const owner::mstp_wire wire = owner::wire_form(scenario);
    for (const std::string &one : wire.roots)
        FUZZ_CHECK(one.size() == 2 * 8);
    for (const std::string &one : wire.ports)
        FUZZ_CHECK(one.size() == 2 * 96);
    for (const std::string &one : wire.protections)
        FUZZ_CHECK(one.size() == 2 * 72);
    FUZZ_CHECK(wire.msti_of_vlan.size() == scenario.vlans.size());
    return 0;
}
