#include "control_link.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <platform/config.h>
#include <platform/qerr.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace l2vpnctl {

namespace {

constexpr size_t read_size = size_t{64} * 1024;
constexpr int connect_pause_ms = 20;

/* A request as a line. A command line can hold any bytes, a request cannot. */
std::string request_line(const std::string &verb, const json &args)
{
    for (const auto &[name, value] : args.items()) {
        try {
            (void)value.dump();
        } catch (const json::type_error &) {
            throw failure{exit_usage, "the value given for \"" + name + "\" is not UTF-8"};
        }
    }
    return json{{"verb", verb}, {"args", args}}.dump() + "\n";
}

} // namespace

std::string meaning_of(int cause)
{
    return qerr_strerror(static_cast<qerrno>(cause));
}

std::string control_path(const std::string &runtime_dir)
{
    if (!runtime_dir.empty()) {
        std::error_code error;
        const std::string dir = std::filesystem::absolute(runtime_dir, error);
        if (error) {
            throw failure{exit_failed, "cannot tell the current directory: " + meaning_of(error.value())};
        }
        setenv("L2VPN_RUNTIME_DIR", dir.c_str(), 1);
    }
    char service[sizeof(sockaddr_un::sun_path)];
    if (const qerrno status = platform_service_path("L2VPN", service, sizeof service); status != EOK) {
        throw failure{exit_failed, "cannot tell the path of the control socket" +
                                       (runtime_dir.empty() ? "" : " in " + runtime_dir) + ": " +
                                       qerr_strerror(status)};
    }
    const std::string path = service;
    return path.substr(0, path.rfind('/') + 1) + "L2VPN.ctl";
}

failure odd_answer(const std::string &path)
{
    return {exit_broken, "l2vpnd at " + path + ": its answer is not as it should be"};
}

control_link::control_link(std::string path, std::chrono::milliseconds patience)
    : m_path(std::move(path)), m_patience(patience), m_deadline(clock::now() + patience)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_path.copy(address.sun_path, sizeof address.sun_path - 1);
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    while (m_fd < 0 || connect(m_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int cause = errno;
        if (m_fd >= 0 && cause == EAGAIN && clock::now() < m_deadline) {
            poll(nullptr, 0, connect_pause_ms); /* a full backlog gives no sign of room */
            continue;
        }
        if (m_fd >= 0) {
            close(m_fd);
        }
        const bool absent = cause == ENOENT || cause == ECONNREFUSED;
        throw failure{exit_unreachable, "cannot reach l2vpnd at " + m_path + ": " + meaning_of(cause) +
                                            (absent ? " (is it running?)" : "")};
    }
}

control_link::~control_link()
{
    close(m_fd);
}

void control_link::broken(const std::string &why) const
{
    throw failure{exit_broken, "l2vpnd at " + m_path + ": " + why};
}

std::chrono::milliseconds control_link::time_left() const
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_deadline - clock::now());
    if (left.count() <= 0) {
        broken("no complete answer within " + std::to_string(m_patience.count()) + " ms");
    }
    return left;
}

void control_link::wait_for(short events)
{
    pollfd ready{m_fd, events, 0};
    if (poll(&ready, 1, static_cast<int>(time_left().count())) < 0 && errno != EINTR) {
        broken("cannot wait for it: " + meaning_of(errno));
    }
}

void control_link::send(const std::string &line)
{
    for (size_t sent = 0; sent < line.size();) {
        const ssize_t put = ::send(m_fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (put >= 0) {
            sent += static_cast<size_t>(put);
        } else if (errno == EAGAIN) {
            wait_for(POLLOUT);
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return; /* why may stand in what it has sent */
        } else if (errno != EINTR) {
            broken("cannot send the request: " + meaning_of(errno));
        }
    }
}

std::string control_link::read_line()
{
    size_t looked = m_begin;
    for (;;) {
        const size_t end = m_in.find('\n', looked);
        if (end != std::string::npos) {
            std::string line = m_in.substr(m_begin, end - m_begin);
            m_begin = end + 1;
            return line;
        }
        static_cast<void>(time_left()); /* also of one that never stops sending */
        m_in.erase(0, m_begin);
        m_begin = 0;
        looked = m_in.size();
        m_in.resize(looked + read_size);
        const ssize_t got = recv(m_fd, m_in.data() + looked, read_size, 0);
        const int cause = errno;
        m_in.resize(looked + (got > 0 ? static_cast<size_t>(got) : 0));
        if (got == 0) {
            broken("it closed the connection before its answer was complete");
        } else if (got < 0 && cause == EAGAIN) {
            wait_for(POLLIN);
        } else if (got < 0 && cause != EINTR) {
            broken("the connection broke: " + meaning_of(cause));
        }
    }
}

json control_link::ask(const std::string &verb, const json &args,
                       const std::function<void(const json &row)> &row)
{
    send(request_line(verb, args));
    for (;;) {
        const json line = json::parse(read_line(), nullptr, false);
        if (!line.is_object()) {
            broken("its answer is no JSON object");
        }
        if (const auto rows = line.find("rows"); rows != line.end()) {
            for (const json &one : *rows) {
                row(one);
            }
            continue;
        }
        if (line.value("ok", false)) {
            return line.value("result", json::object());
        }
        const json error = line.value("error", json::object());
        const std::string code = error.value("code", "unknown");
        throw failure{code == "bad_argument" ? exit_usage : exit_failed, error.value("text", "failed")};
    }
}

} // namespace l2vpnctl
