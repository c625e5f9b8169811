#include "trial.h"

#include "interpose.h"
#include "player.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

namespace torture {

std::string program = "torture_test";

namespace {

using lines = std::vector<std::string>;

/* The lines that tell what a request or connect gave. */
lines statuses_of(const lines &all, std::size_t from)
{
    lines result;
    std::copy_if(all.begin() + static_cast<std::ptrdiff_t>(from), all.end(), std::back_inserter(result),
                 [](const std::string &line) { return line.starts_with("returned "); });
    return result;
}

} // namespace

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

namespace {

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

} // namespace

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

void run_as_it_must_end(const trial &t)
{
    const std::string last_words = table::death_of(t);
    if (last_words.empty())
        run(t);
    else
        run_to_death(t, last_words);
}

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

} // namespace torture
