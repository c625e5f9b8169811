/*
 * What l2vpnctl explain says, in parts.
 */
#ifndef TESTS_CAPTURE_EXPLAINED_H
#define TESTS_CAPTURE_EXPLAINED_H

#include "recorded.h"

#include <algorithm>
#include <csignal>

namespace process_test {

class explained : public recorded {
protected:
    system_test::result explain(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "explain");
        return ctl(arguments);
    }

    json document(std::vector<std::string> arguments, int status = 0) const
    {
        arguments.emplace_back("--json");
        const system_test::result done = explain(arguments);
        EXPECT_EQ(done.status, status) << done.err;
        json told = json::parse(done.out, nullptr, false);
        EXPECT_TRUE(told.is_object()) << done.out << done.err;
        return told;
    }

    static std::string verdict(const json &told) { return told["verdict"]["code"]; }

    /* "created batch-closed provisioned", of this observer alone. */
    static std::string codes(const json &told, const std::string &observer = "process")
    {
        std::string all;
        for (const json &step : told["steps"]) {
            if (step["observer"] == observer) {
                all += (all.empty() ? "" : " ") + step["code"].get<std::string>();
            }
        }
        return all;
    }

    static json step(const json &told, const std::string &code)
    {
        const auto found =
            std::ranges::find_if(told["steps"], [&](const json &s) { return s["code"] == code; });
        return found == told["steps"].end() ? json::object() : *found;
    }

    static bool has_note(const json &told, const std::string &code)
    {
        return std::ranges::any_of(told["notes"], [&](const json &note) { return note["code"] == code; });
    }

    /* Counted by the process, and so recorded. */
    bool has_received(const char *type, uint64_t count) const
    {
        return eventually([&] { return totals()["received"].value(type, uint64_t{0}) == count; });
    }

    void kill_daemon()
    {
        m_daemon->send_signal(SIGKILL);
        ASSERT_EQ(m_daemon->wait(), -SIGKILL);
    }
};

} // namespace process_test

#endif
