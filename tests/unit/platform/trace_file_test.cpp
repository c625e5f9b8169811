/* l2vpn-trace on good files and bad ones. */
#include "child.h"
#include "trace/format.h"

#include <csignal>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>

namespace {

using system_test::binary;
using system_test::child;
using system_test::run;
using system_test::temp_dir;
using namespace l2vpn::trace;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class trace_files : public ::testing::Test {
protected:
    /* A good file, made by a process that was then killed. */
    void SetUp() override
    {
        child writer(PROBE, {"trace-and-wait", "10"}, {"L2VPN_TRACE=" + path, "L2VPN_TRACE_SIZE=64"});
        writer.line_after("ready ");
        writer.send_signal(SIGKILL);
        EXPECT_EQ(writer.wait(), -SIGKILL);
        std::ifstream file(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), {});
        ASSERT_EQ(bytes.size(), records_offset + 64 * 1024);
    }

    void write(const std::string &content) const
    {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    }

    /* Changes one field of the file. */
    template <typename Value>
    void patch(std::size_t offset, const Value &value)
    {
        std::memcpy(bytes.data() + offset, &value, sizeof value);
        write(bytes);
    }

    system_test::result read(std::vector<std::string> options = {})
    {
        options.push_back(path);
        return run(binary("l2vpn-trace"), options);
    }

    /* The one line about a file that cannot be read. */
    void expect_refused(const std::string &why)
    {
        for (const char *option : {"--json", "--locks"}) {
            const auto result = read({option});
            EXPECT_EQ(result.status, 1);
            EXPECT_EQ(result.err, "l2vpn-trace: " + path + ": " + why + "\n");
            EXPECT_THAT(result.out, IsEmpty());
        }
    }

    temp_dir place;
    std::string path = place.file("trace");
    std::string bytes;
};

TEST_F(trace_files, the_trace_of_a_killed_process_is_printed)
{
    const auto result = read();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, IsEmpty());
    EXPECT_THAT(result.out, MatchesRegex("platform_probe\\[[0-9]+\\], since "
                                         "[0-9-]+T[0-9:.]+Z\n"
                                         "10 records, the last 10 are here, 0 lost, 0 incomplete or damaged\n"
                                         "[0-9-]+T[0-9:.]+Z [0-9]+ entry 1079 record 0 of the probe\n"
                                         "(.|\n)*record 9 of the probe\n"));
}

TEST_F(trace_files, the_locks_of_a_killed_process_are_printed)
{
    const auto result = read({"--locks"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, MatchesRegex("(.|\n)* 1 +0 [^\n]*done_waiting:1\n(.|\n)*"));
    EXPECT_THAT(result.out, MatchesRegex("(.|\n)* 0 +1 [^\n]*still_waiting:2\n(.|\n)*"));
}

TEST_F(trace_files, programs_get_json)
{
    EXPECT_THAT(read({"--json"}).out, HasSubstr("\"text\": \"record 9 of the probe\""));
    EXPECT_THAT(read({"--json", "--locks"}).out, HasSubstr("\"function\": \"still_waiting\""));
}

TEST_F(trace_files, what_is_none_is_called_none)
{
    write("");
    expect_refused("empty, not a trace file");
    write("short");
    expect_refused("not a trace file");
    write(std::string(100'000, 'x'));
    expect_refused("not a trace file");
    path = "/dev/null";
    expect_refused("not a trace file");
    path = place.path();
    expect_refused("is a directory, not a trace file");
    path = place.file("nothing");
    expect_refused("No such file or directory");
}

TEST_F(trace_files, a_truncated_file_says_how_much_is_there)
{
    write(bytes.substr(0, 20));
    expect_refused("truncated: only 20 bytes are there");
    write(bytes.substr(0, 5000));
    expect_refused("truncated: 5000 of " + std::to_string(bytes.size()) + " bytes are there");
    write(bytes.substr(0, bytes.size() - 1));
    expect_refused("truncated: " + std::to_string(bytes.size() - 1) + " of " + std::to_string(bytes.size()) +
                   " bytes are there");
}

TEST_F(trace_files, a_file_of_another_version_or_machine_is_told)
{
    patch(offsetof(header, version), std::uint32_t{9});
    expect_refused("a trace file of version 9; this program reads version 1");
    patch(offsetof(header, byte_order), std::uint32_t{0x04030201});
    expect_refused("written on a machine of the other byte order");
    patch(offsetof(header, byte_order), std::uint32_t{0});
    expect_refused("damaged: no byte-order mark in the header");
}

TEST_F(trace_files, a_damaged_header_is_told)
{
    patch(offsetof(header, records) + offsetof(region, count), ~std::uint64_t{0});
    expect_refused("damaged: the header says that 18446744073709551615 records begin at byte " +
                   std::to_string(records_offset) + ", where 512 begin at byte " +
                   std::to_string(records_offset));
    patch(offsetof(header, file_size), std::uint64_t{100});
    expect_refused("damaged: the file has " + std::to_string(bytes.size()) + " bytes, the header says 100");
}

TEST_F(trace_files, damaged_records_are_counted_and_the_others_printed)
{
    const std::size_t first = records_offset;
    const std::size_t second = first + sizeof(record);
    const std::size_t third = second + sizeof(record);
    patch(first + offsetof(record, sequence), being_written(0));
    patch(second + offsetof(record, kind), std::uint16_t{99});
    patch(third + offsetof(record, used), std::uint8_t{200});
    patch(third + sizeof(record) + offsetof(record, sequence), written(1'000'000));
    const auto result = read();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("the last 6 are here, 0 lost, 4 incomplete or damaged\n"));
    EXPECT_THAT(result.out, HasSubstr("record 4 of the probe"));
}

TEST_F(trace_files, a_damaged_text_does_no_harm)
{
    for (std::size_t text = 0; text < text_count; ++text) {
        std::memset(bytes.data() + texts_offset + text * sizeof(l2vpn::trace::text) +
                        offsetof(l2vpn::trace::text, bytes),
                    '%', sizeof(l2vpn::trace::text::bytes));
    }
    write(bytes);
    EXPECT_EQ(read().status, 0);
    patch(records_offset + offsetof(record, format), std::uint16_t{0xFFFF});
    EXPECT_THAT(read().out, HasSubstr("(format not known)"));
}

/* Whatever is in the file, the reader ends by itself and in order. */
TEST_F(trace_files, noise_is_read_or_refused)
{
    unsigned random = 1;
    for (int round = 0; round < 20; ++round) {
        for (int change = 0; change < 2000; ++change) {
            random = random * 1664525 + 1013904223;
            const std::size_t where = sizeof(header) + random % (bytes.size() - sizeof(header));
            bytes[where] = static_cast<char>(random >> 24);
        }
        write(bytes);
        for (const char *option : {"--json", "--locks"}) {
            EXPECT_EQ(read({option}).status, 0);
        }
        EXPECT_EQ(read().status, 0);
    }
}

TEST_F(trace_files, a_wrong_command_line_is_one_line)
{
    for (const std::vector<std::string> &wrong : {std::vector<std::string>{}, {"--what", "x"}, {"a", "b"}}) {
        const auto result = run(binary("l2vpn-trace"), wrong);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, MatchesRegex("l2vpn-trace: [^\n]+\n"));
    }
}

TEST_F(trace_files, help_and_version_are_asked_for)
{
    const auto help = run(binary("l2vpn-trace"), {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.err, IsEmpty());
    for (const char *said : {"FILE", "--locks", "--json", "--version", "Exit status: 0 "}) {
        EXPECT_THAT(help.out, HasSubstr(said));
    }
    const auto version = run(binary("l2vpn-trace"), {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_THAT(version.out, MatchesRegex("l2vpn-trace [0-9.]+\n"));
    const auto full = run("/bin/sh", {"-c", binary("l2vpn-trace") + " '" + path + "' > /dev/full"});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "l2vpn-trace: cannot write the output\n");
}

} // namespace
