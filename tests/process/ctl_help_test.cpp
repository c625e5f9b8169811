/*
 * l2vpnctl: its help, and that completion offers what it takes.
 */
#include "ctl_test.h"

#include <algorithm>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

using namespace process_test;

namespace {

std::string help_of(words verb)
{
    verb.emplace_back("--help");
    const system_test::result help = run_ctl(verb);
    EXPECT_EQ(help.status, 0) << help.err;
    EXPECT_EQ(help.err, "");
    return help.out;
}

/* Where `pattern` matches, its groups. */
std::vector<std::smatch> matches(const std::string &text, const std::regex &pattern)
{
    return {std::sregex_iterator(text.begin(), text.end(), pattern), std::sregex_iterator()};
}

std::set<std::string> verbs_in(const std::string &help)
{
    static const std::regex verb("\n  ([a-z][a-z-]*) ");
    std::set<std::string> found;
    const size_t list = help.find("\nSubcommands:\n");
    const std::string rest = list == std::string::npos ? "" : help.substr(list);
    for (const std::smatch &one : matches(rest, verb)) {
        found.insert(one[1]);
    }
    return found;
}

/* All that --help leads to, the program itself first. */
std::vector<words> every_verb(const words &above = {})
{
    std::vector<words> found = {above};
    for (const std::string &verb : verbs_in(help_of(above))) {
        words below = above;
        below.push_back(verb);
        const std::vector<words> more = every_verb(below);
        found.insert(found.end(), more.begin(), more.end());
    }
    return found;
}

std::string joined(const words &from)
{
    std::string out = "l2vpnctl";
    for (const std::string &word : from) {
        out += " " + word;
    }
    return out;
}

/* The long options in a text, each once. */
std::set<std::string> options_in(const std::string &text)
{
    static const std::regex option("(^|[ ,\n])(--[a-z0-9-]+)");
    std::set<std::string> found;
    for (const std::smatch &one : matches(text, option)) {
        found.insert(one[2]);
    }
    return found;
}

/* What is offered behind these words, in an empty folder. `compopt`: what it says when it is told options. */
std::set<std::string> completions_of(const std::string &line, const std::string &compopt = ":")
{
    const system_test::temp_dir dir;
    const system_test::result offered = system_test::run(
        "/bin/bash",
        {"-c",
         "cd \"$2\"; source \"$0\"; COMP_WORDS=($1 \"\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
         "tell=$3; compopt() { $tell \"$@\"; }; "
         "_l2vpnctl; echo \"${COMPREPLY[@]}\"",
         L2VPN_COMPLETION, line, dir.path(), compopt});
    EXPECT_EQ(offered.err, "");
    std::istringstream text(offered.out);
    return {std::istream_iterator<std::string>(text), std::istream_iterator<std::string>()};
}

} // namespace

TEST(ctl, explains_every_verb)
{
    const std::vector<words> verbs = every_verb();
    EXPECT_GE(verbs.size(), 21U);
    for (const words &verb : verbs) {
        const std::string help = help_of(verb);
        EXPECT_NE(help.find("Usage: " + joined(verb) + " ["), std::string::npos) << help;
    }
}

TEST(ctl, completion_offers_what_help_lists)
{
    static const std::regex list("(--[a-z-]+) [A-Z]+:\\{([a-z,]+)\\}");
    const std::set<std::string> everywhere = options_in("--runtime-dir --json --color --timeout --help");
    for (const words &verb : every_verb()) {
        const std::string help = help_of(verb);
        std::set<std::string> expected = options_in(help);
        expected.insert(everywhere.begin(), everywhere.end());
        expected.merge(verbs_in(help));
        EXPECT_EQ(completions_of(joined(verb)), expected) << joined(verb);
        for (const std::smatch &one : matches(help, list)) {
            std::string values = one[2];
            std::replace(values.begin(), values.end(), ',', ' ');
            std::istringstream text(values);
            EXPECT_EQ(completions_of(joined(verb) + " " + one[1].str()),
                      std::set<std::string>(std::istream_iterator<std::string>(text), {}))
                << joined(verb) << one[1];
        }
    }
}

TEST(ctl, completion_offers_values_that_are_taken)
{
    const system_test::temp_dir dir;
    std::set<std::string> classes;
    for (int i = 0; i < 20; i++) {
        const std::string number = std::to_string(i);
        if (run_ctl({"--runtime-dir", dir.path(), "show", "acs", "--class", number}).status == 3) {
            classes.insert(number);
        }
    }
    EXPECT_EQ(completions_of("l2vpnctl show acs --class"), classes);
    std::set<std::string> types;
    for (uint32_t type = 0; type < l2vpnd::message_types; type++) {
        if (const char *name = l2vpnd::find_message(type)->name) {
            types.insert(name);
        }
    }
    EXPECT_EQ(completions_of("l2vpnctl monitor --type"), types);
}

/* Bash then quotes them, and adds a slash to a folder: as no verb or value may be changed. */
TEST(ctl, completion_says_which_are_names_of_files)
{
    const auto are_files = [](const std::string &line) {
        return completions_of(line, "echo").contains("filenames");
    };
    for (const char *line : {"monitor --read", "explain --also", "capture --write", "replay", "timeline",
                             "show acs --runtime-dir"}) {
        EXPECT_TRUE(are_files(std::string("l2vpnctl ") + line)) << line;
    }
    for (const char *line : {"", "show", "show acs --state", "monitor --type", "--color"}) {
        EXPECT_FALSE(are_files(std::string("l2vpnctl ") + line)) << line;
    }
    const system_test::result how =
        system_test::run("/bin/bash", {"-c", "source \"$0\"; complete -p l2vpnctl", L2VPN_COMPLETION});
    EXPECT_EQ(how.out, "complete -F _l2vpnctl l2vpnctl\n");
}
