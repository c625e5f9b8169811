/*
 * l2vpnd with its ring, and what l2vpnctl makes of it.
 */
#ifndef TESTS_CAPTURE_RECORDED_H
#define TESTS_CAPTURE_RECORDED_H

#include "daemon.h"

#include <gmock/gmock.h>
#include <sstream>

namespace process_test {

using testing::HasSubstr;

class recorded : public daemon_test {
protected:
    std::string ring() const { return ask({"status"}).value("capture", ""); }

    system_test::result monitor(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "monitor");
        return ctl(arguments);
    }

    /* The records, a JSON object each. */
    std::vector<json> rows(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.end(), {"--json", "-v"});
        const system_test::result done = monitor(arguments);
        EXPECT_EQ(done.status, 0) << done.err;
        return parsed(done.out);
    }

    static std::vector<json> parsed(const std::string &text)
    {
        std::vector<json> found;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            found.push_back(json::parse(line));
        }
        return found;
    }

    /* For a file that is being made. */
    bool becomes_readable(const std::string &file, size_t count) const
    {
        return eventually([&] {
            const system_test::result done = monitor({"--read", file, "--json"});
            return done.status == 0 && parsed(done.out).size() == count;
        });
    }

    /* An owner of class 3 with two ACs, which are provisioned, and a message that is none. */
    std::string make_history()
    {
        start({"--auto-provision"});
        raw_peer &owner = m_owner.emplace(peer(3));
        EXPECT_TRUE(owner.send(create(3, {0x11, 0x12})));
        EXPECT_TRUE(owner.receive());
        EXPECT_TRUE(owner.send(header(99, 0, 0).bytes()));
        EXPECT_TRUE(has_dropped("type", 1));
        return ring();
    }

    void expect_one_line(const system_test::result &done, int status, const std::string &text)
    {
        EXPECT_EQ(done.status, status) << done.err;
        EXPECT_TRUE(is_one_line(done.err));
        EXPECT_THAT(done.err, HasSubstr(text));
        EXPECT_EQ(done.out, "");
    }

private:
    std::optional<raw_peer> m_owner; /* stays, or its going would be the last record */
};

} // namespace process_test

#endif
