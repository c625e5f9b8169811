#include "fleet_test.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace kill_test {

namespace {

/* Throws for what is no number, or less than that: a test that kills nothing has shown nothing. */
unsigned long number(const char *variable, unsigned long otherwise, unsigned long least)
{
    const char *const text = getenv(variable);
    if (text == nullptr)
        return otherwise;
    const char *const end = text + strlen(text);
    unsigned long value = 0;
    const auto [stopped_at, status] = std::from_chars(text, end, value);
    if (status != std::errc() || stopped_at != end || value < least)
        throw std::invalid_argument(std::string(variable) + "='" + text + "' is no number of " +
                                    std::to_string(least) + " or more");
    return value;
}

const system_test::temp_dir &program_dir()
{
    static const system_test::temp_dir dir;
    return dir;
}

} // namespace

unsigned long kills()
{
    constexpr unsigned long some_of_each_kind = 10;
    return number("L2VPN_KILLS", L2VPN_KILLS, some_of_each_kind);
}

unsigned long seed()
{
    static const unsigned long chosen = number("L2VPN_KILL_SEED", std::random_device{}(), 0);
    return chosen;
}

fleet_test::fleet_test()
    : m_dir(program_dir()), m_random(static_cast<uint32_t>(seed())), m_fleet(m_dir.path())
{
    printf("again with L2VPN_KILL_SEED=%lu\n", seed());
    fflush(stdout);
}

void fleet_test::start()
{
    m_control.reset();
    m_daemon = std::make_unique<child>(binary("l2vpnd"), daemon_arguments());
    ASSERT_TRUE(m_daemon->says("l2vpnd: ready on ")) << m_daemon->err();
    m_control = std::make_unique<process_test::raw_control>(m_dir.file("L2VPN.ctl"));
}

void fleet_test::kill_it()
{
    m_daemon->send_signal(SIGKILL);
    EXPECT_EQ(m_daemon->wait(), -SIGKILL) << m_daemon->err();
}

void fleet_test::expect_what_is_intended(const std::set<uint32_t> &others)
{
    m_fleet.change(false);
    std::string text = "the owners are not all up";
    const bool same = eventually([&] {
        if (m_fleet.settled())
            text = difference(m_fleet.owners(), *m_control, others);
        return text.empty();
    });
    ASSERT_TRUE(same) << text << m_daemon->err();
}

void fleet_test::let_pass(std::chrono::microseconds most)
{
    const auto limit = static_cast<uint32_t>(most.count());
    std::this_thread::sleep_for(std::chrono::microseconds(m_random() % (limit + 1)));
}

} // namespace kill_test
