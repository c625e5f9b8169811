/*
 * The real l2vpnd in a folder of its own, raw peers that speak its link, and raw and ordinary ways to ask it.
 */
#ifndef TESTS_PROCESS_DAEMON_H
#define TESTS_PROCESS_DAEMON_H

#include "../process/support.h"
#include "child.h"
#include "json.h"

#include <gtest/gtest.h>
#include <optional>

namespace process_test {

using l2vpnd::json;
using system_test::eventually;

/* An owner that is nothing but a socket. */
class raw_peer {
public:
    /* Connects and sends nothing yet. */
    explicit raw_peer(const std::string &socket_path);
    /* Opens the link and expects to be accepted. */
    raw_peer(const std::string &socket_path, uint32_t class_id, uint32_t node = 7, uint32_t mtu = 65536);
    /* The same, connected by a process of its own: that is the one which the kernel tells of. */
    static raw_peer of_another_process(const std::string &socket_path, uint32_t class_id, uint32_t node = 7);
    ~raw_peer();
    raw_peer(raw_peer &&other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    raw_peer(const raw_peer &) = delete;
    raw_peer &operator=(const raw_peer &) = delete;

    /* The status of the answer to a greeting. */
    uint32_t greet(uint32_t class_id, uint32_t node, uint32_t mtu, uint16_t version = 1);
    /* False: the link is broken. Waits for room, bounded. */
    bool send(const octets &packet);
    /* Never waits. False: no room, or the link is broken. */
    bool try_send(const octets &packet);
    /* The next packet; an empty one when the link has ended; nothing when none comes in time. */
    std::optional<octets> receive();
    bool ended();
    void close();

private:
    explicit raw_peer(int fd) : m_fd(fd) {}
    bool wait_for(short events) const;

    int m_fd;
};

/* A connection to the control socket, line by line. */
class raw_control {
public:
    explicit raw_control(const std::string &path);
    ~raw_control();
    raw_control(const raw_control &) = delete;
    raw_control &operator=(const raw_control &) = delete;

    void send(const std::string &text);
    /* The next line as JSON; discarded when the connection has ended or nothing comes in time. */
    json line();
    /* Reads up to the line with "ok", which it returns; rows are appended to `rows`. */
    json answer(json *rows = nullptr);
    bool ended();
    /* Something is there to be read, be it the end. */
    bool readable() const;
    void end_sending();

private:
    std::optional<std::string> read_line();

    int m_fd;
    std::string m_in;
    bool m_ended = false;
};

class daemon_test : public testing::Test {
protected:
    /* Keeps a small ring, unless the options say how large. */
    void start(const std::vector<std::string> &options = {});
    /* Ends it with SIGTERM; its exit status. */
    int stop();

    std::string socket_path() const { return m_dir.file("L2VPN.sock"); }
    std::string control_path() const { return m_dir.file("L2VPN.ctl"); }
    raw_peer peer(uint32_t class_id, uint32_t node = 7) const { return {socket_path(), class_id, node}; }

    system_test::result ctl(std::vector<std::string> arguments) const;
    /* The JSON document of a request that must succeed. */
    json ask(const std::vector<std::string> &arguments) const;
    json acs() const { return ask({"show", "acs", "--raw"})["acs"]; }
    json totals() const { return ask({"counters"})["totals"]; }
    bool holds(uint64_t count) const;
    bool has_dropped(const char *reason, uint64_t count) const;

    system_test::temp_dir m_dir;
    std::unique_ptr<system_test::child> m_daemon;
};

/* Exactly one line. */
testing::AssertionResult is_one_line(const std::string &text);

} // namespace process_test

#endif
