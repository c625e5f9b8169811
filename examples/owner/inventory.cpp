#include "inventory.h"

#include "csv.h"

#include <algorithm>
#include <unordered_map>

namespace owner {

namespace {

constexpr std::size_t max_name_bytes = 63; /* the process reads 64, the last of them NUL */
constexpr std::string_view fixed_columns[] = {"name", "class", "handle"};
constexpr std::size_t fixed_count = std::size(fixed_columns);
constexpr std::string_view pairs_column = "fields";

class reader {
public:
    reader(interface_list &interfaces, fault_list &faults) : interfaces_(interfaces), faults_(faults) {}

    void read(const std::vector<std::string> &lines);

private:
    void header(const std::vector<csv_cell> &cells);
    void row(const std::vector<csv_cell> &cells);
    void field_cell(const csv_cell &cell, std::size_t index, interface &entry);
    void add_field(const csv_cell &cell, std::string_view key, std::string_view text, interface &entry);
    void check_required(const interface &entry);
    void check_unique(const interface &entry);
    void fault(const csv_cell &cell, std::string_view what, const std::string &why)
    {
        faults_.add(line_, cell.column, std::string(what) + ": " + why);
    }

    interface_list &interfaces_;
    fault_list &faults_;
    std::size_t line_ = 0;
    std::vector<std::string> columns_;                     // of the header, without the fixed ones
    std::unordered_map<uint64_t, std::size_t> seen_lines_; // class and handle: the line that has them
};

void reader::read(const std::vector<std::string> &lines)
{
    bool have_header = false;
    std::vector<csv_cell> cells;
    for (const std::string &line : lines) {
        ++line_;
        const std::string_view text = trim(line);
        if (text.empty() || text.starts_with('#'))
            continue;
        std::size_t column = 0;
        if (std::string why = check_text(line, line.size()); !why.empty()) {
            faults_.add(line_, 0, "line: " + why);
        } else if (why = split_csv(line, cells, column); !why.empty()) {
            faults_.add(line_, column, why);
        } else if (have_header) {
            row(cells);
        } else {
            header(cells);
            have_header = true;
            if (!faults_.empty())
                return;
        }
    }
    if (!faults_.empty())
        return;
    if (!have_header)
        faults_.add(0, 0, "is empty; it begins with a header line: name,class,handle,fields");
    else if (interfaces_.empty())
        faults_.add(0, 0, "lists no interface");
}

void reader::header(const std::vector<csv_cell> &cells)
{
    for (std::size_t at = 0; at < fixed_count; ++at)
        if (at >= cells.size() || cells[at].text != fixed_columns[at]) {
            faults_.add(line_, at < cells.size() ? cells[at].column : 0,
                        "header: column " + std::to_string(at + 1) + " is not '" +
                            std::string(fixed_columns[at]) + "'; a header begins with name,class,handle");
            return;
        }
    for (std::size_t at = fixed_count; at < cells.size(); ++at) {
        const std::string &name = cells[at].text;
        if (name == pairs_column && at + 1 != cells.size())
            fault(cells[at], name, "is the last column when there is one");
        else if (name != pairs_column && !known_field(name))
            fault(cells[at], "header", quoted(name) + " is no field");
        else if (std::find(columns_.begin(), columns_.end(), name) != columns_.end())
            fault(cells[at], "header", quoted(name) + " is given twice");
        columns_.push_back(name);
    }
}

void reader::row(const std::vector<csv_cell> &cells)
{
    if (cells.size() < fixed_count) {
        faults_.add(line_, 0, std::string(fixed_columns[cells.size()]) + ": is missing");
        return;
    }
    auto entry = std::make_shared<interface>();
    entry->name = cells[0].text;
    std::string why = check_text(entry->name, max_name_bytes);
    if (entry->name.empty())
        why = "is missing";
    if (!why.empty())
        fault(cells[0], "name", why);

    uint64_t number = 0;
    why = parse_number(cells[1].text, 0, L2VPN_AC_CLASS_MAX - 1, number);
    if (why.empty() && (usable_classes >> number & 1U) == 0)
        why = quoted(cells[1].text) + " is a class that no owner can use";
    if (!why.empty()) {
        fault(cells[1], "class", why);
        return; // which fields there are depends on it
    }
    entry->class_id = static_cast<uint32_t>(number);

    why = parse_number(cells[2].text, 1, 0xFFFFFFFE, number);
    if (!why.empty())
        fault(cells[2], "handle", why);
    entry->handle = static_cast<ifhtype>(number);

    for (std::size_t at = fixed_count; at < cells.size(); ++at)
        field_cell(cells[at], at - fixed_count, *entry);
    check_required(*entry);
    if (why.empty())
        check_unique(*entry);
    interfaces_.push_back(std::move(entry));
}

// A cell below a named column holds that field's value, any other cell a key=value pair.
void reader::field_cell(const csv_cell &cell, std::size_t index, interface &entry)
{
    if (cell.text.empty())
        return;
    if (index < columns_.size() && columns_[index] != pairs_column)
        return add_field(cell, columns_[index], cell.text, entry);
    const std::size_t equals = cell.text.find('=');
    if (columns_.empty() || columns_.back() != pairs_column)
        fault(cell, quoted(cell.text), "lies behind the last column of the header");
    else if (equals == std::string::npos)
        fault(cell, quoted(cell.text), "is not of the form key=value");
    else
        add_field(cell, trim(std::string_view(cell.text).substr(0, equals)),
                  trim(std::string_view(cell.text).substr(equals + 1)), entry);
}

void reader::add_field(const csv_cell &cell, std::string_view key, std::string_view text, interface &entry)
{
    const field *const row = find_field(key, entry.class_id);
    if (row == nullptr) {
        if (known_field(key))
            fault(cell, key, "class " + std::to_string(entry.class_id) + " has no such field");
        else
            fault(cell, quoted(key), "is no field");
        return;
    }
    for (const interface::given &other : entry.fields)
        if (other.row == row)
            return fault(cell, key, "is given twice");
    interface::given field {
        row, {}
    };
    if (const std::string why = parse_value(*row, text, field.value); !why.empty())
        fault(cell, key, why);
    entry.fields.push_back(std::move(field)); // also a wrong one: it is not missing
}

void reader::check_required(const interface &entry)
{
    for (const field &row : all_fields()) {
        if ((row.required >> entry.class_id & 1U) == 0)
            continue;
        const bool given = std::any_of(entry.fields.begin(), entry.fields.end(),
                                       [&](const interface::given &field) { return field.row == &row; });
        if (!given)
            faults_.add(line_, 0,
                        std::string(row.key) + ": is missing; class " + std::to_string(entry.class_id) +
                            " needs it");
    }
}

void reader::check_unique(const interface &entry)
{
    const uint64_t key = uint64_t{entry.class_id} << 32U | entry.handle;
    const auto [found, inserted] = seen_lines_.emplace(key, line_);
    if (!inserted)
        faults_.add(line_, 0,
                    "handle: " + std::to_string(entry.handle) + " of class " +
                        std::to_string(entry.class_id) + " is that of line " + std::to_string(found->second));
}

} // namespace

bool read_inventory(const std::string &path, interface_list &interfaces, fault_list &faults)
{
    std::vector<std::string> lines;
    if (!read_lines(path, lines, faults))
        return false;
    reader(interfaces, faults).read(lines);
    return faults.empty();
}

} // namespace owner
