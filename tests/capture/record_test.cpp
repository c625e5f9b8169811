/*
 * Recording from inside a process: what it costs, what it leaves alone, and what becomes of the files of rings.
 */
#include "capture/capture.h"
#include "child.h"
#include "forked.h"
#include "ipc/client.h"
#include "ring_reader.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <platform/config.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace l2vpn;
using namespace l2vpn::capture;

namespace {

std::vector<captured> read_ring(const std::string &path)
{
    std::vector<captured> records;
    ring_reader(path).read(records);
    return records;
}

class recording : public testing::Test {
protected:
    ~recording() override { platform_capture_set("off", 64, 0); }

    /* What `work` returns in a process of its own; -signal when one ended it. */
    static int in_child(const std::function<int()> &work)
    {
        return system_test::forked([&work](int) { return work(); }).wait();
    }

    void record_message(ipc::registration &of) const
    {
        std::array<char, 64> bytes{};
        const iovec piece{bytes.data(), bytes.size()};
        ipc::client_record(of, nullptr, record_kind::message, flow::to_process, EOK, &piece, 1);
    }

    system_test::temp_dir m_dir;
    std::string m_path = m_dir.file("own.ring");
    ipc::registration m_class;
};

} // namespace

#ifdef L2VPN_NO_SANITIZER /* those make calls of their own */

namespace {

/* From here on any system call ends the process, but for its end and for clocks that the kernel reads. */
bool forbid_system_calls()
{
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clock_gettime, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(rules), rules};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

} // namespace

TEST_F(recording, takes_no_system_call)
{
    constexpr int messages = 100;
    ASSERT_EQ(in_child([this] {
                  if (platform_capture_set(m_path.c_str(), 64, 160) != EOK) {
                      return 1;
                  }
                  record_message(m_class);
                  if (!forbid_system_calls()) {
                      return 2;
                  }
                  for (int i = 0; i < messages; i++) {
                      record_message(m_class);
                  }
                  return 0;
              }),
              0);
    EXPECT_EQ(read_ring(m_path).size(), messages + 1U);
    EXPECT_EQ(in_child([] { return forbid_system_calls() ? static_cast<int>(getppid()) : 2; }), -SIGSYS)
        << "or nothing is forbidden here";
}

#endif

TEST_F(recording, a_ring_that_is_made_anew_keeps_the_one_before)
{
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(platform_capture_set(m_path.c_str(), 64, 160), EOK);
        record_message(m_class);
    }
    record_message(m_class);
    EXPECT_EQ(read_ring(m_path).size(), 2U);
    EXPECT_EQ(read_ring(m_path + ".1").size(), 1U);
}

TEST_F(recording, what_is_no_ring_is_not_moved_aside)
{
    ASSERT_EQ(platform_capture_set(m_path.c_str(), 64, 160), EOK);
    ASSERT_EQ(platform_capture_set("off", 64, 160), EOK);
    m_dir.write("own.ring.2", "precious");
    EXPECT_EQ(platform_capture_set(m_path.c_str(), 64, 160), EEXIST);
    EXPECT_EQ(system_test::read_file(m_path + ".2"), "precious");
    EXPECT_TRUE(read_ring(m_path).empty());
}

TEST_F(recording, names_the_process_that_recorded)
{
    ASSERT_EQ(platform_capture_set(m_path.c_str(), 64, 160), EOK);
    record_message(m_class);
    const std::vector<captured> found = read_ring(m_path);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].head.pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(found[0].head.uid, geteuid());
}

TEST_F(recording, leaves_errno_alone)
{
    ASSERT_EQ(platform_capture_set(m_path.c_str(), 64, 160), EOK);
    errno = ERANGE;
    record_message(m_class);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(read_ring(m_path).size(), 1U);
}

TEST_F(recording, a_child_has_no_ring_until_it_asks_for_one)
{
    ASSERT_EQ(platform_capture_set(m_path.c_str(), 64, 160), EOK);
    const std::string other = m_dir.file("child.ring");
    ASSERT_EQ(in_child([&] {
                  record_message(m_class);
                  if (*platform_capture_path() != '\0' ||
                      platform_capture_set(other.c_str(), 64, 160) != EOK) {
                      return 1;
                  }
                  record_message(m_class);
                  return 0;
              }),
              0);
    record_message(m_class);
    EXPECT_EQ(read_ring(m_path).size(), 1U);
    EXPECT_FALSE(ring_reader(m_path).writer_ended()) << "the parent keeps its lock";
    EXPECT_EQ(read_ring(other).size(), 1U);
    EXPECT_TRUE(ring_reader(other).writer_ended());
}
