/* What a program meets that closes the platform, or a library that needs it, and goes on. */
#include "child.h"

#include <platform/config.h>

#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/* Loads the platform, switches its trace on and closes the platform. */
void trace_and_close(const std::string &path)
{
    void *const handle = ::dlopen(PLATFORM, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << ::dlerror();
    void *const found = ::dlsym(handle, "platform_trace_set");
    ASSERT_NE(found, nullptr);
    ASSERT_EQ(reinterpret_cast<decltype(&platform_trace_set)>(found)(path.c_str()), EOK);
    ASSERT_EQ(::dlclose(handle), 0);
}

TEST(unload_DeathTest, an_abort_afterwards_is_still_an_abort_and_names_the_trace)
{
    const system_test::temp_dir place;
    const std::string path = place.file("trace");
    EXPECT_EXIT(
        {
            trace_and_close(path);
            std::abort();
        },
        testing::KilledBySignal(SIGABRT), "the trace of .* is in " + path);
}

TEST(unload_DeathTest, a_fork_and_an_exit_afterwards_do_no_harm)
{
    const system_test::temp_dir place;
    EXPECT_EXIT(
        {
            trace_and_close(place.file("trace"));
            const pid_t forked = ::fork();
            if (forked == 0) {
                ::_exit(0);
            }
            int status = -1;
            ::waitpid(forked, &status, 0);
            std::exit(status);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
