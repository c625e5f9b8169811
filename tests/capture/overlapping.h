/*
 * Captures of one process that hold the same records, or follow one another.
 */
#ifndef TESTS_CAPTURE_OVERLAPPING_H
#define TESTS_CAPTURE_OVERLAPPING_H

#include "pcapng_writer.h"
#include "recorded.h"

namespace process_test {

class overlapping : public recorded {
protected:
    /* Of the records that are shown; -N where N are said to be missing. */
    std::vector<int64_t> numbers(const std::vector<std::string> &files) const
    {
        std::vector<int64_t> found;
        for (const json &row : rows(files)) {
            found.push_back(row.contains("lost") ? -row["lost"].get<int64_t>()
                                                 : row["number"].get<int64_t>());
        }
        return found;
    }

    static l2vpn::capture::captured refused(uint64_t number)
    {
        l2vpn::capture::captured made{};
        made.time = 1'790'000'000'000'000'000 + number;
        made.head.kind = l2vpn::capture::record_kind::link_refused;
        made.head.by = l2vpn::capture::observer::process;
        made.head.number = number;
        return made;
    }

    /* A capture of one process's records; -N where N are missing, also at its end. */
    std::string make(const std::string &name, const std::vector<int64_t> &numbers,
                     const std::string &process = "l2vpnd-1")
    {
        l2vpn::capture::pcapng_writer writer(m_dir.file(name), true, "test");
        writer.add_interface(process);
        uint64_t missing = 0;
        uint64_t all_missing = 0;
        for (const int64_t number : numbers) {
            if (number < 0) {
                missing = static_cast<uint64_t>(-number);
                all_missing += missing;
                continue;
            }
            writer.add(0, refused(static_cast<uint64_t>(number)), missing);
            missing = 0;
        }
        writer.add_statistics(0, numbers.size(), all_missing);
        writer.place();
        return m_dir.file(name);
    }
    void expect_together(const std::vector<std::vector<int64_t>> &files, const std::vector<int64_t> &expected)
    {
        std::vector<std::string> arguments;
        for (const std::vector<int64_t> &file : files) {
            const std::string name = std::to_string(arguments.size()) + ".pcapng";
            arguments.insert(arguments.end(), {"--read", make(name, file)});
        }
        EXPECT_EQ(numbers(arguments), expected);
    }
};

} // namespace process_test

#endif
