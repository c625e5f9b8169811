/*
 * l2vpnd's trace file: what is in it, and that the process does not depend on it.
 */
#include "daemon.h"

#include <csignal>
#include <filesystem>
#include <sys/resource.h>

using namespace process_test;

namespace {

class traced_daemon : public daemon_test {
protected:
    void start_traced(const std::string &where)
    {
        m_daemon = std::make_unique<system_test::child>(
            system_test::binary("l2vpnd"),
            std::vector<std::string>{"--runtime-dir", m_dir.path(), "--nodeid", "1", "--auto-provision",
                                     "--capture", "off"},
            std::vector<std::string>{"L2VPN_TRACE=" + where});
        ASSERT_TRUE(m_daemon->says("l2vpnd: ready on " + socket_path() + "\n")) << m_daemon->err();
    }

    /* It works as ever, and has said that there is no trace. */
    void expect_untraced(const std::string &where)
    {
        raw_peer owner = peer(3);
        ASSERT_TRUE(owner.send(create(3, {1})));
        EXPECT_TRUE(holds(1));
        EXPECT_EQ(stop(), 0);
        const std::string said = m_daemon->err();
        EXPECT_TRUE(is_one_line(said));
        EXPECT_EQ(said.rfind("l2vpn: no trace: " + where + ": ", 0), 0U) << said;
    }
};

/* Files cannot grow beyond `bytes` while it lives, in programs that are started meanwhile. */
class file_size_limit {
public:
    explicit file_size_limit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit less{bytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &less);
    }
    ~file_size_limit() { setrlimit(RLIMIT_FSIZE, &m_before); }
    file_size_limit(const file_size_limit &) = delete;
    file_size_limit &operator=(const file_size_limit &) = delete;

private:
    rlimit m_before{};
};

} // namespace

TEST_F(traced_daemon, records_what_is_received_dropped_and_sent)
{
    const std::string path = m_dir.file("trace");
    start_traced(path);
    raw_peer owner = peer(3);
    const octets message = create(3, {1, 2});
    ASSERT_TRUE(owner.send(message));
    ASSERT_TRUE(owner.receive());
    ASSERT_TRUE(owner.send(header(99, 0, 0).bytes()));
    ASSERT_TRUE(has_dropped("type", 1));
    m_daemon->send_signal(SIGKILL);
    EXPECT_EQ(m_daemon->wait(), -SIGKILL);

    const system_test::result read = system_test::run(system_test::binary("l2vpn-trace"), {path});
    EXPECT_EQ(read.status, 0) << read.err;
    EXPECT_NE(read.out.find("l2vpnd["), std::string::npos) << read.out;
    for (const std::string &record :
         {"received: owner 1 class 3 type 2 bytes " + std::to_string(message.size()),
          std::string("sent: owner 1 class 3 type 7 bytes 80: status 0"),
          std::string("dropped: owner 1 class 3 type 99 bytes 16: ")}) {
        EXPECT_NE(read.out.find(record), std::string::npos) << record << "\n" << read.out;
    }
}

TEST_F(traced_daemon, goes_on_where_no_file_can_be_made)
{
    const std::string path = m_dir.file("no/trace");
    start_traced(path);
    expect_untraced(path);
}

TEST_F(traced_daemon, goes_on_when_the_device_is_full)
{
    const std::string path = m_dir.file("trace");
    {
        const file_size_limit full(100'000);
        start_traced(path);
    }
    expect_untraced(path);
    EXPECT_FALSE(std::filesystem::exists(path));
}
