/*
 * The text of a trace record, from a format and values that nothing guarantees. The input: the number of
 * words (modulo 11), the words of 8 bytes, the format.
 */
#include "fuzz.h"

#include "trace/values.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    std::vector<uint64_t> words(in.u8() % 11);
    for (uint64_t &word : words)
        word = in.u64();
    const fuzz::exact format(in.rest());
    const std::string text =
        l2vpn::trace::render({reinterpret_cast<const char *>(format.data()), format.size()}, words);
    fuzz::read_all(text.data(), text.size());
    /* A conversion widens what it stands for to 1,023 bytes at most. */
    FUZZ_CHECK(text.size() <= format.size() * 1024);
    return 0;
}
