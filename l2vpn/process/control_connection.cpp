/*
 * One control connection: the lines that come, the answers that go.
 */
#include "control_request.h"
#include "control_server.h"

#include <cerrno>
#include <sys/socket.h>

namespace l2vpnd {

namespace {

constexpr size_t read_size = size_t{64} * 1024;

} // namespace

json control_server::error_fields(const refusal &why)
{
    return {{"ok", false}, {"error", {{"code", why.code}, {"text", why.text}}}};
}

bool control_server::read_some(connection &c)
{
    char room[read_size];
    const ssize_t got = recv(c.fd, room, sizeof room, 0);
    if (got > 0) {
        const size_t before = c.in.size();
        c.in.append(room, static_cast<size_t>(got));
        if (c.line_end == std::string::npos) {
            c.line_end = c.in.find('\n', before); /* what came earlier was searched then */
        }
        c.progress = clock::now();
        return true;
    }
    c.ended = got == 0;
    return got == 0 || errno == EAGAIN || errno == EINTR;
}

bool control_server::write_some(connection &c)
{
    const ssize_t sent =
        ::send(c.fd, c.out.data() + c.written, c.out.size() - c.written, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    c.progress = clock::now();
    c.written += static_cast<size_t>(sent);
    if (c.written == c.out.size()) {
        c.out.clear();
        c.written = 0;
    }
    return true;
}

/* Brings a connection one thing further. False: it is to be closed. */
bool control_server::advance(connection &c)
{
    if (c.out.empty()) {
        if (c.closing) {
            return false;
        }
        if (c.current != nullptr) {
            step(c);
        } else if (!next_line(c)) {
            return !c.ended;
        }
    }
    return c.out.empty() || write_some(c);
}

/* Starts the next request, if there is one. A line that is too long ends the connection: where the next one
 * begins cannot be told without reading all of it. */
bool control_server::next_line(connection &c)
{
    const size_t end = c.line_end;
    if (end > m_max_line && c.in.size() > m_max_line) {
        c.in.clear();
        c.line_end = std::string::npos;
        c.id = nullptr;
        c.closing = true;
        put_error(c, {"line_too_long", "a request is longer than " + std::to_string(m_max_line) + " bytes"});
        return true;
    }
    if (end == std::string::npos) {
        return false;
    }
    const std::string line = c.in.substr(0, end);
    c.in.erase(0, end + 1);
    c.line_end = c.in.find('\n');
    start(c, line);
    return true;
}

void control_server::start(connection &c, const std::string &line)
{
    c.id = nullptr;
    try {
        const control_request request = read_request(line, c.id);
        c.current = start_verb(m_context, request.verb, request.args);
        m_log.write(topic::control, LOG_DEBUG, "control: %s", request.verb.c_str());
    } catch (const refusal &why) {
        put_error(c, why);
    }
}

void control_server::step(connection &c)
{
    try {
        row_writer rows;
        const bool more = c.current->step(rows);
        if (!rows.empty()) {
            c.out += "{" + (c.id.is_null() ? "" : "\"id\":" + to_line(c.id) + ",") + "\"rows\":[" +
                     rows.rows() + "]}\n";
        }
        if (!more) {
            put(c, {{"ok", true}, {"result", c.current->result()}});
            c.current.reset();
        }
    } catch (const refusal &why) {
        c.current.reset();
        put_error(c, why);
    }
}

void control_server::put(connection &c, const json &fields)
{
    json line = json::object();
    if (!c.id.is_null()) {
        line["id"] = c.id;
    }
    line.update(fields);
    c.out += to_line(line) + "\n";
}

void control_server::put_error(connection &c, const refusal &why)
{
    put(c, error_fields(why));
}

} // namespace l2vpnd
