// The commands at the root.
#include "child.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using system_test::result;
using system_test::run;
using testing::HasSubstr;

const std::string root = L2VPN_SOURCE_DIR;

TEST(repository, run_tells_what_it_can_do)
{
    const result help = run(root + "/run", {"help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.err, "");
    for (const char *name : {"demo", "test", "bench", "fuzz", "simulate", "mutate", "mcdc", "package",
                             "portable", "lint", "docs", "setup", "help"})
        EXPECT_THAT(help.out, HasSubstr("\n  " + std::string(name) + " "));
}

TEST(repository, run_refuses_what_it_does_not_know)
{
    const result unknown = run(root + "/run", {"dance"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err,
              "run: unknown subcommand 'dance'\n"
              "subcommands: demo, test, fuzz, simulate, mutate, mcdc, package, portable, lint, bench, "
              "docs, setup, help\n");
    EXPECT_EQ(run(root + "/run", {}).status, 2);
    EXPECT_EQ(run(root + "/run", {"demo", "--fast"}).status, 2);
    EXPECT_EQ(run(root + "/run", {"test", "--fast"}).status, 2);
    EXPECT_EQ(run(root + "/run", {"test", "--filter"}).status, 2);
}

// On a machine without the packages, where they cannot be installed: one line that names them.
TEST(repository, run_names_the_packages_that_it_cannot_install)
{
    const system_test::temp_dir dir;
    for (const char *name : {"dpkg-query", "sudo", "apt-get"}) {
        dir.write(name, "#!/bin/sh\nexit 1\n");
        std::filesystem::permissions(dir.file(name), std::filesystem::perms::owner_all);
    }
    const std::string path = std::getenv("PATH");
    const result got = run("/usr/bin/env", {"PATH=" + dir.path() + ":" + path, root + "/run", "setup"});
    EXPECT_EQ(got.status, 1);
    EXPECT_THAT(got.err, testing::StartsWith(geteuid() == 0 ? "run: apt-get could not install them"
                                                            : "run: these packages are missing"));
    EXPECT_THAT(got.err, HasSubstr(": apt-get install cmake g++ "));
    EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), 1) << got.err;
}

} // namespace
