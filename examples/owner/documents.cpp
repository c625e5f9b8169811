#include "documents.h"

#include "field.h"
#include "wire.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace owner {

namespace {

using json = nlohmann::ordered_json;

json classes_in(uint32_t class_set)
{
    json classes = json::array();
    for (uint32_t class_id = 0; class_id < L2VPN_AC_CLASS_MAX; ++class_id)
        if ((class_set >> class_id & 1U) != 0)
            classes.push_back(class_id);
    return classes;
}

const char *name_of(field_kind kind)
{
    switch (kind) {
    case field_kind::ipv4:
        return "ipv4";
    case field_kind::text:
        return "text";
    case field_kind::octets:
        return "octets";
    case field_kind::number:
        break;
    }
    return "number";
}

std::string text_of(const json &document)
{
    return document.dump(2) + "\n";
}

} // namespace

std::string document_of_fields()
{
    json fields = json::array();
    for (const field &row : all_fields())
        fields.push_back({{"field", row.key},
                          {"classes", classes_in(row.classes)},
                          {"required", classes_in(row.required)},
                          {"kind", name_of(row.kind)},
                          {"min", row.min},
                          {"max", row.max},
                          {"meaning", row.help}});
    return text_of({{"fields", std::move(fields)}});
}

std::string document_of_expected(const interface_list &interfaces)
{
    json acs = json::array();
    for (const interface_ptr &entry : in_order(interfaces)) {
        const wire_ac ac = wire_form(*entry);
        acs.push_back({{"class", entry->class_id},
                       {"handle", entry->handle},
                       {"name", entry->name},
                       {"definition_raw", to_hex(ac.definition)},
                       {"info_raw", to_hex(ac.info)}});
    }
    return text_of({{"acs", std::move(acs)}});
}

std::string document_of(const std::vector<comparison> &made)
{
    json compared = json::array();
    const auto is_same = [](const comparison &one) { return one.differences.empty(); };
    for (const comparison &one : made)
        compared.push_back({{"table", one.table}, {"same", is_same(one)}, {"differences", one.differences}});
    return text_of({{"same", std::ranges::all_of(made, is_same)}, {"compared", std::move(compared)}});
}

} // namespace owner
