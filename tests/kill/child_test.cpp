/* Programs that a test started end with it, also when it cannot end them. */
#include "child.h"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(child_of_a_test, does_not_outlive_it)
{
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0) << "so that what is left behind comes here";
    const system_test::temp_dir dir; /* of what the dying one leaves */
    const pid_t dying = fork();
    ASSERT_GE(dying, 0);
    if (dying == 0) {
        setenv("TMPDIR", dir.path().c_str(), 1);
        const system_test::child left("/bin/sh", {"-c", "echo running; exec sleep 20"});
        if (left.says("running"))
            (void)raise(SIGKILL);
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(dying, &status, 0), dying);
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "it ended by itself";
}

} // namespace
