/*
 * The reader of pcapng files, and what is said about the records in them. The input is the file.
 */
#include "fuzz.h"

#include "describe.h"
#include "pcapng_reader.h"

#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace l2vpn::capture;
    std::istringstream file(std::string(data, data + size));
    uint64_t count = 0;
    try {
        pcapng_reader reader(file);
        captured record{};
        for (uint64_t lost = 0; reader.next(record, lost); count++) {
            const reading message = read(record);
            FUZZ_CHECK(record.message.size() <= record.head.length);
            FUZZ_CHECK(fuzz::is_plain(to_lines(record, message, detail::records, true)));
            FUZZ_CHECK(nlohmann::json::accept(l2vpnd::to_line(describe(record, message, detail::records))));
        }
        const pcapng_summary summary = reader.summary();
        FUZZ_CHECK(summary.records == count && fuzz::is_plain(summary.ends_early));
    } catch (const bad_file &bad) {
        FUZZ_CHECK(*bad.what() != '\0' && fuzz::is_plain(bad.what()));
    }
    return 0;
}
