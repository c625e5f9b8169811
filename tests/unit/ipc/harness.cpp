#include "harness.h"

#include "temp_folder.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <mutex>
#include <platform/debug.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::chrono::seconds patience{30};

std::mutex s_lines_lock;
std::vector<std::string> s_lines;

} // namespace

/* In the platform's place: the tests read what operators would. */
void vy_syslog(int, const char *format, ...)
{
    std::array<char, 1024> line{};
    va_list values;
    va_start(values, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is initialized by the line above
    vsnprintf(line.data(), line.size(), format, values);
    va_end(values);
    const std::lock_guard guard(s_lines_lock);
    s_lines.emplace_back(line.data());
}

namespace ipc_test {

test_environment::test_environment(std::initializer_list<std::pair<const char *, const char *>> variables)
    : directory_(new_temp_folder()), owner_(getpid())
{
    setenv("L2VPN_RUNTIME_DIR", directory_.c_str(), 1);
    for (const auto &[name, value] : variables) {
        setenv(name, value, 1);
    }
}

test_environment::~test_environment()
{
    if (getpid() == owner_) {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
}

std::string runtime_dir()
{
    const char *directory = getenv("L2VPN_RUNTIME_DIR");
    return directory != nullptr ? directory : "";
}

std::string socket_path(const std::string &service)
{
    return runtime_dir() + "/" + service + ".sock";
}

std::string test_name()
{
    std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    std::replace(name.begin(), name.end(), '/', '_');
    return name;
}

named_group some_group()
{
    const struct group *const daemon = getgrnam("daemon");
    if (daemon != nullptr && giving_fails_with(daemon->gr_gid) == 0) {
        return {daemon->gr_name, daemon->gr_gid};
    }
    std::vector<gid_t> own = {getegid()};
    own.resize(1 + static_cast<size_t>(std::max(0, getgroups(0, nullptr))));
    own.resize(1 +
               static_cast<size_t>(std::max(0, getgroups(static_cast<int>(own.size() - 1), own.data() + 1))));
    for (const gid_t id : own) {
        if (const struct group *const entry = getgrgid(id); entry != nullptr) {
            return {entry->gr_name, id};
        }
    }
    ADD_FAILURE() << "no group of this user has a name";
    return {};
}

int giving_fails_with(gid_t group)
{
    const std::string folder = new_temp_folder();
    const std::string path = folder + "/probe";
    const int probe = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    EXPECT_GE(probe, 0) << path;
    const int cause = fchown(probe, static_cast<uid_t>(-1), group) == 0 ? 0 : errno;
    close(probe);
    std::filesystem::remove_all(folder);
    return cause;
}

std::vector<std::string> syslog_lines()
{
    const std::lock_guard guard(s_lines_lock);
    return s_lines;
}

size_t syslog_count(const std::string &part)
{
    const auto lines = syslog_lines();
    return static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const auto &line) { return line.find(part) != std::string::npos; }));
}

bool loop::until(const std::function<bool()> &condition) const
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        event_mgr_dispatch(evm_, 5);
    }
    return true;
}

void loop::drain() const
{
    while (event_mgr_dispatch(evm_, 0) > 0) {
    }
}

void put(bytes &to, uint32_t value, int width)
{
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
        to.push_back(static_cast<uint8_t>(value >> shift));
    }
}

bytes message(uint32_t number, size_t length)
{
    bytes made;
    put(made, 3, 4);
    put(made, number, 4);
    while (made.size() < length) {
        made.push_back(static_cast<uint8_t>(number + made.size()));
    }
    return made;
}

uint32_t number_of(const void *message)
{
    uint32_t number = 0;
    memcpy(&number, static_cast<const char *>(message) + 4, sizeof number);
    return ntohl(number);
}

void owner::on_message(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t spare, void *message,
                       uint32_t length, uint32_t spare2, void *cookie)
{
    auto &self = *static_cast<owner *>(cookie);
    EXPECT_EQ(client, self.client_);
    EXPECT_EQ(class_id, self.class_id_);
    EXPECT_EQ(spare, 0u);
    EXPECT_EQ(spare2, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(message) % 8, 0u);
    const uint32_t number = number_of(message);
    memset(message, 0xA5, length);
    self.records.push_back({false, number, length, 0});
    if (self.message_hook) {
        self.message_hook(number);
    }
}

void owner::on_event(l2vpn_ipc_client_t client, uint32_t peer, uint32_t spare, l2vpn_ipc_evt_t event,
                     uint32_t event_arg, void *cookie)
{
    auto &self = *static_cast<owner *>(cookie);
    EXPECT_EQ(client, self.client_);
    EXPECT_EQ(spare, 0u);
    self.records.push_back({true, event, peer, event_arg});
    if (self.event_hook) {
        self.event_hook(event);
    }
}

size_t owner::count(l2vpn_ipc_evt_t event) const
{
    return static_cast<size_t>(std::count_if(
        records.begin(), records.end(), [&](const record &of) { return of.is_event && of.number == event; }));
}

std::vector<uint32_t> owner::numbers() const
{
    std::vector<uint32_t> list;
    for (const record &of : records) {
        if (!of.is_event) {
            list.push_back(of.number);
        }
    }
    return list;
}

l2vpn_ipc_client_t new_client(const loop &on, const std::string &service)
{
    l2vpn_ipc_client_t client = nullptr;
    EXPECT_EQ(l2vpn_ipc_client_init(on.evm(), service.c_str(), &client), qerrno{EOK});
    return client;
}

qerrno recording_server::start(const loop &on, const std::string &service,
                               const l2vpn_ipc_server_options_t &options)
{
    static constexpr l2vpn_ipc_server_callbacks_t callbacks{on_accept, on_message, on_closed, on_log};
    return l2vpn_ipc_server_new(on.evm(), service.c_str(), &options, &callbacks, this, &handle);
}

qerrno recording_server::send(l2vpn_ipc_peer_t peer, const bytes &sent) const
{
    const iovec piece{const_cast<uint8_t *>(sent.data()), sent.size()};
    return l2vpn_ipc_server_sendv(handle, peer, &piece, 1);
}

size_t recording_server::log_count(const std::string &part) const
{
    return static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const auto &line) { return line.find(part) != std::string::npos; }));
}

std::vector<uint32_t> recording_server::numbers() const
{
    std::vector<uint32_t> list;
    list.reserve(received.size());
    for (const auto &[peer, packet] : received) {
        list.push_back(number_of(packet.data()));
    }
    return list;
}

qerrno recording_server::on_accept(l2vpn_ipc_server_t, l2vpn_ipc_peer_t peer,
                                   const l2vpn_ipc_peer_info_t *info, void *arg)
{
    auto &self = *static_cast<recording_server *>(arg);
    EXPECT_EQ(l2vpn_ipc_peer_get_info(peer), info);
    if (self.verdict == EOK) {
        self.peers.push_back(peer);
        self.infos.push_back(*info);
    }
    if (self.accept_hook) {
        self.accept_hook(peer);
    }
    return self.verdict;
}

void recording_server::on_message(l2vpn_ipc_server_t, l2vpn_ipc_peer_t peer, void *message, uint32_t length,
                                  void *arg)
{
    auto &self = *static_cast<recording_server *>(arg);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(message) % 8, 0u);
    const auto *first = static_cast<const uint8_t *>(message);
    self.received.emplace_back(l2vpn_ipc_peer_get_info(peer)->peer_id, bytes(first, first + length));
    const uint32_t number = number_of(message);
    memset(message, 0x5A, length);
    if (self.message_hook) {
        self.message_hook(peer, number);
    }
}

void recording_server::on_closed(l2vpn_ipc_server_t, l2vpn_ipc_peer_t peer, qerrno reason, void *arg)
{
    auto &self = *static_cast<recording_server *>(arg);
    self.closed.emplace_back(l2vpn_ipc_peer_get_info(peer)->peer_id, reason);
    std::erase(self.peers, peer);
}

void recording_server::on_log(l2vpn_ipc_server_t, int, const char *text, void *arg)
{
    static_cast<recording_server *>(arg)->lines.emplace_back(text);
}

} // namespace ipc_test
