/*
 * The simulated platform in the place of the real one: a library that is linked against the real platform
 * is loaded, used and unloaded, again and again, and is served by the world of the moment.
 */
#include <platform/sim.h>

#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using l2vpn::sim::fn;
using l2vpn::sim::world;

constexpr const char *platform_library = "libl2vpn_platform.so.1";

bool loaded(const char *library)
{
    void *handle = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr)
        dlclose(handle);
    return handle != nullptr;
}

class probe {
public:
    probe() : handle_(dlopen(SIM_PROBE, RTLD_NOW | RTLD_LOCAL))
    {
        if (handle_ == nullptr)
            throw std::runtime_error(dlerror());
    }
    ~probe() { dlclose(handle_); }
    probe(const probe &) = delete;
    probe &operator=(const probe &) = delete;

    template <class Function>
    [[nodiscard]] Function *function(const char *name) const
    {
        return reinterpret_cast<Function *>(dlsym(handle_, name));
    }

private:
    void *handle_;
};

TEST(sim_interposition, the_sim_needs_no_other_platform)
{
    const world world;
    EXPECT_FALSE(loaded(platform_library));
}

TEST(sim_interposition, it_serves_a_library_that_is_linked_against_the_platform)
{
    world world;
    world.set.nodeid = 0x1234;
    const probe probe;
    EXPECT_TRUE(loaded(platform_library));
    EXPECT_EQ(probe.function<std::uint32_t()>("probe_nodeid")(), 0x1234U);
    EXPECT_EQ(world.count(fn::platform_get_my_nodeid), 1U);
}

TEST(sim_interposition, a_library_can_come_and_go_within_a_world)
{
    world world;
    {
        const probe probe;
        ASSERT_EQ(probe.function<int(event_mgr_p)>("probe_start")(world.evm()), 0);
        EXPECT_EQ(world.clients(), 1U);
        world.advance(2s);
        EXPECT_EQ(probe.function<int()>("probe_expiries")(), 1);
    }
    EXPECT_FALSE(loaded(SIM_PROBE));
    EXPECT_TRUE(world.logged("unloaded"));
    EXPECT_EQ(world.clients(), 0U); // asks nothing of the unloaded tree
}

TEST(sim_interposition, every_load_begins_anew_with_a_world_of_its_own)
{
    for (int i = 0; i < 5; ++i) {
        auto owned = std::make_unique<world>();
        auto library = std::make_unique<probe>();
        ASSERT_EQ(library->function<int(event_mgr_p)>("probe_start")(owned->evm()), 0);
        EXPECT_EQ(library->function<int()>("probe_expiries")(), 0);
        owned->jump(2s); // expired and not delivered
        if (i % 2 == 0)
            owned.reset(); // the library's last call finds no world
        library.reset();
        EXPECT_FALSE(loaded(SIM_PROBE));
    }
    world fresh;
    EXPECT_EQ(fresh.advance(1min), 0U);
}

} // namespace
