#include "control_server.h"

#include "file_access.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace l2vpnd {

namespace {

constexpr int steps_an_event = 4;

/* Removes the socket that another run left. Nothing else is ever removed. */
qerrno remove_socket(const std::string &path)
{
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        return errno == ENOENT ? EOK : static_cast<qerrno>(errno);
    }
    if (!S_ISSOCK(found.st_mode)) {
        return ENOTSOCK;
    }
    return unlink(path.c_str()) == 0 || errno == ENOENT ? EOK : static_cast<qerrno>(errno);
}

/* Empty: done. Otherwise what failed, with errno set. */
const char *set_group_and_mode(const control_options &options)
{
    using namespace l2vpn::platform_posix;
    gid_t group = same_group;
    if (const qerrno status = find_group(options.group, &group); status != EOK) {
        errno = static_cast<int>(status);
        return status == ENOENT ? "no such group for" : "cannot look up the group for";
    }
    switch (give_access(options.path, group, options.mode)) {
    case access_fault::group:
        return "cannot set the group of";
    case access_fault::mode:
        return "cannot set the mode of";
    default:
        return "";
    }
}

/* With the cause in errno. */
qerrno open_failed(const control_options &options, const char *what, std::string *error)
{
    const qerrno status = errno != 0 ? static_cast<qerrno>(errno) : EIO;
    *error = std::string(what) + " the control socket " + options.path + ": " + qerr_strerror(status);
    return status;
}

} // namespace

control_server::control_server(event_mgr_p evm, const verb_context &context, event_log &log)
    : m_evm(evm), m_context(context), m_log(log)
{
}

control_server::~control_server()
{
    while (!m_connections.empty()) {
        close(m_connections.front());
    }
    event_fd_unwatch(m_watch);
    if (m_fd >= 0) {
        struct stat there {};
        if (lstat(m_path.c_str(), &there) == 0 && there.st_dev == m_file.st_dev &&
            there.st_ino == m_file.st_ino) {
            unlink(m_path.c_str());
        }
        ::close(m_fd);
    }
}

qerrno control_server::open(const control_options &options, std::string *error)
{
    m_path = options.path;
    m_max_line = options.max_line;
    if (options.listen_fd < 0) {
        if (const qerrno status = make_socket(options, error); status != EOK) {
            return status;
        }
    } else {
        m_fd = options.listen_fd;
        if (fcntl(m_fd, F_SETFL, O_NONBLOCK) != 0) {
            return open_failed(options, "cannot listen on", error);
        }
    }
    m_watch = event_fd_watch(m_evm, m_fd, EVENT_FD_READ, on_connect, this);
    return m_watch != nullptr ? EOK : open_failed(options, "cannot watch", error);
}

qerrno control_server::make_socket(const control_options &options, std::string *error)
{
    const auto failed = [&](const char *what) { return open_failed(options, what, error); };
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (options.path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return failed("cannot make");
    }
    options.path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (const qerrno status = remove_socket(m_path); status != EOK) {
        errno = static_cast<int>(status);
        return failed(status == ENOTSOCK ? "something else is in the way of" : "cannot make");
    }
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        return failed("cannot make");
    }
    /* The file gets the descriptor's mode: nobody comes in before it has its own group and mode. */
    if (fchmod(m_fd, S_IRUSR | S_IWUSR) != 0 ||
        bind(m_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int cause = errno;
        ::close(m_fd);
        m_fd = -1; /* what stands at the path is not ours */
        errno = cause;
        return failed("cannot make");
    }
    if (lstat(m_path.c_str(), &m_file) != 0) {
        return failed("cannot find");
    }
    if (const char *what = set_group_and_mode(options); *what != '\0') {
        return failed(what);
    }
    return listen(m_fd, 16) == 0 ? EOK : failed("cannot listen on");
}

void control_server::on_connect(event_fd_watch_t * /*watch*/, int /*fd*/, uint32_t /*events*/, void *arg)
{
    control_server &server = *static_cast<control_server *>(arg);
    try {
        server.accept_one();
    } catch (const std::exception &error) {
        server.m_log.write(topic::control, LOG_ERR, "a control connection was not taken: %s", error.what());
    }
}

void control_server::accept_one()
{
    const int fd = accept4(m_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            m_log.write(topic::control, LOG_WARNING, "cannot accept on %s: %s", m_path.c_str(),
                        qerr_strerror(static_cast<qerrno>(errno)));
            m_paused = true;
            event_fd_modify(m_watch, 0);
        }
        return;
    }
    if (m_connections.size() >= max_clients && !make_room()) {
        refuse(fd, "too many control connections are being answered");
        ::close(fd);
        return;
    }
    connections fresh;
    try {
        fresh.emplace_back(connection{*this, fd, nullptr, {}, {}, 0, {}, {}});
    } catch (...) {
        ::close(fd);
        throw;
    }
    m_connections.splice(m_connections.end(), fresh);
    connection &c = m_connections.back();
    c.watch = event_fd_watch(m_evm, fd, EVENT_FD_READ, on_ready, &c);
    if (c.watch == nullptr) {
        close(c);
    }
}

/* Ends the connection that has been idle for longest. False: none is idle. */
bool control_server::make_room()
{
    const auto longest = std::ranges::min_element(
        m_connections, {}, [](const connection &c) { return std::pair(!c.idle(), c.progress); });
    if (!longest->idle()) {
        return false;
    }
    m_log.write(topic::control, LOG_NOTICE, "an idle control connection makes room for another");
    refuse(longest->fd, "too many control connections are open, and this one was idle for longest");
    close(*longest);
    return true;
}

/* Tells a client why its connection ends, if it can be told without waiting. */
void control_server::refuse(int fd, const char *why)
{
    const std::string line = to_line(error_fields({"too_many_clients", why})) + "\n";
    (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void control_server::close(connection &c)
{
    event_fd_unwatch(c.watch);
    ::close(c.fd);
    m_connections.remove_if([&c](const connection &other) { return &other == &c; });
}

void control_server::on_ready(event_fd_watch_t * /*watch*/, int /*fd*/, uint32_t events, void *arg)
{
    connection &c = *static_cast<connection *>(arg);
    control_server &server = c.server;
    bool alive = false;
    try {
        alive = server.serve(c, events);
    } catch (const std::exception &error) {
        server.m_log.write(topic::control, LOG_ERR, "a control connection was ended: %s", error.what());
    }
    if (!alive) {
        server.close(c);
        return;
    }
    event_fd_modify(c.watch, c.idle() ? EVENT_FD_READ : EVENT_FD_WRITE);
}

/* What there is to do for a connection that is ready. False: it is to be closed. */
bool control_server::serve(connection &c, uint32_t events)
{
    bool alive = true;
    if ((events & (EVENT_FD_READ | EVENT_FD_HANGUP)) != 0 && c.current == nullptr && c.out.empty()) {
        alive = read_some(c);
    } else if ((events & EVENT_FD_HANGUP) != 0) {
        alive = false; /* nobody is there to read the rest */
    }
    for (int i = 0; alive && i < steps_an_event; i++) {
        const bool busy = c.current != nullptr || !c.out.empty();
        alive = advance(c);
        if (!busy || !c.out.empty()) {
            break;
        }
    }
    return alive;
}

void control_server::tick(clock::time_point now)
{
    if (m_paused) {
        m_paused = false;
        event_fd_modify(m_watch, EVENT_FD_READ);
    }
    for (auto at = m_connections.begin(); at != m_connections.end();) {
        connection &c = *at++;
        if (now - c.progress > (c.idle() ? idle_limit : unread_limit)) {
            close(c);
        }
    }
}

} // namespace l2vpnd
