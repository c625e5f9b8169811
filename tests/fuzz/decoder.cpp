/*
 * The process's message decoder. The input's first byte is the owner's class, the rest the message.
 */
#include "fuzz.h"

#include "decoder.h"

namespace {

[[maybe_unused]] size_t size_of_each(const uint8_t *input)
{
    const l2vpnd::message_row *const row = l2vpnd::find_message(fuzz::be32({input, 17}, 5));
    const l2vpnd::class_row *const cls = l2vpnd::find_class(input[0]);
    if (row == nullptr || cls == nullptr)
        return 0;
    return row->each.handle + row->each.definition + (row->each.info ? cls->info_size : 0) + row->each.record;
}

} // namespace

FUZZ_MESSAGE_MUTATOR(1, size_of_each)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const uint8_t class_id = in.u8();
    const fuzz::exact raw(in.rest());
    l2vpnd::message message{};
    if (l2vpnd::decode(class_id, raw, message) != l2vpnd::drop::none)
        return 0;

    /* What is accepted is whole, and nothing of it is left over. */
    const l2vpnd::payload &each = message.row->each;
    size_t taken = 16;
    for (uint32_t i = 0; i < message.count; ++i) {
        if (each.handle != 0) {
            FUZZ_CHECK(message.handle(i) != 0 && message.handle(i) != UINT32_MAX);
            taken += each.handle;
        }
        for (const l2vpnd::bytes part : {each.definition != 0 ? message.definition(i) : l2vpnd::bytes(),
                                         each.info ? message.info(i) : l2vpnd::bytes(),
                                         each.record != 0 ? message.record(i) : l2vpnd::bytes()}) {
            fuzz::read_all(part.data(), part.size());
            taken += part.size();
        }
    }
    FUZZ_CHECK(taken == raw.size());
    FUZZ_CHECK(message.flags == fuzz::be32(raw, 12));
    return 0;
}
