#include "owner.h"

namespace sim_test {
namespace {

using testing::ElementsAre;

/* Handlers for codes, which write down what they are called for. */
struct codes {
    struct one {
        codes *all;
        int code;
        event_context_t context{};
    };

    int attach(event_mgr_p evm, int code)
    {
        one &entry = *attached.emplace_back(std::make_unique<one>(one{this, code}));
        return event_async_attach_event(evm, code, on_code, &entry, &entry.context);
    }
    static void on_code(event_context_t *context, void *arg)
    {
        auto &entry = *static_cast<one *>(arg);
        EXPECT_EQ(context, &entry.context);
        entry.all->came.push_back(entry.code);
        entry.all->inside(entry.code);
    }

    std::vector<std::unique_ptr<one>> attached;
    std::vector<int> came;
    std::function<void(int)> inside = [](int) {};
};

TEST(sim_delivery, every_posted_code_is_delivered_in_order)
{
    world world;
    codes codes;
    ASSERT_EQ(codes.attach(world.evm(), 1), 0);
    ASSERT_EQ(codes.attach(world.evm(), 2), 0);
    world.post(2);
    world.post(1);
    world.post(3);
    EXPECT_EQ(event_async_post(world.evm(), 2), 0);
    EXPECT_TRUE(codes.came.empty());
    EXPECT_EQ(world.run(), 3U);
    EXPECT_THAT(codes.came, ElementsAre(2, 1, 2));
}

TEST(sim_delivery, an_attachment_fills_its_context_and_is_replaced_by_the_next)
{
    world world;
    codes first;
    codes second;
    ASSERT_EQ(first.attach(world.evm(), 1), 0);
    const event_context_t &context = first.attached[0]->context;
    EXPECT_EQ(context.evm, world.evm());
    EXPECT_EQ(context.code, 1);
    EXPECT_EQ(context.handler, codes::on_code);
    EXPECT_EQ(context.arg, first.attached[0].get());
    EXPECT_EQ(world.attached(1), &context);
    EXPECT_EQ(world.attached(2), nullptr);

    world.post(1);
    ASSERT_EQ(second.attach(world.evm(), 1), 0);
    EXPECT_EQ(world.attached(1), &second.attached[0]->context);
    world.run();
    EXPECT_TRUE(first.came.empty());
    EXPECT_THAT(second.came, ElementsAre(1));
}

TEST(sim_delivery, bad_attachments_are_refused)
{
    world world;
    event_context_t context{};
    errno = 0;
    EXPECT_LT(event_async_attach_event(nullptr, 1, codes::on_code, nullptr, &context), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(event_async_attach_event(world.evm(), 1, nullptr, nullptr, &context), 0);
    EXPECT_LT(event_async_attach_event(world.evm(), 1, codes::on_code, nullptr, nullptr), 0);
    EXPECT_EQ(context.evm, nullptr);
    EXPECT_EQ(world.attached(1), nullptr);
}

TEST(sim_delivery, run_delivers_what_the_handlers_cause)
{
    world world;
    codes codes;
    ASSERT_EQ(codes.attach(world.evm(), 1), 0);
    codes.inside = [&](int) {
        if (codes.came.size() < 5)
            world.post(1);
    };
    world.post(1);
    EXPECT_EQ(world.run(), 5U);
}

TEST(sim_delivery, step_delivers_one_thing)
{
    world world;
    codes codes;
    ASSERT_EQ(codes.attach(world.evm(), 1), 0);
    world.post(9); // nobody's: dropped on the way
    world.post(1);
    world.post(1);
    EXPECT_TRUE(world.step());
    EXPECT_EQ(codes.came.size(), 1U);
    EXPECT_TRUE(world.step());
    EXPECT_FALSE(world.step());
}

TEST(sim_delivery, handlers_run_one_at_a_time)
{
    world world;
    codes codes;
    ASSERT_EQ(codes.attach(world.evm(), 1), 0);
    codes.inside = [&](int) {
        EXPECT_THROW(world.run(), std::logic_error);
        EXPECT_THROW(world.step(), std::logic_error);
        EXPECT_THROW(world.advance(1s), std::logic_error);
        EXPECT_LT(event_mgr_dispatch(world.evm(), 0), 0);
        EXPECT_EQ(errno, EBUSY);
    };
    world.post(1);
    world.post(1);
    EXPECT_EQ(world.run(), 2U);
}

TEST(sim_delivery, endless_delivery_ends)
{
    world world;
    codes codes;
    ASSERT_EQ(codes.attach(world.evm(), 1), 0);
    codes.inside = [&](int) { world.post(1); };
    world.set.max_handlers = 10;
    world.post(1);
    EXPECT_THROW(world.run(), std::runtime_error);
    EXPECT_EQ(codes.came.size(), 10U);

    codes.inside = [](int) {};
    EXPECT_LE(world.run(), 1U); // and the world goes on
}

TEST(sim_delivery, an_exception_of_a_handler_reaches_the_test)
{
    world world;
    codes codes;
    ASSERT_EQ(codes.attach(world.evm(), 1), 0);
    codes.inside = [](int) { throw std::domain_error("from the test"); };
    world.post(1);
    EXPECT_THROW(world.run(), std::domain_error);
    EXPECT_EQ(world.run(), 0U);
}

TEST(sim_delivery, the_clock_moves_forward_only_and_only_when_told)
{
    world world;
    EXPECT_EQ(world.now(), 0s);
    world.run();
    EXPECT_EQ(world.now(), 0s);
    world.advance(3s);
    world.jump(2s);
    EXPECT_EQ(world.now(), 5s);
    EXPECT_THROW(world.advance(-1ns), std::invalid_argument);
    EXPECT_THROW(world.jump(-1ns), std::invalid_argument);
    EXPECT_EQ(world.now(), 5s);
}

TEST(sim_delivery, scheduled_actions_come_in_time_before_timers)
{
    world world;
    alarm_clock clock(world);
    std::vector<std::string> came;
    clock.on_leaf = [&](auto *) { came.emplace_back("timer"); };
    clock.started(2s);
    world.at(3s, [&] { came.emplace_back("late"); });
    world.at(2s, [&] { came.emplace_back("with the timer"); });
    world.at(2s, [&] {
        came.emplace_back("also");
        EXPECT_EQ(world.now(), 2s);
    });
    world.advance(2s);
    EXPECT_THAT(came, ElementsAre("with the timer", "also", "timer"));
    world.jump(10s);
    world.at(1s, [&] { came.emplace_back("overdue"); });
    EXPECT_EQ(world.run(), 2U);
    EXPECT_THAT(came, ElementsAre("with the timer", "also", "timer", "late", "overdue"));
    EXPECT_THROW(world.at(1s, {}), std::invalid_argument);
}

} // namespace
} // namespace sim_test
