#include "print.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <nlohmann/json.hpp>

namespace l2vpn::trace_reader {
namespace {

constexpr std::uint64_t second = 1'000'000'000;

/* 2026-01-31T23:59:59.123456789Z */
std::string time_text(std::uint64_t wall)
{
    const auto seconds = static_cast<std::time_t>(wall / second);
    std::tm parts{};
    std::array<char, 64> text{};
    if (::gmtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%FT%T", &parts) == 0) {
        return std::to_string(wall);
    }
    std::array<char, 16> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%09uZ", static_cast<unsigned>(wall % second));
    return std::string(text.data()) + fraction.data();
}

std::string plain(const std::string &text)
{
    std::string out;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte >= 0x20 && byte < 0x7F) {
            out += letter;
        } else {
            std::array<char, 8> escaped{};
            std::snprintf(escaped.data(), escaped.size(), "\\x%02x", static_cast<unsigned>(byte));
            out += escaped.data();
        }
    }
    return out;
}

std::string milliseconds(std::uint64_t nanoseconds)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f", static_cast<double>(nanoseconds) / 1e6);
    return text.data();
}

void print_head(std::ostream &out, const contents &read)
{
    out << plain(read.process) << '[' << read.pid << "], since " << time_text(read.started) << '\n';
}

nlohmann::json head_json(const contents &read)
{
    return {{"process", read.process}, {"pid", read.pid}, {"started", time_text(read.started)}};
}

void dump(std::ostream &out, const nlohmann::json &value)
{
    out << value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

} // namespace

void print_records(std::ostream &out, const contents &read)
{
    print_head(out, read);
    out << read.begun << " records, the last " << read.entries.size() << " are here, " << read.lost
        << " lost, " << read.damaged << " incomplete or damaged\n";
    for (const entry &each : read.entries) {
        out << time_text(each.wall) << ' ' << each.thread << ' ' << each.kind << ' ' << each.id << ' ';
        if (!each.function.empty()) {
            out << plain(each.function) << ':' << each.line << ": ";
        }
        out << plain(each.text) << (each.cut ? " [cut]" : "") << '\n';
    }
}

void print_locks(std::ostream &out, const contents &read)
{
    print_head(out, read);
    if (read.locks.empty()) {
        out << "no thread has waited for a lock\n";
        return;
    }
    out << std::setw(10) << "waits" << std::setw(9) << "waiting" << std::setw(14) << "total ms"
        << std::setw(14) << "longest ms"
        << "  mutex             where\n";
    for (const lock_row &each : read.locks) {
        std::array<char, 24> mutex{};
        std::snprintf(mutex.data(), mutex.size(), "0x%-16llx", static_cast<unsigned long long>(each.mutex));
        out << std::setw(10) << each.count << std::setw(9) << each.waiting << std::setw(14)
            << milliseconds(each.total) << std::setw(14) << milliseconds(each.longest) << "  " << mutex.data()
            << "  " << plain(each.function) << ':' << each.line << '\n';
    }
}

void print_records_json(std::ostream &out, const contents &read)
{
    nlohmann::json whole = head_json(read);
    whole["begun"] = read.begun;
    whole["lost"] = read.lost;
    whole["damaged"] = read.damaged;
    whole["records"] = nlohmann::json::array();
    for (const entry &each : read.entries) {
        whole["records"].push_back({{"number", each.number},
                                    {"time", time_text(each.wall)},
                                    {"wall_ns", each.wall},
                                    {"monotonic_ns", each.monotonic},
                                    {"thread", each.thread},
                                    {"kind", each.kind},
                                    {"id", each.id},
                                    {"function", each.function},
                                    {"line", each.line},
                                    {"text", each.text},
                                    {"cut", each.cut}});
    }
    dump(out, whole);
}

void print_locks_json(std::ostream &out, const contents &read)
{
    nlohmann::json whole = head_json(read);
    whole["locks"] = nlohmann::json::array();
    for (const lock_row &each : read.locks) {
        whole["locks"].push_back({{"function", each.function},
                                  {"line", each.line},
                                  {"waiting", each.waiting},
                                  {"count", each.count},
                                  {"total_ns", each.total},
                                  {"longest_ns", each.longest},
                                  {"mutex", each.mutex}});
    }
    dump(out, whole);
}

} // namespace l2vpn::trace_reader
