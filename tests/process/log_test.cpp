/*
 * The log's rations.
 */
#include "log.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace l2vpnd;

namespace {

event_log::clock::time_point s_now{};

class rations : public testing::Test {
protected:
    rations()
        : m_log(
              [this](int, const char *line) {
                  m_lines.emplace_back(line);
                  return m_takes;
              },
              LOG_NOTICE, [] { return s_now; })
    {
    }

    void write(int times, topic about = topic::dropped)
    {
        for (int i = 0; i < times; i++) {
            m_log.write(about, LOG_WARNING, "line %d", i);
        }
    }

    bool m_takes = true;
    std::vector<std::string> m_lines;
    event_log m_log;
};

} // namespace

TEST_F(rations, a_burst_is_written_the_rest_left_out_and_told)
{
    write(100);
    EXPECT_EQ(m_lines.size(), event_log::burst);
    EXPECT_EQ(m_log.suppressed(), 100 - event_log::burst);
    s_now += event_log::refill;
    write(2);
    ASSERT_EQ(m_lines.size(), event_log::burst + 2);
    EXPECT_EQ(m_lines[event_log::burst], "80 lines like the next were left out");
    EXPECT_EQ(m_lines.back(), "line 0");
}

TEST_F(rations, topics_do_not_starve_each_other)
{
    write(100, topic::dropped);
    m_lines.clear();
    write(3, topic::owners);
    EXPECT_EQ(m_lines.size(), 3U);
}

TEST_F(rations, silence_earns_one_burst_at_most)
{
    write(static_cast<int>(event_log::burst));
    s_now += std::chrono::hours(1000);
    m_lines.clear();
    write(100);
    EXPECT_EQ(m_lines.size(), event_log::burst);
}

TEST_F(rations, less_important_lines_are_not_written_and_cost_nothing)
{
    for (int i = 0; i < 100; i++) {
        m_log.write(topic::dropped, LOG_INFO, "too much detail");
    }
    EXPECT_TRUE(m_lines.empty());
    write(1);
    EXPECT_EQ(m_lines.size(), 1U);
}

TEST_F(rations, lines_that_nobody_takes_are_counted)
{
    m_takes = false;
    write(3);
    EXPECT_EQ(m_log.lost(), 3U);
}

TEST_F(rations, an_endless_line_is_cut)
{
    m_log.write(topic::life, LOG_ERR, "%s", std::string(5000, 'x').c_str());
    ASSERT_EQ(m_lines.size(), 1U);
    EXPECT_EQ(m_lines[0].size(), 1023U);
}
