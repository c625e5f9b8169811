/*
 * What the tests of the IPC share: a runtime directory of their own, an event loop that waits for
 * conditions, owners and servers that record what happens to them, and peers that speak the link by hand.
 *
 * The platform reads its environment once; so every test program has one `test_environment`, made before
 * anything else runs.
 */
#ifndef TESTS_UNIT_IPC_HARNESS_H
#define TESTS_UNIT_IPC_HARNESS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <platform/event_loop.h>
#include <platform/ipc.h>
#include <platform/ipc_server.h>
#include <string>
#include <sys/types.h>
#include <thread>
#include <utility>
#include <vector>

namespace ipc_test {

using bytes = std::vector<uint8_t>;

/* A runtime directory for this process, removed with it. */
class test_environment {
public:
    explicit test_environment(std::initializer_list<std::pair<const char *, const char *>> variables = {});
    test_environment(const test_environment &) = delete;
    test_environment &operator=(const test_environment &) = delete;
    ~test_environment();

private:
    std::string directory_;
    pid_t owner_;
};

std::string runtime_dir();
std::string socket_path(const std::string &service);

/* The name of the test that runs, fit for a service. */
std::string test_name();

struct named_group {
    std::string name;
    gid_t id;
};
/* One that this user may give files to, and that is not its own where it may give them to others. */
named_group some_group();
/* What comes of giving a file of one's own to this group: 0, or an errno. Root may lack the right, too. */
int giving_fails_with(gid_t group);

/* The lines that the platform gave to the system's log so far. */
std::vector<std::string> syslog_lines();
size_t syslog_count(const std::string &part);

/* An event manager that its test dispatches. */
class loop {
public:
    loop() : evm_(event_mgr_new()) {}
    loop(const loop &) = delete;
    loop &operator=(const loop &) = delete;
    ~loop() { event_mgr_free(evm_); }

    [[nodiscard]] event_mgr_p evm() const { return evm_; }

    /* Dispatches until `condition` holds. False after half a minute. */
    bool until(const std::function<bool()> &condition) const;
    /* Does all there is to do at the moment. */
    void drain() const;

private:
    event_mgr_p evm_;
};

/* 16 bytes of header, and what makes the message recognisable. */
bytes message(uint32_t number, size_t length = 16);
uint32_t number_of(const void *message);

/* Appends a number in network byte order. */
void put(bytes &to, uint32_t value, int width);

/* One class of a client, and everything that was called back. */
class owner {
public:
    struct record {
        bool is_event;
        uint32_t number; /* the message's number, or the event */
        uint32_t length; /* the message's length, or the peer */
        uint32_t arg;
        bool operator==(const record &) const = default;
    };

    owner(l2vpn_ipc_client_t client, uint32_t class_id) : client_(client), class_id_(class_id) {}
    owner(const owner &) = delete;
    owner &operator=(const owner &) = delete;
    ~owner() { l2vpn_ipc_class_deinit(client_, class_id_, 0); }

    qerrno start()
    {
        return l2vpn_ipc_class_init(client_, class_id_, 7, on_message, on_event, nullptr, this);
    }
    qerrno stop() { return l2vpn_ipc_class_deinit(client_, class_id_, 0); }
    [[nodiscard]] qerrno send(const bytes &sent) const
    {
        return l2vpn_ipc_ucast(client_, class_id_, L2VPN_IPC_DEST_L2VPN, sent.data(),
                               static_cast<uint32_t>(sent.size()), 0);
    }

    [[nodiscard]] size_t count(l2vpn_ipc_evt_t event) const;
    [[nodiscard]] std::vector<uint32_t> numbers() const;

    std::vector<record> records;
    std::function<void(uint32_t number)> message_hook; /* called after the recording */
    std::function<void(l2vpn_ipc_evt_t event)> event_hook;

private:
    static void on_message(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t spare, void *message,
                           uint32_t length, uint32_t spare2, void *cookie);
    static void on_event(l2vpn_ipc_client_t client, uint32_t peer, uint32_t spare, l2vpn_ipc_evt_t event,
                         uint32_t event_arg, void *cookie);

    l2vpn_ipc_client_t client_;
    uint32_t class_id_;
};

l2vpn_ipc_client_t new_client(const loop &on, const std::string &service);

/* A server, and everything that was called back. */
class recording_server {
public:
    static constexpr l2vpn_ipc_server_options_t defaults{
        .nodeid = 99, .mtu = 0, .max_peers = 0, .listen_fd = -1, .socket_mode = 0, .group = nullptr};

    recording_server() = default;
    recording_server(const recording_server &) = delete;
    recording_server &operator=(const recording_server &) = delete;
    ~recording_server() { stop(); }

    qerrno start(const loop &on, const std::string &service,
                 const l2vpn_ipc_server_options_t &options = defaults);
    void stop() { l2vpn_ipc_server_free(std::exchange(handle, nullptr)); }
    qerrno send(l2vpn_ipc_peer_t peer, const bytes &sent) const;
    [[nodiscard]] bool logged(const std::string &part) const { return log_count(part) > 0; }
    [[nodiscard]] size_t log_count(const std::string &part) const;
    [[nodiscard]] std::vector<uint32_t> numbers() const;

    l2vpn_ipc_server_t handle = nullptr;
    qerrno verdict = EOK; /* of the accept callback */
    std::vector<l2vpn_ipc_peer_t> peers;
    std::vector<l2vpn_ipc_peer_info_t> infos;
    std::vector<std::pair<uint64_t, bytes>> received; /* by peer id */
    std::vector<std::pair<uint64_t, qerrno>> closed;
    std::vector<std::string> lines;
    std::function<void(l2vpn_ipc_peer_t peer)> accept_hook;
    std::function<void(l2vpn_ipc_peer_t peer, uint32_t number)> message_hook;

private:
    static qerrno on_accept(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer,
                            const l2vpn_ipc_peer_info_t *info, void *arg);
    static void on_message(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, void *message, uint32_t length,
                           void *arg);
    static void on_closed(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, qerrno reason, void *arg);
    static void on_log(l2vpn_ipc_server_t server, int level, const char *text, void *arg);
};

/* A socket that speaks the link by hand. */
class raw_socket {
public:
    explicit raw_socket(int fd = -1) : fd_(fd) {}
    raw_socket(raw_socket &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    raw_socket &operator=(raw_socket &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~raw_socket() { reset(); }

    static raw_socket listen_at(const std::string &path);
    static raw_socket connect_to(const std::string &path);

    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] bool is_open() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset();
    /* Empty without a waiting connection. */
    [[nodiscard]] raw_socket accept() const;
    [[nodiscard]] bool send(const bytes &packet) const;
    /* The next packet without waiting; nothing: none there; empty: the end. */
    bool receive(bytes *packet) const;
    /* True when the other side has hung up and nothing is left to read. */
    [[nodiscard]] bool at_end() const;

private:
    int fd_;
};

/* The two greetings, byte by byte. */
struct greeting_fields {
    uint32_t magic = 0x4C32564C;
    uint16_t version = 1;
    uint16_t kind = 1;
    uint32_t class_id = 5;
    uint32_t nodeid = 7;
    uint32_t mtu = 65536;
    uint32_t status = 0;
};
bytes greeting_bytes(const greeting_fields &fields);
greeting_fields greeting_of(const bytes &packet);

/* A raw server: listens, accepts one client and answers its hello. */
class raw_server {
public:
    raw_server(const loop &on, const std::string &service)
        : loop_(on), listener_(raw_socket::listen_at(socket_path(service)))
    {
    }
    /* The next client's hello, not answered yet. */
    bool take_hello();
    bool answer(greeting_fields fields = {.kind = 2, .nodeid = 42});

    raw_socket peer;
    greeting_fields hello;

private:
    const loop &loop_;
    raw_socket listener_;
};

} // namespace ipc_test

#endif
