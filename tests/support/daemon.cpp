#include "daemon.h"

#include "forked.h"

#include <algorithm>
#include <csignal>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace process_test {

namespace {

constexpr int patience_ms = 20000;
constexpr size_t largest_packet = size_t{1} << 20;

int connect_to(const std::string &path, int type, bool elsewhere = false)
{
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) {
        throw std::runtime_error("too long for a socket: " + path);
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const auto connected = [&](int) {
        return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : 1;
    };
    if (fd < 0 || (elsewhere ? system_test::forked(connected).wait() : connected(fd)) != 0) {
        throw std::runtime_error("cannot connect to " + path);
    }
    return fd;
}

} // namespace

raw_peer::raw_peer(const std::string &socket_path) : m_fd(connect_to(socket_path, SOCK_SEQPACKET)) {}

raw_peer::raw_peer(const std::string &socket_path, uint32_t class_id, uint32_t node, uint32_t mtu)
    : raw_peer(socket_path)
{
    if (greet(class_id, node, mtu) != 0) {
        throw std::runtime_error("the link was refused");
    }
}

raw_peer raw_peer::of_another_process(const std::string &socket_path, uint32_t class_id, uint32_t node)
{
    raw_peer made(connect_to(socket_path, SOCK_SEQPACKET, true));
    if (made.greet(class_id, node, 65536) != 0) {
        throw std::runtime_error("the link was refused");
    }
    return made;
}

raw_peer::~raw_peer()
{
    close();
}

void raw_peer::close()
{
    if (m_fd >= 0) {
        ::close(std::exchange(m_fd, -1));
    }
}

bool raw_peer::wait_for(short events) const
{
    pollfd ready{m_fd, events, 0};
    return poll(&ready, 1, patience_ms) == 1;
}

uint32_t raw_peer::greet(uint32_t class_id, uint32_t node, uint32_t mtu, uint16_t version)
{
    constexpr uint32_t magic = 0x4C32564C;
    send(builder().u32(magic).u16(version).u16(1).u32(class_id).u32(node).u32(mtu).u32(0).bytes());
    const std::optional<octets> answer = receive();
    if (!answer || answer->size() != 24) {
        throw std::runtime_error("no answer to the greeting");
    }
    return l2vpnd::get32(answer->data() + 20);
}

bool raw_peer::send(const octets &packet)
{
    return wait_for(POLLOUT) &&
           ::send(m_fd, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

bool raw_peer::try_send(const octets &packet)
{
    return ::send(m_fd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(packet.size());
}

std::optional<octets> raw_peer::receive()
{
    if (!wait_for(POLLIN)) {
        return std::nullopt;
    }
    octets packet(largest_packet);
    const ssize_t got = recv(m_fd, packet.data(), packet.size(), 0);
    packet.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return packet;
}

bool raw_peer::ended()
{
    std::optional<octets> packet = receive();
    while (packet && !packet->empty()) {
        packet = receive();
    }
    return packet.has_value();
}

raw_control::raw_control(const std::string &path) : m_fd(connect_to(path, SOCK_STREAM)) {}

raw_control::~raw_control()
{
    ::close(m_fd);
}

void raw_control::send(const std::string &text)
{
    for (size_t sent = 0; sent < text.size();) {
        pollfd ready{m_fd, POLLOUT, 0};
        if (poll(&ready, 1, patience_ms) != 1) {
            throw std::runtime_error("the control socket takes nothing");
        }
        const ssize_t put = ::send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (put < 0 && errno != EAGAIN) {
            return; /* the other end has had enough; the test looks at what it said */
        }
        sent += put > 0 ? static_cast<size_t>(put) : 0;
    }
}

bool raw_control::readable() const
{
    pollfd ready{m_fd, POLLIN, 0};
    return !m_in.empty() || poll(&ready, 1, 0) == 1;
}

void raw_control::end_sending()
{
    shutdown(m_fd, SHUT_WR);
}

std::optional<std::string> raw_control::read_line()
{
    for (;;) {
        const size_t end = m_in.find('\n');
        if (end != std::string::npos) {
            std::string line = m_in.substr(0, end);
            m_in.erase(0, end + 1);
            return line;
        }
        pollfd ready{m_fd, POLLIN, 0};
        char part[65536];
        const ssize_t got = poll(&ready, 1, patience_ms) == 1 ? recv(m_fd, part, sizeof part, 0) : -1;
        if (got <= 0) {
            m_ended = got == 0 || errno == ECONNRESET;
            return std::nullopt;
        }
        m_in.append(part, static_cast<size_t>(got));
    }
}

json raw_control::line()
{
    const std::optional<std::string> text = read_line();
    return text ? json::parse(*text, nullptr, false) : json(json::value_t::discarded);
}

json raw_control::answer(json *rows)
{
    for (;;) {
        json part = line();
        if (!part.is_object() || part.contains("ok")) {
            return part;
        }
        if (rows != nullptr) {
            for (const json &row : part["rows"]) {
                rows->push_back(row);
            }
        }
    }
}

bool raw_control::ended()
{
    while (read_line()) {
    }
    return m_ended;
}

void daemon_test::start(const std::vector<std::string> &options)
{
    std::vector<std::string> arguments = {"--runtime-dir", m_dir.path(), "--nodeid", "0x0a0b0c0d"};
    if (std::ranges::find(options, "--capture-size") == options.end()) {
        arguments.insert(arguments.end(), {"--capture-size", "64"});
    }
    arguments.insert(arguments.end(), options.begin(), options.end());
    m_daemon = std::make_unique<system_test::child>(system_test::binary("l2vpnd"), arguments);
    ASSERT_TRUE(m_daemon->says("l2vpnd: ready on " + socket_path() + "\n")) << m_daemon->err();
}

int daemon_test::stop()
{
    m_daemon->send_signal(SIGTERM);
    return m_daemon->wait();
}

system_test::result daemon_test::ctl(std::vector<std::string> arguments) const
{
    arguments.insert(arguments.end(), {"--runtime-dir", m_dir.path()});
    return system_test::run(system_test::binary("l2vpnctl"), arguments);
}

json daemon_test::ask(const std::vector<std::string> &arguments) const
{
    std::vector<std::string> words = arguments;
    words.emplace_back("--json");
    const system_test::result got = ctl(words);
    EXPECT_EQ(got.status, 0) << got.err;
    json document = json::parse(got.out, nullptr, false);
    EXPECT_TRUE(document.is_object()) << got.out;
    return document;
}

bool daemon_test::holds(uint64_t count) const
{
    return eventually([this, count] { return ask({"status"})["acs"] == count; });
}

bool daemon_test::has_dropped(const char *reason, uint64_t count) const
{
    return eventually([&] { return totals()["dropped"][reason] == count; });
}

testing::AssertionResult is_one_line(const std::string &text)
{
    const bool one = std::count(text.begin(), text.end(), '\n') == 1 && text.back() == '\n';
    return one ? testing::AssertionSuccess() : testing::AssertionFailure() << "not one line: " << text;
}

} // namespace process_test
