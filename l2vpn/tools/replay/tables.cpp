#include "tables.h"

#include <algorithm>
#include <cinttypes>

namespace l2vpnctl {

namespace {

std::string text_of(const json &row, const char *key)
{
    const auto found = row.find(key);
    return found == row.end() ? "?" : found->is_string() ? found->get<std::string>() : found->dump();
}

std::string hex_of(const json &row, const char *key)
{
    const auto found = row.find(key);
    const uint64_t number = found == row.end() ? 0 : whole_number(*found);
    char text[20];
    snprintf(text, sizeof text, "0x%08" PRIx64, number);
    return text;
}

std::string owner_of(const json &row)
{
    return row.contains("owner") ? " of owner " + text_of(row, "owner")
                                 : " of class " + text_of(row, "class") + ", node " + text_of(row, "node");
}

std::string ac_key(const json &row)
{
    return "AC " + hex_of(row, "handle") + " of class " + text_of(row, "class") + ", node " +
           text_of(row, "node");
}

std::string mstp_key(const json &row)
{
    const std::string kind = text_of(row, "kind");
    const std::string of = owner_of(row);
    if (kind == "vlan") {
        return "VLAN " + text_of(row, "vlan") + of;
    }
    return kind + " " +
           (kind == "protection" ? "'" + text_of(row, "name") + "'"
                                 : hex_of(row, "handle") + " MSTI " + text_of(row, "msti")) +
           of;
}

std::string batch_key(const json &row)
{
    return "open batch " + text_of(row, "type") + owner_of(row);
}

constexpr const char *s_raw = "_raw";

bool is_raw(const std::string &name)
{
    return name == "raw" || name.ends_with(s_raw);
}

/* Each value that is expected and is not there, by name, nested ones with a dot. */
void differing(const json &expected, const json &found, const std::string &prefix,
               std::vector<std::string> &out)
{
    for (const auto &[name, value] : expected.items()) {
        const json there = found.value(name, json());
        if (there == value) {
            continue;
        }
        if (value.is_object() && there.is_object()) {
            differing(value, there, prefix + name + ".", out);
        } else if (!is_raw(name)) {
            out.push_back(prefix + name + " is " + there.dump() + ", not " + value.dump());
        } else if (out.empty() && value.is_string() && there.is_string()) {
            /* Only what no field above has told. */
            const auto &one = value.get_ref<const std::string &>();
            const auto &other = there.get_ref<const std::string &>();
            const auto first = std::ranges::mismatch(one, other).in1 - one.begin();
            out.push_back(name.substr(0, name.find(s_raw)) + " differs from byte " +
                          std::to_string(first / 2) + " on");
        } else if (out.empty()) {
            out.push_back(name + " differs");
        }
    }
}

void compare_rows(const char *table, const table_rows &expected, const table_rows &found,
                  std::vector<difference> &out)
{
    for (const auto &[key, row] : expected) {
        const auto there = found.find(key);
        if (there == found.end()) {
            out.push_back({table, key + " is missing", row, nullptr});
            continue;
        }
        std::vector<std::string> values;
        differing(row, there->second, "", values);
        if (!values.empty()) {
            std::string text = key;
            for (const std::string &value : values) {
                text += (&value == values.data() ? ": " : "; ") + value;
            }
            out.push_back({table, text, row, there->second});
        }
    }
    for (const auto &[key, row] : found) {
        if (!expected.contains(key)) {
            out.push_back({table, key + " is there, and should not be", nullptr, row});
        }
    }
}

} // namespace

const std::array<table_kind, table_count> table_kinds = {{
    {"show acs", "acs", ac_key, {"xcid"}},
    {"show mstp", "mstp", mstp_key, {"node", "class"}},
    {"show batches", "batches", batch_key, {"since"}},
}};

uint64_t whole_number(const json &value)
{
    return value.get_ref<const json::number_unsigned_t &>();
}

void tables::add(size_t kind, json row)
{
    const std::string key = table_kinds[kind].key(row);
    for (const std::string_view name : table_kinds[kind].ignored) {
        row.erase(std::string(name));
    }
    of[kind]->insert_or_assign(key, std::move(row));
}

std::vector<difference> compare(const tables &expected, const tables &found)
{
    std::vector<difference> out;
    for (size_t i = 0; i < table_count; i++) {
        if (expected.of[i] && found.of[i]) {
            compare_rows(table_kinds[i].rows, *expected.of[i], *found.of[i], out);
        }
    }
    return out;
}

} // namespace l2vpnctl
