/*
 * The reader of rings. The input is what is done to a sound ring with four records in eight slots: steps, a byte
 * each (modulo 3), with what belongs to it:
 *
 *   0   bytes of the header: offset (1 byte), length (1), bytes
 *   1   bytes of the slots: offset (2, modulo the slots' size), length (1), bytes
 *   2   the file's length: change in words of 4 bytes (2, signed)
 */
#include "memory_file.h"

#include "describe.h"
#include "ring_reader.h"

#include <vector>

namespace {

using namespace l2vpn::capture;

constexpr size_t slot_count = 8;

void put_record(std::vector<uint8_t> &file, uint64_t at, uint64_t number, const std::vector<uint8_t> &message)
{
    record_head head{};
    head.kind = record_kind::message;
    head.direction = flow::to_process;
    head.by = observer::process;
    head.class_id = 6;
    head.number = number;
    head.length = static_cast<uint32_t>(message.size());
    record_prefix prefix{};
    prefix.wall = number;
    prefix.length = static_cast<uint32_t>(head_length + message.size());
    put_head(head, prefix.head.data());
    std::vector<uint8_t> bytes(sizeof prefix);
    memcpy(bytes.data(), &prefix, sizeof prefix);
    bytes.insert(bytes.end(), message.begin(), message.end());
    const size_t count = (bytes.size() + slot_room - 1) / slot_room;
    bytes.resize(count * slot_room);
    for (size_t i = 0; i < count; i++) {
        slot one{2 * (at + i) + 2, static_cast<uint32_t>(i), static_cast<uint32_t>(count), {}};
        std::copy_n(&bytes[i * slot_room], slot_room, one.bytes.begin());
        memcpy(&file[slots_offset + (at + i) % slot_count * sizeof one], &one, sizeof one);
    }
}

std::vector<uint8_t> make_sound_file()
{
    std::vector<uint8_t> file(slots_offset + slot_count * sizeof(slot));
    ring_header head{};
    head.magic = ring_magic;
    head.version = ring_version;
    head.byte_order = byte_order_mark;
    head.file_size = file.size();
    head.pid = 4711;
    head.by = 1;
    head.slot_count = slot_count;
    head.next = 6;
    head.records = 4;
    memcpy(file.data(), &head, sizeof head);
    const std::vector<uint8_t> join = {0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    std::vector<uint8_t> remove = {0, 0, 0, 3, 0, 0, 0, 6, 0, 0, 0, 40, 0, 0, 0, 0x30};
    remove.resize(16 + 160, 7); /* two slots */
    put_record(file, 0, 0, join);
    put_record(file, 1, 1, remove);
    put_record(file, 3, 2, remove);
    put_record(file, 5, 3, join);
    return file;
}

void change(std::vector<uint8_t> &file, fuzz::input &in)
{
    const uint8_t what = in.u8() % 3;
    if (what == 2) {
        const auto by = static_cast<int16_t>(in.u16());
        constexpr std::ptrdiff_t longest = 64 << 10;
        file.resize(static_cast<size_t>(std::clamp<std::ptrdiff_t>(std::ssize(file) + 4 * by, 0, longest)));
        return;
    }
    const size_t at = what == 0 ? in.u8() : slots_offset + in.u16() % (slot_count * sizeof(slot));
    const fuzz::bytes bytes = in.take(in.u8());
    if (at < file.size()) {
        std::copy_n(bytes.begin(), std::min(bytes.size(), file.size() - at),
                    file.begin() + static_cast<std::ptrdiff_t>(at));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::vector<uint8_t> sound = make_sound_file();
    static const fuzz::memory_file file;
    fuzz::input in(data, size);
    std::vector<uint8_t> content = sound;
    while (!in.empty()) {
        change(content, in);
    }
    file.hold(content);
    try {
        ring_reader reader(file.path());
        std::vector<captured> records;
        reader.read(records);
        FUZZ_CHECK(records.size() <= content.size() / sizeof(slot));
        for (size_t i = 0; i < records.size(); i++) { /* in turns: printing takes longer than reading */
            const reading message = read(records[i]);
            if (i % 2 == 0) {
                FUZZ_CHECK(fuzz::is_plain(to_lines(records[i], message, detail::records, true)));
            } else {
                const std::string line = l2vpnd::to_line(describe(records[i], message, detail::records));
                FUZZ_CHECK(nlohmann::json::accept(line));
            }
        }
        static_cast<void>(reader.lost());
    } catch (const bad_file &bad) {
        FUZZ_CHECK(*bad.what() != '\0' && fuzz::is_plain(bad.what()));
    }
    return 0;
}
