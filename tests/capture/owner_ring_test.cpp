/*
 * The ring that every owner has unless it is told otherwise: bounded, and nobody's trouble where there cannot be one.
 * The environment is read once a process, so each owner here is a child of its own.
 */
#include "child.h"
#include "forked_owner.h"
#include "ring_reader.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <platform/config.h>
#include <platform/event_loop.h>
#include <platform/ipc.h>
#include <set>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

/* These take the C library's places, so that a test can have a disk that is full, or nearly so. */
namespace {
constexpr int always = INT_MAX;
int s_full = 0; /* so many times it is */
constexpr uint64_t block = 4096;
/* For an owner's ring, and for a server's of 4 MiB. */
constexpr uint64_t enough = uint64_t{64} * 256 * 1024;
uint64_t s_free = enough;
/* What was asked of the disk, by children, too: how much it has taken is not told by every file system. */
struct allocation {
    off_t size;
    uint64_t files; /* in its folder, itself among them */
};
allocation *const s_asked = static_cast<allocation *>(
    mmap(nullptr, sizeof(allocation), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
uint64_t files_beside(int fd)
{
    namespace fs = std::filesystem;
    const fs::path file = fs::read_symlink("/proc/self/fd/" + std::to_string(fd));
    const fs::directory_iterator folder(file.parent_path());
    return static_cast<uint64_t>(std::distance(begin(folder), end(folder)));
}
} // namespace
extern "C" __attribute__((visibility("default"))) int posix_fallocate(int fd, off_t offset, off_t length)
{
    using function = int (*)(int, off_t, off_t);
    *s_asked = {offset == 0 ? length : 0, files_beside(fd)};
    return s_full > 0 && s_full-- > 0
               ? ENOSPC
               : reinterpret_cast<function>(dlsym(RTLD_NEXT, "posix_fallocate"))(fd, offset, length);
}
extern "C" __attribute__((visibility("default"))) int statvfs(const char *path, struct statvfs *about)
{
    using function = int (*)(const char *, struct statvfs *);
    const int result = reinterpret_cast<function>(dlsym(RTLD_NEXT, "statvfs"))(path, about);
    about->f_frsize = block;
    about->f_bavail = s_free / block;
    return result;
}

namespace {

namespace fs = std::filesystem;
using namespace l2vpn::capture;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uintmax_t default_size = 4096 + 256 * 1024;

/* An owner of class 5, without a process to talk to. It lives until it is killed. */
class owner : public process_test::forked_owner {
public:
    using environment = std::map<std::string, std::string>;

    /* It says its lines on standard error, then its ring's path; one that forks, the child's too. */
    explicit owner(const std::string &runtime_dir, const environment &more = {}, bool forks = false)
        : forked_owner([&](int to) { be_one(runtime_dir, more, forks, to); })
    {
    }

private:
    static void connect(int to)
    {
        l2vpn_ipc_client_t client = nullptr;
        if (l2vpn_ipc_client_init(event_mgr_new(), "L2VPN", &client) != EOK) {
            dprintf(to, "no client\n");
        }
        dprintf(to, "%s\n", fs::path(platform_capture_path()).filename().c_str());
    }

    static void be_one(const std::string &runtime_dir, const environment &more, bool forks, int to)
    {
        dup2(to, STDERR_FILENO);
        setenv("L2VPN_RUNTIME_DIR", runtime_dir.c_str(), 1);
        for (const auto &[name, value] : more) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        connect(to);
        if (forks) {
            if (const pid_t child = fork(); child == 0) {
                dprintf(to, "%s\n", platform_capture_path());
                connect(to);
                _exit(0);
            } else {
                waitpid(child, nullptr, 0);
            }
        }
        close(STDERR_FILENO);
    }
};

/* It has the ring that a server has by default. */
class server : public process_test::forked_owner {
public:
    explicit server(const std::string &runtime_dir, const char *where = "default")
        : forked_owner([&](int to) {
              dup2(to, STDERR_FILENO);
              setenv("L2VPN_RUNTIME_DIR", runtime_dir.c_str(), 1);
              dprintf(to, "%s\n", qerr_strerror(platform_capture_set(where, 4096, 0)));
              close(STDERR_FILENO);
          })
    {
    }
};

class owner_rings : public testing::Test {
protected:
    ~owner_rings() override
    {
        s_full = 0;
        s_free = enough;
    }

    std::set<std::string> files() const
    {
        std::set<std::string> found;
        for (const auto &entry : fs::directory_iterator(m_dir.path())) {
            found.insert(entry.path().filename());
        }
        return found;
    }

    static std::string ring_of(const process_test::forked_owner &of)
    {
        return std::string(program_invocation_short_name) + "-" + std::to_string(of.pid()) + ".ring";
    }

    /* An owner goes on, silently and without a ring, and leaves nothing. */
    void expect_none(const owner::environment &more = {})
    {
        const owner one(m_dir.path(), more);
        EXPECT_EQ(one.said(), "\n");
        EXPECT_THAT(files(), IsEmpty());
    }
    void expect_told(const std::string &why)
    {
        const owner one(m_dir.path(), {{"L2VPN_CAPTURE", "on"}});
        EXPECT_THAT(one.said(), testing::HasSubstr("l2vpn: no capture ring: "));
        EXPECT_THAT(one.said(), testing::EndsWith(why + "\n\n"));
    }

    /* The ring of a process that has ended, under another name. */
    void leave_dead(const std::string &name) const
    {
        fs::copy_file(m_dir.file(m_dead), m_dir.file(name), fs::copy_options::overwrite_existing);
    }
    void make_dead()
    {
        owner one(m_dir.path());
        m_dead = ring_of(one);
        one.end();
        m_dead_pid = m_dead.substr(m_dead.rfind('-') + 1);
        m_dead_pid.resize(m_dead_pid.find('.'));
    }
    /* Two of this name, and the older one's. */
    std::string make_two_dead()
    {
        make_dead();
        const std::string older = std::string(program_invocation_short_name) + "-" + m_dead_pid + ".ring.1";
        leave_dead(older);
        fs::last_write_time(m_dir.file(older),
                            fs::last_write_time(m_dir.file(m_dead)) - std::chrono::hours(1));
        return older;
    }

    system_test::temp_dir m_dir;
    std::string m_dead;
    std::string m_dead_pid;
};

} // namespace

TEST_F(owner_rings, are_there_unless_told_otherwise_and_have_the_size_that_is_said)
{
    const owner one(m_dir.path());
    EXPECT_EQ(one.said(), ring_of(one) + "\n");
    EXPECT_THAT(files(), ElementsAre(ring_of(one)));
    struct stat about {};
    ASSERT_EQ(stat(m_dir.file(ring_of(one)).c_str(), &about), 0);
    EXPECT_EQ(static_cast<uintmax_t>(about.st_size), default_size);
    EXPECT_EQ(static_cast<uintmax_t>(s_asked->size), default_size) << "a full disk shows now";
    EXPECT_EQ(about.st_mode & 0777, 0600U);
}

TEST_F(owner_rings, are_off_where_they_are_switched_off)
{
    expect_none({{"L2VPN_CAPTURE", "off"}});
}

TEST_F(owner_rings, survive_kill_and_can_be_read)
{
    make_dead();
    const ring_reader reader(m_dir.file(m_dead));
    EXPECT_TRUE(reader.writer_ended());
    EXPECT_EQ(reader.process(), program_invocation_short_name);
    EXPECT_EQ(std::to_string(reader.pid()), m_dead_pid);
}

TEST_F(owner_rings, of_two_at_once_are_two)
{
    const owner one(m_dir.path());
    const owner other(m_dir.path());
    EXPECT_EQ(files(), (std::set<std::string>{ring_of(one), ring_of(other)}));
    EXPECT_FALSE(ring_reader(m_dir.file(ring_of(one))).writer_ended());
}

TEST_F(owner_rings, of_a_child_are_its_own)
{
    const owner one(m_dir.path(), {}, true);
    EXPECT_THAT(one.said(), testing::StartsWith(ring_of(one) + "\n\n")) << "none until it asks for one";
    EXPECT_EQ(files().size(), 2U);
    EXPECT_FALSE(ring_reader(m_dir.file(ring_of(one))).writer_ended());
}

TEST_F(owner_rings, of_processes_that_ended_do_not_pile_up)
{
    std::string latest;
    for (int round = 0; round < 6; round++) {
        owner one(m_dir.path());
        latest = ring_of(one);
        EXPECT_LE(files().size(), 3U) << "its own, and two";
        EXPECT_LE(s_asked->files, 3U) << "nor while it is made";
    }
    EXPECT_TRUE(files().contains(latest)) << "the newest stays";
}

TEST_F(owner_rings, of_many_programs_that_ended_do_not_pile_up)
{
    make_dead();
    for (int program = 0; program < 80; program++) {
        leave_dead("program" + std::to_string(program) + "-" + m_dead_pid + ".ring");
    }
    const owner one(m_dir.path());
    EXPECT_EQ(files().size(), 32U + 1U) << "of all programs, and its own";
    EXPECT_TRUE(files().contains(ring_of(one)));
}

TEST_F(owner_rings, that_were_never_finished_are_removed_and_nothing_else_is)
{
    make_dead();
    const std::string unfinished =
        std::string(program_invocation_short_name) + "-" + m_dead_pid + ".ring.a1B2c3";
    m_dir.write(unfinished, std::string(5000, '\0'));
    const std::set<std::string> others = {
        "L2VPN.sock", "notes-1.ring.a1B2c3", "program-x.ring", "program.ring", "-7.ring", "program-7.trace"};
    for (const std::string &other : others) {
        m_dir.write(other, "precious");
    }
    fs::create_directory(m_dir.file("program-" + m_dead_pid + ".ring"));
    const owner one(m_dir.path());
    EXPECT_FALSE(files().contains(unfinished));
    for (const std::string &other : others) {
        EXPECT_EQ(system_test::read_file(m_dir.file(other)), "precious") << other;
    }
    EXPECT_TRUE(fs::is_directory(m_dir.file("program-" + m_dead_pid + ".ring")));
}

TEST_F(owner_rings, take_nothing_of_a_full_disk)
{
    s_full = always;
    expect_none();
    expect_told("No space left on device");
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(owner_rings, take_a_sixty_fourth_of_what_is_free_at_most_unless_they_are_asked_for)
{
    s_free = enough - block;
    expect_none();
    const owner asked(m_dir.path(), {{"L2VPN_CAPTURE", "on"}});
    EXPECT_THAT(files(), ElementsAre(ring_of(asked)));
}

TEST_F(owner_rings, of_a_process_that_ended_make_room_for_a_new_one)
{
    make_two_dead();
    s_full = 1;
    const owner one(m_dir.path());
    EXPECT_THAT(files(), testing::UnorderedElementsAre(m_dead, ring_of(one))) << "the oldest has gone";
}

TEST_F(owner_rings, of_processes_that_ended_stay_where_a_new_one_has_no_room_without_them_either)
{
    const std::string older = make_two_dead();
    constexpr uint64_t wanted = 4096 + 4096 * 1024;
    s_full = always;
    s_free = wanted - default_size - block;
    for (int start = 0; start < 2; start++) {
        const server none(m_dir.path(), "on");
        EXPECT_THAT(none.said(), testing::EndsWith("No space left on device\n"));
        EXPECT_THAT(files(), testing::UnorderedElementsAre(m_dead, older));
    }
    s_full = 1;
    s_free += block;
    const server one(m_dir.path(), "on");
    EXPECT_THAT(files(), testing::UnorderedElementsAre(m_dead, ring_of(one))) << one.said();
}

TEST_F(owner_rings, of_servers_leave_as_much_free_as_they_can_take)
{
    {
        const server one(m_dir.path());
        EXPECT_THAT(files(), ElementsAre(ring_of(one))) << one.said();
    }
    s_free = enough - block;
    {
        const server other(m_dir.path());
        EXPECT_THAT(files(), testing::Contains(ring_of(other))) << "what has ended can go: " << other.said();
    }
    for (const std::string &file : files()) {
        fs::remove(m_dir.file(file));
    }
    const server none(m_dir.path());
    EXPECT_THAT(files(), IsEmpty());
    EXPECT_EQ(none.said(), "l2vpn: no capture ring: " + m_dir.path() +
                               ": not 4 times the 4096 KiB that it takes are free\n"
                               "No space left on device\n");
    const server asked(m_dir.path(), "on");
    EXPECT_THAT(files(), ElementsAre(ring_of(asked))) << asked.said();
}

TEST_F(owner_rings, of_processes_that_ended_count_by_what_they_take)
{
    make_two_dead();
    s_free = enough - 2 * default_size - block;
    {
        const server none(m_dir.path());
        EXPECT_THAT(none.said(), testing::HasSubstr(": not 4 times the 4096 KiB that it takes are free\n"));
        EXPECT_EQ(files().size(), 2U);
    }
    s_free += block;
    const server one(m_dir.path());
    EXPECT_TRUE(files().contains(ring_of(one))) << one.said();
}

TEST_F(owner_rings, make_no_directory_that_is_not_there)
{
    fs::remove(m_dir.path());
    const owner one(m_dir.path());
    EXPECT_EQ(one.said(), "\n");
    EXPECT_FALSE(fs::exists(m_dir.path()));
}

TEST_F(owner_rings, are_not_put_where_anybody_may_write)
{
    fs::permissions(m_dir.path(), fs::perms::others_write, fs::perm_options::add);
    expect_none();
    expect_told("anybody may write to it");
}

TEST_F(owner_rings, are_no_trouble_where_files_are_limited)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{100 * 1024, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    expect_none();
    expect_told("File too large");
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
}
