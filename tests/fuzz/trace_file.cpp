/*
 * The reader of trace files. A file with room for one record is 84 KiB, so the input is not the file but what
 * is done to a sound one with four records. Its first byte (modulo 4) says what is printed: records or locks,
 * as text or as JSON. Then steps, a byte each (modulo 6), with what belongs to it:
 *
 *   0   bytes of the header: offset (1 byte), length (1), bytes
 *   1   bytes of the texts: offset (2), length (1), bytes
 *   2   bytes of the lock sites: offset (2, modulo the region), length (1), bytes
 *   3   bytes of the records: offset (2, modulo the region), length (1), bytes
 *   4   a text: number (1), length (1), bytes
 *   5   the file's length: change in words of 4 bytes (2, signed)
 */
#include "memory_file.h"

#include "print.h"
#include "trace_file.h"

#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

namespace {

using namespace l2vpn::trace;

constexpr size_t record_count = 4;

std::vector<uint8_t> make_sound_file()
{
    std::vector<uint8_t> file(records_offset + record_count * sizeof(record));
    const auto put = [&file](size_t offset, const auto &what) { memcpy(&file[offset], &what, sizeof what); };
    header head{};
    head.magic = magic;
    head.version = version;
    head.byte_order = byte_order_mark;
    head.file_size = file.size();
    head.pid = 4711;
    head.process = {'o', 'w', 'n', 'e', 'r'};
    head.texts = {texts_offset, text_count};
    head.locks = {locks_offset, lock_count};
    head.records = {records_offset, record_count};
    head.next = record_count;
    put(0, head);

    text format{};
    format.ready = 1;
    format.bytes = {'%', 'u', ' ', '%', 's'};
    put(texts_offset, format);
    text function = format;
    function.bytes = {'f'};
    put(texts_offset + sizeof format, function);

    lock_site site{};
    site.count = 2;
    site.total = 3000;
    site.function = {'g'};
    put(locks_offset, site);

    for (uint64_t number = 0; number < record_count; ++number) {
        record one{};
        one.sequence = written(number);
        one.kind = static_cast<record_kind>(number);
        one.format = 1;
        one.function = 2;
        one.used = 3;
        one.values = {number, 3, 0x636261};
        put(records_offset + number * sizeof one, one);
    }
    return file;
}

void change(std::vector<uint8_t> &file, fuzz::input &in)
{
    struct region_row {
        size_t at;
        size_t size;
    };
    constexpr region_row regions[] = {{0, sizeof(header)},
                                      {texts_offset, text_count * sizeof(text)},
                                      {locks_offset, lock_count * sizeof(lock_site)},
                                      {records_offset, record_count * sizeof(record)}};
    const uint8_t what = in.u8() % 6;
    if (what == 5) {
        const auto by = static_cast<int16_t>(in.u16());
        constexpr std::ptrdiff_t longest = 256 << 10;
        file.resize(static_cast<size_t>(std::clamp<std::ptrdiff_t>(std::ssize(file) + 4 * by, 0, longest)));
        return;
    }
    region_row to{};
    if (what == 4) {
        to = {texts_offset + in.u8() * sizeof(text), sizeof(text)};
        const uint64_t ready[] = {1, 1};
        if (to.at + sizeof ready <= file.size())
            memcpy(&file[to.at], ready, sizeof ready);
        to = {to.at + sizeof ready, sizeof(text) - sizeof ready};
    } else {
        const size_t offset = (what == 0 ? in.u8() : in.u16()) % regions[what].size;
        to = {regions[what].at + offset, regions[what].size - offset};
    }
    const fuzz::bytes bytes = in.take(in.u8());
    if (to.at >= file.size())
        return;
    const size_t length = std::min({bytes.size(), to.size, file.size() - to.at});
    std::copy_n(bytes.begin(), length, file.begin() + static_cast<std::ptrdiff_t>(to.at));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    namespace reader = l2vpn::trace_reader;
    static const std::vector<uint8_t> sound = make_sound_file();
    static const fuzz::memory_file file;

    fuzz::input in(data, size);
    const uint8_t output = in.u8() % 4;
    static std::vector<uint8_t> content;
    content = sound;
    while (!in.empty())
        change(content, in);
    file.hold(content);
    try {
        const reader::contents read = reader::read_file(file.path());
        const size_t room = (content.size() - records_offset) / sizeof(record);
        FUZZ_CHECK(read.entries.size() + read.damaged <= room && read.locks.size() <= lock_count);
        constexpr decltype(&reader::print_records) printers[] = {
            reader::print_records, reader::print_locks, reader::print_records_json, reader::print_locks_json};
        std::ostringstream out;
        printers[output](out, read);
        FUZZ_CHECK(output < 2 ? fuzz::is_plain(out.str()) : nlohmann::json::accept(out.str()));
    } catch (const reader::bad_file &bad) {
        FUZZ_CHECK(*bad.what() != '\0' && fuzz::is_plain(bad.what()));
    }
    return 0;
}
