/*
 * Two ends of a link, read together, and a ring that is read while its writers overtake each other.
 */
#include "capture/format.h"
#include "forked_owner.h"
#include "recorded.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <platform/config.h>
#include <platform/event_loop.h>
#include <platform/ipc.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

using namespace process_test;

namespace {

constexpr uint32_t messages = 400;

/* An owner of class 3 that sends messages, told apart by their flags, and waits to be killed. */
class owner : public forked_owner {
public:
    explicit owner(const std::string &runtime_dir)
        : forked_owner([&runtime_dir](int to) {
              setenv("L2VPN_RUNTIME_DIR", runtime_dir.c_str(), 1);
              be_one(to);
          })
    {
    }
    const std::string &ring() const { return said(); }

private:
    static void on_message(l2vpn_ipc_client_t, uint32_t, uint32_t, void *, uint32_t, uint32_t, void *) {}
    static void on_event(l2vpn_ipc_client_t, uint32_t, uint32_t, l2vpn_ipc_evt_t event, uint32_t, void *up)
    {
        *static_cast<bool *>(up) = event == L2VPN_IPC_EVT_CONNECTED;
    }

    /* What it has to say is the path of its ring, once all is sent; nothing when something failed. */
    static void be_one(int to)
    {
        const event_mgr_p events = event_mgr_new();
        l2vpn_ipc_client_t client = nullptr;
        bool up = false;
        qerrno status = l2vpn_ipc_client_init(events, "L2VPN", &client);
        if (status == EOK) {
            status = l2vpn_ipc_class_init(client, 3, 7, on_message, on_event, nullptr, &up);
        }
        while (status == EOK && !up) {
            event_mgr_dispatch(events, -1);
        }
        for (uint32_t number = 1; status == EOK && number <= messages; number++) {
            const octets message = header(0, 0, number).bytes();
            status = l2vpn_ipc_ucast(client, 3, L2VPN_IPC_DEST_L2VPN, message.data(),
                                     static_cast<uint32_t>(message.size()), 0);
        }
        if (status == EOK) {
            dprintf(to, "%s", platform_capture_path());
        }
    }
};

/* Writes into the ring of a process that is idle, as a thread of it would. */
class intruder {
public:
    explicit intruder(const std::string &path) : m_fd(open(path.c_str(), O_RDWR | O_CLOEXEC))
    {
        m_slot = at<l2vpn::capture::slot>(l2vpn::capture::slots_offset);
    }
    ~intruder() { close(m_fd); }
    intruder(const intruder &) = delete;
    intruder &operator=(const intruder &) = delete;

    /* The ring's first record once more, with another number. */
    void add(uint64_t number)
    {
        using l2vpn::capture::ring_header;
        auto next = at<uint64_t>(offsetof(ring_header, next));
        l2vpn::capture::slot made = m_slot;
        made.sequence = 2 * next + 2;
        l2vpn::capture::put_number(&made.bytes[16 + 32], number);
        put(static_cast<off_t>(l2vpn::capture::slots_offset + next * sizeof made), made);
        put(offsetof(ring_header, next), ++next);
        m_records = std::max(m_records, number + 1);
        put(offsetof(ring_header, records), m_records);
    }

private:
    template <typename Type>
    Type at(off_t offset) const
    {
        Type value{};
        EXPECT_EQ(pread(m_fd, &value, sizeof value, offset), static_cast<ssize_t>(sizeof value));
        return value;
    }
    template <typename Type>
    void put(off_t offset, const Type &value) const
    {
        EXPECT_EQ(pwrite(m_fd, &value, sizeof value, offset), static_cast<ssize_t>(sizeof value));
    }

    int m_fd;
    l2vpn::capture::slot m_slot{};
    uint64_t m_records = 1;
};

class merged : public recorded {
protected:
    system_test::child follow() const
    {
        return {system_test::binary("l2vpnctl"),
                {"monitor", "--runtime-dir", m_dir.path(), "--history", "--json"}};
    }
    /* The process, once it has received all that an owner says. */
    bool is_killed_with_all_told()
    {
        if (!eventually([&] { return totals()["received"].value("JOIN", uint64_t{0}) == messages; })) {
            return false;
        }
        m_daemon->send_signal(SIGKILL);
        return m_daemon->wait() == -SIGKILL;
    }
    /* The numbers of the records that were shown; -N where N were said to be missing. */
    static std::vector<int64_t> numbers(const std::string &text)
    {
        std::vector<int64_t> found;
        for (const json &row : parsed(text)) {
            found.push_back(row.contains("lost") ? -row["lost"].get<int64_t>()
                                                 : row["number"].get<int64_t>());
        }
        return found;
    }
};

} // namespace

TEST_F(merged, both_ends_tell_of_the_same_messages_in_the_order_of_time_and_of_what_one_has_lost)
{
    start({"--capture-size", "64"}); /* 256 slots: the beginning is lost */
    owner one(m_dir.path());
    ASSERT_NE(one.ring(), "");
    const std::string its = ring();
    ASSERT_TRUE(is_killed_with_all_told());
    const pid_t pid = one.pid();
    one.end();

    constexpr uint32_t kept = 256;
    std::map<std::string, std::vector<json>> seen;
    std::vector<json> losses;
    std::string time;
    for (const json &row : rows({"--read", its, "--read", one.ring()})) {
        if (row.contains("lost")) {
            losses.push_back(row);
            continue;
        }
        EXPECT_LE(time, row["time"].get<std::string>());
        time = row["time"];
        EXPECT_EQ(row["pid"], pid);
        EXPECT_EQ(row["class"], 3);
        std::vector<json> &of = seen[row["observer"]];
        EXPECT_TRUE(of.empty() || row["number"] == of.back()["number"].get<uint64_t>() + 1);
        of.push_back(row);
    }
    EXPECT_EQ(losses, (std::vector<json>{{{"lost", messages + 1 - kept}}})) << "of its link's beginning, too";
    ASSERT_EQ(seen.size(), 2U);
    ASSERT_EQ(seen["process"].size(), kept);
    ASSERT_EQ(seen["owner"].size(), messages + 1U);
    EXPECT_EQ(seen["owner"][0]["kind"], "up");
    for (uint32_t back = 1; back <= kept; back++) {
        const json &here = seen["owner"][messages + 1 - back];
        const json &there = seen["process"][kept - back];
        EXPECT_EQ(here["flags"], messages + 1 - back);
        for (const char *field :
             {"kind", "type", "direction", "flags", "count", "length", "recorded", "node"}) {
            EXPECT_EQ(here.value(field, json()), there.value(field, json())) << field;
        }
    }
}

/* Each observer counts links for itself: an owner's number is the process's. */
TEST_F(merged, of_an_owner_is_what_the_process_recorded_of_it)
{
    start({"--capture-size", "1024"});
    owner one(m_dir.path());
    ASSERT_NE(one.ring(), "");
    const std::string its = ring();
    ASSERT_TRUE(is_killed_with_all_told());
    one.end();
    const std::vector<json> owners = rows({"--read", one.ring()});
    ASSERT_EQ(owners.size(), messages + 1U);
    ASSERT_EQ(owners[0]["link"], rows({"--read", its})[0]["owner"]) << "the same number, by chance";
    const std::string number = owners[0]["link"].dump();
    EXPECT_EQ(rows({"--read", its, "--owner", number}).size(), owners.size());
    EXPECT_EQ(rows({"--read", one.ring(), "--owner", number}).size(), 0U);
    EXPECT_EQ(rows({"--read", its, "--read", one.ring(), "--owner", number}).size(), owners.size());
}

TEST_F(merged, files_of_either_kind_are_read_together)
{
    start({"--capture-size", "64"}); /* the beginning is lost */
    owner one(m_dir.path());
    ASSERT_NE(one.ring(), "");
    const std::string its = ring();
    ASSERT_TRUE(is_killed_with_all_told());
    one.end();
    const auto as_file = [&](const std::string &from, const std::string &name) {
        EXPECT_EQ(ctl({"capture", "-w", m_dir.file(name), "--from-ring", from}).status, 0);
        return m_dir.file(name);
    };
    const std::string file = as_file(its, "process.pcapng");
    const std::string other = as_file(one.ring(), "owner.pcapng");
    const std::vector<json> both = rows({"--read", its, "--read", one.ring()});
    EXPECT_GT(both.size(), messages + 200U);
    EXPECT_EQ(rows({"--read", file, "--read", one.ring()}), both);
    EXPECT_EQ(rows({"--read", file, "--read", other}), both);
    EXPECT_EQ(ctl({"timeline", file, other, one.ring(), "-o", m_dir.file("x.html")}).status, 0);
    const system_test::result none = ctl({"explain", "0x11", "--read", file, "--read", other, "--json"});
    EXPECT_EQ(none.status, 5);
    EXPECT_EQ(json::parse(none.out)["searched"].size(), 2U);

    const std::string content = system_test::read_file(other);
    const std::string cut = m_dir.write("cut.pcapng", content.substr(0, content.size() / 2));
    const system_test::result broken = monitor({"--read", file, "--read", cut, "--json"});
    EXPECT_EQ(broken.status, 1);
    EXPECT_THAT(broken.err, HasSubstr("cut.pcapng: breaks off at byte "));
    EXPECT_TRUE(is_one_line(broken.err));
    EXPECT_GT(parsed(broken.out).size(), 256U + messages / 4) << "what is there is shown, of both";
    const std::string more = m_dir.write("more.pcapng", content.substr(0, content.size() - 1));
    const system_test::result all = monitor({"--read", cut, "--read", file, "--read", more, "--json"});
    EXPECT_TRUE(is_one_line(all.err)) << all.err;
    EXPECT_THAT(all.err, HasSubstr("cut.pcapng: breaks off at byte "));
    EXPECT_THAT(all.err, HasSubstr("; " + more + ": breaks off at byte ")) << "of each";
    expect_one_line(monitor({"--read", file, "--read", m_dir.write("text", "text")}), 1,
                    "text: not a pcapng file");
}

/* In the middle as at the beginning. */
TEST_F(merged, what_is_missing_is_told_once_and_where_it_is_missing)
{
    start();
    raw_peer owner = peer(3);
    ASSERT_TRUE(owner.send(create(3, {0x11})));
    ASSERT_TRUE(holds(1));
    intruder writer(ring());
    writer.add(2);
    writer.add(9);
    writer.add(10);
    const std::string file = m_dir.file("x.pcapng");
    ASSERT_EQ(ctl({"capture", "-w", file, "--from-ring", ring()}).status, 0);
    const std::vector<int64_t> expected = {0, 1, 2, -6, 9, 10};
    EXPECT_EQ(numbers(monitor({"--read", ring(), "--json"}).out), expected);
    EXPECT_EQ(numbers(monitor({"--read", file, "--json"}).out), expected);
    for (const std::string &from : {ring(), file}) {
        const json told = json::parse(ctl({"explain", "0x11", "--read", from, "--json"}).out);
        EXPECT_EQ(told["searched"][0]["overwritten"], 0) << from;
        EXPECT_EQ(told["searched"][0]["lost"], 6) << from;
    }
}

TEST_F(merged, writers_that_overtake_each_other_are_put_right_as_they_are_followed)
{
    start();
    raw_peer owner = peer(3);
    intruder thread(ring());
    system_test::child seen = follow();
    ASSERT_TRUE(seen.says("\"number\":0"));
    seen.send_signal(SIGSTOP); /* so that it finds all of them at once */
    for (const uint64_t number : {2U, 1U, 5U, 4U, 3U, 6U}) {
        thread.add(number);
    }
    seen.send_signal(SIGCONT);
    ASSERT_TRUE(seen.says("\"number\":6"));
    seen.send_signal(SIGINT);
    EXPECT_EQ(seen.wait(), 0) << seen.err();
    EXPECT_EQ(numbers(seen.out()), (std::vector<int64_t>{0, 1, 2, 3, 4, 5, 6}));
}

TEST_F(merged, a_number_that_does_not_come_is_not_waited_for_without_end)
{
    start();
    raw_peer owner = peer(3);
    intruder thread(ring());
    system_test::child seen = follow();
    ASSERT_TRUE(seen.says("\"number\":0"));
    thread.add(3);
    ASSERT_TRUE(seen.says("\"number\":3"));
    thread.add(4);
    ASSERT_TRUE(seen.says("\"number\":4"));
    thread.add(2); /* late, but there */
    ASSERT_TRUE(seen.says("\"number\":2"));
    seen.send_signal(SIGINT);
    EXPECT_EQ(seen.wait(), 0) << seen.err();
    const std::vector<int64_t> found = numbers(seen.out());
    ASSERT_GE(found.size(), 5U);
    EXPECT_EQ((std::vector<int64_t>(found.begin(), found.begin() + 5)),
              (std::vector<int64_t>{0, -2, 3, 4, 2}));
}

TEST_F(merged, a_gap_is_not_waited_for_when_much_has_come_behind_it)
{
    start({"--capture-size", "1024"});
    raw_peer owner = peer(3);
    intruder thread(ring());
    system_test::child seen = follow();
    ASSERT_TRUE(seen.says("\"number\":0"));
    constexpr int64_t last = 200;
    std::vector<int64_t> expected = {0, -1};
    for (int64_t number = 2; number <= last; number++) {
        thread.add(static_cast<uint64_t>(number));
        expected.push_back(number);
    }
    ASSERT_TRUE(seen.says("\"number\":200"));
    seen.send_signal(SIGINT);
    EXPECT_EQ(seen.wait(), 0) << seen.err();
    EXPECT_EQ(numbers(seen.out()), expected);
}
