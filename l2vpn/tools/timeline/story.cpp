#include "story.h"

#include <cerrno>

namespace l2vpnctl {

using namespace l2vpn::capture;

namespace {

/* A part is unpacked as a whole when one of its records is looked at. */
constexpr uint64_t part_records = 256;
constexpr size_t part_size = size_t{512} << 10;
constexpr uint32_t unknown_type = UINT32_MAX;

enum row_bits : uint64_t {
    bit_to_owner = 4, /* below it, the kind */
    bit_failed = 8,
    bit_malformed = 16,
    bit_begin = 32,
    bit_end = 64,
    bit_cut = 128,
};

enum batch_end : uint64_t { batch_closed, batch_left_open, batch_abandoned };

uint64_t bits_of(const captured &record, const reading &message)
{
    const record_head &head = record.head;
    uint64_t bits = static_cast<uint64_t>(head.kind) - 1;
    const bool is_own_end = head.kind == record_kind::link_down && head.status == ECANCELED;
    const auto add = [&bits](bool is, uint64_t bit) { bits |= is ? bit : 0; };
    add(head.direction == flow::to_owner, bit_to_owner);
    add(head.status != 0 && !is_own_end, bit_failed);
    add(message.fault != nullptr, bit_malformed);
    add(message.is_cut, bit_cut);
    if (message.row != nullptr && message.row->batched()) {
        add((message.words[1] & message.row->begin_bit) != 0, bit_begin);
        add((message.words[1] & message.row->end_bit) != 0, bit_end);
    }
    return bits;
}

} // namespace

/* Of each run, because each counts its links from 1. */
link_id story::link_of(const captured &record) const
{
    return {static_cast<uint32_t>(m_run), record.head.link};
}

void story::take_run(const recorders::place &at, const captured &record)
{
    if (at.is_new) {
        m_runs.push_back({record.head.by == observer::process ? ++m_processes : 0, m_records, m_records});
    }
    m_run = at.recorder;
    m_runs[m_run].last = m_records;
}

/* A client's links of one class, one after the other, are one lane. */
uint64_t story::lane_of(const captured &record)
{
    const record_head &head = record.head;
    const bool by_owner = head.by == observer::owner;
    const auto [lane, is_new] =
        m_lanes.try_emplace(lane_key{m_run, head.pid, head.nodeid, head.class_id}, m_lanes.size());
    if (is_new) {
        const size_t length = std::string_view(head.name.data(), head.name.size()).find('\0');
        const auto *name = reinterpret_cast<const uint8_t *>(head.name.data());
        m_lane_rows.push_back({{"owners", json::array()},
                               {"program", l2vpnd::to_text({name, std::min(length, head.name.size())})},
                               {"pid", head.pid},
                               {"uid", head.uid},
                               {"class", head.class_id},
                               {"node", head.nodeid},
                               {"run", m_run},
                               {"by", by_owner ? "owner" : "process"}});
    }
    if (m_lane_of_link.try_emplace(link_of(record), lane->second).second) {
        m_lane_rows[lane->second]["owners"].push_back(head.link);
    }
    return lane->second;
}

uint64_t story::type_of(const reading &message)
{
    /* The page has room for so many: all that are unknown are one. */
    const uint32_t code = message.row != nullptr ? message.type : unknown_type;
    const auto [type, is_new] = m_types.try_emplace(code, m_types.size());
    if (is_new) {
        m_type_names.push_back(message.row != nullptr ? message.row->name : "unknown type");
    }
    return type->second;
}

void story::add_batch(const told_batch &batch, uint64_t end, uint64_t last)
{
    m_batches.add(m_lane_of_link[batch.link]);
    m_batches.add(m_types[batch.type]);
    m_batches.add(batch.first);
    m_batches.add(last);
    m_batches.add(end);
    m_batch_count++;
}

void story::take_batches(const captured &record, const reading &message)
{
    const link_id link = link_of(record);
    const bool is_down = record.head.kind == record_kind::link_down;
    std::vector<told_batch> ended;
    if (is_down) {
        m_account.down(link, ended);
    } else if (record.head.kind != record_kind::link_refused && record.head.link != 0) {
        if (m_up.insert(link).second) {
            m_account.up(link, record);
        }
        if (has_arrived(record, flow::to_process) && message.is_sound()) {
            m_account.follow(link, record, message, m_records, ended);
        }
    }
    for (const told_batch &batch : ended) {
        add_batch(batch, is_down ? batch_abandoned : batch_closed, m_records);
    }
}

void story::add_named(const captured &record, const reading &message)
{
    const record_head &head = record.head;
    std::vector<uint64_t> found;
    for (uint32_t i = 0; i < message.count; i++) {
        const std::optional<uint32_t> handle = handle_in(record, message, i);
        std::string name = name_in(record, message, i);
        if (!handle && name.empty()) {
            if (message.is_cut) {
                break; /* from here on nothing was kept */
            }
            continue;
        }
        const uint32_t number = handle.value_or(0);
        if (handle) {
            std::string &known = m_names[{head.nodeid, head.class_id, number}];
            known = name.empty() ? known : name;
            name = known;
        }
        const auto [place, is_new] =
            m_named.try_emplace({head.nodeid, head.class_id, number, name}, m_named.size());
        if (is_new) {
            m_handles.add(number);
            m_named_names += name + "\n";
        }
        found.push_back(place->second);
    }
    m_rows.add(found.size());
    int64_t before = 0;
    for (const uint64_t id : found) {
        m_rows.add_signed(static_cast<int64_t>(id) - before);
        before = static_cast<int64_t>(id);
    }
}

void story::add_details(const captured &record, const reading &message)
{
    if (m_in_part == 0) {
        m_parts.push_back(m_records);
    }
    m_details += to_lines(record, message, detail::records, false);
    m_details += '\0';
    m_in_part++;
    if (m_in_part == part_records || m_details.size() >= part_size) {
        end_part();
    }
}

void story::end_part()
{
    if (m_in_part > 0) {
        m_part(base64(deflated(m_details)));
        m_details.clear();
        m_in_part = 0;
    }
}

void story::take(size_t source, const captured &record, uint64_t lost)
{
    const recorders::place at = m_recorders.take(source, record);
    take_run(at, record);
    const reading message = read(record);
    m_first_time = m_records == 0 ? record.time : m_first_time;
    m_latest_time = m_records == 0 ? record.time : m_latest_time;
    m_lost += lost;
    m_rows.add_signed(static_cast<int64_t>(record.time - m_latest_time));
    m_rows.add(lane_of(record));
    m_rows.add(bits_of(record, message));
    m_rows.add(record.head.kind == record_kind::message ? type_of(message) : 0);
    m_rows.add(message.count);
    m_rows.add(record.head.length);
    m_rows.add(at.is_new ? 0 : at.missing);
    add_named(record, message);
    take_batches(record, message);
    add_details(record, message);
    m_latest_time = record.time;
    m_records++;
}

std::vector<std::pair<const char *, std::string>> story::finish(const std::string &title, uint64_t lost)
{
    end_part();
    for (const told_batch &batch : m_account.open()) {
        add_batch(batch, batch_left_open, m_runs[batch.link.observer].last);
    }
    json runs = json::array();
    for (const run &one : m_runs) {
        runs.push_back({{"process", one.process}, {"first", one.first}, {"last", one.last}});
    }
    const json about = {{"title", title},
                        {"program", "l2vpnctl " L2VPN_VERSION},
                        {"records", m_records},
                        {"lost", m_lost + lost},
                        {"began", std::to_string(m_first_time)}, /* more than a number of the page holds */
                        {"runs", runs},
                        {"lanes", m_lane_rows},
                        {"types", m_type_names},
                        {"named", m_named.size()},
                        {"batches", m_batch_count},
                        {"parts", m_parts}};
    return {{"about", l2vpnd::to_line(about)},
            {"rows", m_rows.bytes()},
            {"handles", m_handles.bytes()},
            {"names", m_named_names},
            {"batches", m_batches.bytes()}};
}

} // namespace l2vpnctl
