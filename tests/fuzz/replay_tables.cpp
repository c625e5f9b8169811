/*
 * Tables that l2vpnctl printed and replay compares with. The input is the file.
 */
#include "memory_file.h"

#include "tables.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const fuzz::memory_file file;
    file.hold({data, size});
    for (const bool with_owners : {true, false}) {
        try {
            l2vpnctl::tables read;
            l2vpnctl::read_tables(file.path(), with_owners, read);
            FUZZ_CHECK(l2vpnctl::compare(read, read).empty());
            l2vpnctl::tables none;
            for (auto &rows : none.of) {
                rows.emplace();
            }
            for (const l2vpnctl::difference &one : l2vpnctl::compare(read, none)) {
                FUZZ_CHECK(!one.text.empty());
            }
        } catch (const l2vpnctl::failure &refused) {
            FUZZ_CHECK(fuzz::is_plain(refused.text) && !refused.text.empty());
        }
    }
    return 0;
}
