/*
 * Torture: every scenario of the list (scenarios.cpp), with every call on the platform failed at every
 * position, once and from there on for good.
 *
 * What must come of it is said by the model (model.h), which knows the requirements and nothing of the
 * library: each call, text, message, callback and status, in order. After each run, besides:
 *
 *   - the arrays of the requests are as they were;
 *   - the locks are free: a second thread takes them, and makes a request;
 *   - nothing is held but what the model says: memory, mappings, timers, trees, registrations;
 *   - what the failure has left connected can be disconnected, and then nothing is held at all;
 *   - the same scenario, without failures and on the same library, succeeds.
 *
 * Failures that mean corrupted state must abort the process, with the right assertion. And at every position
 * the L2VPN process may send a message that is malformed.
 *
 * A failing test prints the command that runs the one case alone, as
 *
 *     torture_test --scenario create_up --call l2vpn_ipc_ucastv --at 2 --status 105 --persistently
 *     torture_test --scenario inbound --malformed short_provision --at 3
 *
 * which shows what was expected beside what happened. `torture_test --list` names scenarios and calls.
 *
 * To add a scenario, add a row in scenarios.cpp; nothing else. A new function of the platform goes into
 * targets.cpp, and where the library calls it into the model; a test here fails until it does.
 */
#include "trial.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <iostream>

namespace torture {

namespace {

void each_position(const scenario &s, std::initializer_list<failing> kinds, bool persistently)
{
    const census counted = census_of(s);
    for (const target &what : targets()) {
        if (std::ranges::find(kinds, what.how) == kinds.end())
            continue;
        for (const int status : what.statuses) {
            for (std::uint64_t at = 1; at <= counted.calls.at(&what); ++at) {
                run_as_it_must_end(with_failure(s, {&what, at, persistently, status}));
                if (testing::Test::HasFailure())
                    return; /* one case to look at is enough */
            }
        }
    }
}

class torture : public testing::TestWithParam<std::string> {
protected:
    const scenario &subject() const { return scenario_named(GetParam()); }
};

std::vector<std::string> names()
{
    std::vector<std::string> result;
    for (const scenario &s : scenarios())
        result.push_back(s.name);
    return result;
}

INSTANTIATE_TEST_SUITE_P(scenario, torture, testing::ValuesIn(names()),
                         [](const auto &param) { return param.param; });

TEST_P(torture, nothing_fails)
{
    run(clean(subject()));
}

TEST_P(torture, each_call_fails_once)
{
    each_position(subject(), {failing::fails, failing::denies, failing::waits}, false);
}

TEST_P(torture, each_call_fails_from_there_on)
{
    each_position(subject(), {failing::fails, failing::denies, failing::waits}, true);
}

TEST_P(torture, every_call_fails_from_there_on)
{
    const std::uint64_t positions = census_of(subject()).fallible;
    for (std::uint64_t at = 1; at <= positions && !HasFailure(); ++at)
        run(with_failure(subject(), {nullptr, at, true, ENOBUFS}));
}

TEST_P(torture, malformed_messages_anywhere)
{
    for (std::size_t at = 1; at <= subject().steps.size() + 1 && !HasFailure(); ++at)
        run(with_malformed(subject(), every_message, at));
}

using torture_death = torture;

INSTANTIATE_TEST_SUITE_P(scenario, torture_death, testing::ValuesIn(names()),
                         [](const auto &param) { return param.param; });

TEST_P(torture_death, corrupted_state_is_fatal)
{
    each_position(subject(), {failing::dies}, false);
}

/* --- the list cannot rot ----------------------------------------------------------------------------- */

TEST(list, covers_all_functions_and_callbacks)
{
    std::set<std::string> called;
    for (const scenario &s : scenarios())
        called.merge(census_of(s).called);
    EXPECT_EQ(called,
              (std::set<std::string>{"l2vpn_ac_process_connect", "l2vpn_ac_process_connect_nodeid",
                                     "l2vpn_ac_process_disconnect", "l2vpn_ac_create", "l2vpn_ac_update",
                                     "l2vpn_ac_delete", "l2vpn_mstp_root", "l2vpn_mstp_port_request",
                                     "l2vpn_msti_vid_map", "l2vpn_mstp_protect", "status_cb", "prov_cb",
                                     "unprov_cb", "bulk_notify_cb", "hdr_notify_cb"}));
}

TEST(list, fails_every_call_that_can_fail)
{
    std::map<const target *, std::uint64_t> positions;
    for (const scenario &s : scenarios()) {
        for (const auto &[what, number] : census_of(s).calls)
            positions[what] += number;
    }
    for (const target &what : targets())
        EXPECT_GT(positions[&what], 0u) << what.name << " is called by no scenario";
}

TEST(list, knows_every_function_of_the_platform)
{
    for (std::size_t i = 0; i < l2vpn::sim::fn_count; ++i) {
        const auto function = static_cast<fn>(i);
        const auto places = std::ranges::count(targets(), std::optional(function), &target::function) +
                            std::ranges::count(infallible(), function);
        EXPECT_EQ(places, 1) << name_of(function) << " must be in one of the two lists of targets.cpp";
    }
}

/* The platform's own sequence of calls that can fail is the same as ours. */
TEST(list, agrees_with_the_platform_about_what_can_fail)
{
    for (const scenario &s : scenarios()) {
        const census counted = census_of(s);
        std::uint64_t sum = 0;
        for (const auto &[what, number] : counted.calls) {
            if (what->how == failing::fails && what->function)
                sum += number;
        }
        EXPECT_EQ(sum, counted.fallible) << s.name;
    }
}

/* --- one case, by command ---------------------------------------------------------------------------- */

void print_list()
{
    std::cout << "scenarios:\n";
    for (const scenario &s : scenarios())
        std::cout << "  " << s.name << "\n";
    std::cout << "calls:\n  " << any_call << "\n";
    for (const target &what : targets())
        std::cout << "  " << what.name << "\n";
    std::cout << "malformed messages:\n  " << every_message << "\n";
    for (const malformed &m : malformed_messages())
        std::cout << "  " << m.name << "\n";
}

std::uint64_t number_of(const std::string &option, const std::string &text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        throw std::invalid_argument("--" + option + ": '" + text + "' is no number");
    return number;
}

/* The case that a command names. */
std::optional<trial> trial_of(const std::vector<std::string> &args)
{
    std::map<std::string, std::string> given;
    bool persistently = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--persistently")
            persistently = true;
        else if (args[i].starts_with("--") && i + 1 < args.size())
            given[args[i].substr(2)] = args[i + 1], ++i;
        else
            throw std::invalid_argument("what is " + args[i] + "?");
    }
    for (const auto &[name, value] : given) {
        static const std::set<std::string> known = {"scenario", "call", "at", "status", "malformed"};
        if (!known.contains(name))
            throw std::invalid_argument("no option: --" + name);
    }
    const scenario &s = scenario_named(given["scenario"]);
    const std::uint64_t at = given.contains("at") ? number_of("at", given["at"]) : 1;
    if (given.contains("malformed"))
        return with_malformed(s, given["malformed"], at);
    if (!given.contains("call"))
        return clean(s);
    const target *const what = given["call"] == any_call ? nullptr : &target_named(given["call"]);
    const int status = given.contains("status") ? static_cast<int>(number_of("status", given["status"]))
                       : what == nullptr        ? ENOBUFS
                                                : what->statuses.front();
    return with_failure(s, {what, at, persistently, status});
}

std::optional<trial> only;

} // namespace

} // namespace torture

int main(int argc, char **argv)
{
    using namespace torture;
    program = argv[0];
    testing::InitGoogleTest(&argc, argv);
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args == std::vector<std::string>{"--list"}) {
        print_list();
        return 0;
    }
    if (!args.empty()) {
        try {
            only = trial_of(args);
        } catch (const std::exception &error) {
            std::cerr << program << ": " << error.what() << " (see --list)\n";
            return 2;
        }
        testing::RegisterTest("one", "case", nullptr, nullptr, __FILE__, __LINE__, []() -> testing::Test * {
            class one : public testing::Test {
                void TestBody() override { run_as_it_must_end(*only); }
            };
            return new one;
        });
        testing::GTEST_FLAG(filter) = "one.case";
    }
    return RUN_ALL_TESTS();
}
