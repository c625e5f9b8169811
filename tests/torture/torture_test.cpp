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
#include "interpose.h"
#include "model.h"
#include "player.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <iostream>

namespace torture {

namespace {

std::string program = "torture_test"; /* as it was called */

using lines = std::vector<std::string>;

/* The lines that tell what a request or connect gave. */
lines statuses_of(const lines &all, std::size_t from)
{
    lines result;
    std::copy_if(all.begin() + static_cast<std::ptrdiff_t>(from), all.end(), std::back_inserter(result),
                 [](const std::string &line) { return line.starts_with("returned "); });
    return result;
}

constexpr const char *every_message = "all";

/* --- one case ---------------------------------------------------------------------------------------- */

struct trial {
    scenario what;
    std::optional<plan> failure;
    std::string command; /* that repeats it */
};

trial clean(const scenario &s)
{
    return {s, std::nullopt, program + " --scenario " + s.name};
}

trial with_failure(const scenario &s, const plan &p)
{
    return {s, p,
            program + " --scenario " + s.name + " --call " +
                std::string(p.what == nullptr ? any_call : p.what->name) + " --at " + std::to_string(p.at) +
                " --status " + std::to_string(p.status) + (p.persistently ? " --persistently" : "")};
}

/* All malformed messages, or the one of that name, before the step of that number, from 1; one more than
 * there are: after the last. */
trial with_malformed(const scenario &s, const std::string &name, std::size_t at)
{
    trial t = {s, std::nullopt,
               program + " --scenario " + s.name + " --malformed " + name + " --at " + std::to_string(at)};
    std::vector<step> messages;
    for (const malformed &m : malformed_messages()) {
        if (name == every_message || name == m.name)
            messages.push_back(m.message);
    }
    if (messages.empty())
        throw std::invalid_argument("no malformed message: " + name);
    if (at < 1 || at > s.steps.size() + 1)
        throw std::invalid_argument("--at is from 1 to " + std::to_string(s.steps.size() + 1));
    t.what.steps.insert(t.what.steps.begin() + static_cast<std::ptrdiff_t>(at - 1), messages.begin(),
                        messages.end());
    return t;
}

/* A trial in progress: each step is played on the library and by the model. */
class table {
public:
    explicit table(const trial &t)
        : trial_(t), model_(t.what.mtu, nodeid, t.failure), player_(t.what.mtu, t.failure)
    {
    }

    /* What the library must say before it aborts, empty if it must not. */
    static std::string death_of(const trial &t)
    {
        model alone(t.what.mtu, nodeid, t.failure);
        try {
            for (const step &s : t.what.steps)
                alone.play(s);
            return "";
        } catch (const must_die &death) {
            return death.what();
        }
    }

    void play_all()
    {
        for (const step &s : trial_.what.steps)
            play(s);
    }

    void play_on_the_library()
    {
        for (const step &s : trial_.what.steps)
            player_.play(s);
    }

    void clear_failures()
    {
        model_.clear_failures();
        player_.clear_failures();
    }

    /* Disconnects whoever a failure has left. */
    void clean_up()
    {
        for (unsigned slot = 0; slot < slots; ++slot) {
            if (model_.connected(slot))
                play({.what = op::disconnect, .slot = slot});
        }
        play({.what = op::sweep});
    }

    void expect_what_the_model_says(const char *when)
    {
        const lines &expected = model_.lines, &happened = player_.lines();
        const auto [e, h] = std::ranges::mismatch(expected, happened);
        if (e == expected.end() && h == happened.end())
            return;
        std::string story;
        const auto same = e - expected.begin();
        for (auto i = std::max<std::ptrdiff_t>(0, same - 12); i < same; ++i)
            story += "  " + expected[static_cast<std::size_t>(i)] + "\n";
        ADD_FAILURE() << when << ":\n"
                      << story << "  expected: " << (e == expected.end() ? "nothing more" : *e)
                      << "\n  happened: " << (h == happened.end() ? "nothing more" : *h);
    }

    void expect_the_state(const char *when)
    {
        l2vpn::sim::world &world = player_.world();
        const std::size_t of_library = model_.initialised() ? 1 : 0;
        EXPECT_TRUE(player_.locks_are_free()) << when;
        EXPECT_EQ(world.live_leaves(), model_.leaves()) << when;
        EXPECT_EQ(world.live_trees(), of_library) << when;
        EXPECT_EQ(world.live_parents(), of_library) << when;
        EXPECT_EQ(world.clients(), model_.contexts()) << when;
        EXPECT_EQ(interpose::mappings(), 0u) << when;
        if (interpose::follows_memory) {
            EXPECT_EQ(interpose::allocations(), model_.contexts()) << when;
        }
        for (std::uint32_t class_id = 0; class_id < L2VPN_AC_CLASS_MAX; ++class_id)
            EXPECT_EQ(world.link_of(class_id).registered(), model_.registered(class_id)) << when << class_id;
    }

    /* With each slot's handle, null where there is no client. The model plays no part. */
    void expect_requests_of_another_thread()
    {
        std::vector<qerrno> expected;
        for (unsigned slot = 0; slot < slots; ++slot)
            expected.push_back(model_.connected(slot) ? EOK : EINVAL);
        EXPECT_EQ(player_.requests_of_another_thread(), expected);
        player_.forget_lines();
        model_.lines.clear();
    }

    std::size_t position() const { return model_.lines.size(); }
    lines statuses(std::size_t from) const { return statuses_of(model_.lines, from); }
    player &on_library() { return player_; }
    const model &expected() const { return model_; }

private:
    void play(const step &s)
    {
        model_.play(s);
        player_.play(s);
    }

    const trial &trial_;
    model model_;
    player player_;
};

lines statuses_of_clean_run(const scenario &s)
{
    model alone(s.mtu, nodeid, std::nullopt);
    for (const step &one : s.steps)
        alone.play(one);
    return statuses_of(alone.lines, 0);
}

/* True when the planned failure really came. */
bool came(const trial &t, player &p)
{
    if (!t.failure)
        return true;
    const target *const what = t.failure->what;
    return (what == nullptr ? p.fallible_calls() : p.count(*what)) >= t.failure->at;
}

void run(const trial &t)
{
    SCOPED_TRACE("to repeat: " + t.command);
    table on(t);
    on.play_all();
    EXPECT_TRUE(came(t, on.on_library()));
    on.expect_what_the_model_says("in the scenario");
    on.expect_the_state("after the scenario");
    if (testing::Test::HasFailure())
        return; /* a lock that is not free would stop the next step */
    on.clear_failures();
    on.expect_requests_of_another_thread();

    on.clean_up();
    on.expect_what_the_model_says("in disconnecting what was left");
    on.expect_the_state("after disconnecting what was left");
    EXPECT_EQ(on.expected().contexts(), 0u);

    const std::size_t from = on.position();
    on.play_all();
    on.clear_failures();
    EXPECT_EQ(on.statuses(from), statuses_of_clean_run(t.what));
    on.clean_up();
    on.expect_what_the_model_says("when run again");
    on.expect_the_state("after running again");
}

void run_to_death(const trial &t, const std::string &last_words)
{
    SCOPED_TRACE("to repeat: " + t.command);
    EXPECT_EXIT(
        {
            table on(t);
            on.play_on_the_library();
            std::exit(0);
        },
        testing::KilledBySignal(SIGABRT), testing::HasSubstr(last_words));
}

void run_as_it_must_end(const trial &t)
{
    const std::string last_words = table::death_of(t);
    if (last_words.empty())
        run(t);
    else
        run_to_death(t, last_words);
}

/* --- all positions of a scenario --------------------------------------------------------------------- */

/* How often a target is called in a clean run. */
struct census {
    std::map<const target *, std::uint64_t> calls;
    std::uint64_t fallible;
    std::set<std::string> called;
};

census census_of(const scenario &s)
{
    const trial t = clean(s);
    table on(t);
    on.play_all();
    census result = {{}, on.on_library().fallible_calls(), on.on_library().called};
    for (const target &what : targets())
        result.calls[&what] = on.on_library().count(what);
    return result;
}

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
