/*
 * The control socket: how operators and programs talk to the process.
 *
 * A Unix stream socket; a request is one line of JSON, an answer is one or more. Requests of one connection are
 * answered one after the other, in order.
 *
 * Threads and waiting: everything runs on the event manager's thread, so nothing here may take long. Sockets
 * do not block. A connection holds at most one unfinished request line and one step of an answer: while it does
 * not read, its answer stands still and costs nothing. A connection that asks nothing for ten minutes is closed,
 * and one that does not read its answer for one; so is one whose handling throws, and nothing else notices. When
 * all places are taken the connection that has been idle for longest makes room for a new one.
 */
#ifndef L2VPND_CONTROL_SERVER_H
#define L2VPND_CONTROL_SERVER_H

#include "verbs.h"

#include <chrono>
#include <list>
#include <platform/event_loop.h>
#include <sys/stat.h>

namespace l2vpnd {

struct control_options {
    std::string path;
    int listen_fd = -1; /* a socket that listens at the path already; its file stays when the server goes */
    mode_t mode = 0660;
    const char *group = nullptr; /* null: the process's own */
    size_t max_line = size_t{1} << 20;
};

class control_server {
public:
    using clock = std::chrono::steady_clock;

    static constexpr size_t max_clients = 32;
    static constexpr std::chrono::minutes idle_limit{10};
    static constexpr std::chrono::minutes unread_limit{1};

    control_server(event_mgr_p evm, const verb_context &context, event_log &log);
    ~control_server();
    control_server(const control_server &) = delete;
    control_server &operator=(const control_server &) = delete;

    /* Listens. A socket that is there is replaced: call it only once the service's socket has been won.
     * Not EOK: `*error` is a line that says what and where. */
    qerrno open(const control_options &options, std::string *error);
    void tick(clock::time_point now);

private:
    struct connection {
        control_server &server;
        int fd;
        event_fd_watch_t *watch;
        std::string in;
        std::string out;
        size_t written = 0;
        answer_ptr current;
        json id;
        size_t line_end = std::string::npos; /* of the first line in `in`; npos: none is whole yet */
        bool ended = false;                  /* the client sends nothing more */
        bool closing = false;                /* to be closed when the output is out */
        clock::time_point progress = clock::now();

        /* Nothing is to be answered. */
        bool idle() const { return current == nullptr && out.empty() && line_end == std::string::npos; }
    };
    using connections = std::list<connection>;

    static void on_connect(event_fd_watch_t *watch, int fd, uint32_t events, void *arg);
    static void on_ready(event_fd_watch_t *watch, int fd, uint32_t events, void *arg);

    qerrno make_socket(const control_options &options, std::string *error);
    void accept_one();
    bool make_room();
    void refuse(int fd, const char *why);
    bool serve(connection &c, uint32_t events);
    void close(connection &c);
    bool read_some(connection &c);
    bool write_some(connection &c);
    bool advance(connection &c);
    bool next_line(connection &c);
    void start(connection &c, const std::string &line);
    void step(connection &c);
    static json error_fields(const refusal &why);
    static void put(connection &c, const json &fields);
    static void put_error(connection &c, const refusal &why);

    event_mgr_p m_evm;
    verb_context m_context;
    event_log &m_log;
    std::string m_path;
    size_t m_max_line = 0;
    struct stat m_file {}; /* another process may have put its own there since */
    int m_fd = -1;
    event_fd_watch_t *m_watch = nullptr;
    bool m_paused = false; /* no descriptor could be had: not accepting until the next tick */
    connections m_connections;
};

} // namespace l2vpnd

#endif
