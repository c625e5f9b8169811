/*
 * One control connection: the lines that come, the requests in them, the answers that go.
 */
#include "control_server.h"

#include <array>
#include <cerrno>
#include <sys/socket.h>

namespace l2vpnd {

namespace {

constexpr size_t read_size = size_t{64} * 1024;

/* Refuses a line that nests deeper, or has an object with more members, than any request needs. It is looked at
 * before it is parsed, so that nothing is ever made of such a line: adding a member to an object costs as many
 * comparisons as it has members. */
void check_shape(const std::string &line)
{
    struct level {
        bool is_object;
        int commas;
    };
    std::array<level, control_server::max_depth + 1> levels{}; /* the first is outside of everything */
    size_t depth = 0;
    bool in_text = false;
    for (size_t i = 0; i < line.size(); i++) {
        const char c = line[i];
        if (in_text) {
            i += c == '\\' ? 1 : 0;
            in_text = c != '"';
        } else if (c == '"') {
            in_text = true;
        } else if (c == '[' || c == '{') {
            if (++depth == levels.size()) {
                throw refusal{"bad_request", "a request nests at most " +
                                                 std::to_string(control_server::max_depth) + " deep"};
            }
            levels[depth] = {c == '{', 0};
        } else if (c == ']' || c == '}') {
            depth -= depth > 0 ? 1 : 0;
        } else if (c == ',' && levels[depth].is_object &&
                   ++levels[depth].commas == control_server::max_members) {
            throw refusal{"bad_request", "an object has at most " +
                                             std::to_string(control_server::max_members) + " members"};
        }
    }
}

} // namespace

json control_server::error_fields(const refusal &why)
{
    return {{"ok", false}, {"error", {{"code", why.code}, {"text", why.text}}}};
}

bool control_server::read_some(connection &c)
{
    const size_t before = c.in.size();
    c.in.resize(before + read_size);
    const ssize_t got = recv(c.fd, c.in.data() + before, read_size, 0);
    c.in.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
    if (got > 0) {
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
    const size_t end = c.in.find('\n');
    if (end > max_line && c.in.size() > max_line) {
        c.in.clear();
        c.id = nullptr;
        c.closing = true;
        put_error(c, {"line_too_long", "a request is longer than " + std::to_string(max_line) + " bytes"});
        return true;
    }
    if (end == std::string::npos) {
        return false;
    }
    const std::string line = c.in.substr(0, end);
    c.in.erase(0, end + 1);
    start(c, line);
    return true;
}

void control_server::start(connection &c, const std::string &line)
{
    c.id = nullptr;
    try {
        check_shape(line);
        const json request = json::parse(line, nullptr, false);
        if (request.is_discarded()) {
            throw refusal{"bad_json", "the line is not JSON"};
        }
        if (!request.is_object()) {
            throw refusal{"bad_request", "a request must be an object"};
        }
        if (const auto id = request.find("id"); id != request.end() && !id->is_null()) {
            if (!id->is_number() && !id->is_string()) {
                throw refusal{"bad_request", "\"id\" must be a number or a text"};
            }
            c.id = *id;
        }
        const auto verb = request.find("verb");
        if (verb == request.end() || !verb->is_string()) {
            throw refusal{"bad_request", "\"verb\" must be a text"};
        }
        for (const auto &[name, value] : request.items()) {
            if (name != "id" && name != "verb" && name != "args") {
                throw refusal{"bad_request", "a request has \"id\", \"verb\" and \"args\" only"};
            }
        }
        const std::string &name = verb->get_ref<const std::string &>();
        static const json no_args = json::object();
        const auto args = request.find("args");
        c.current = start_verb(m_context, name, args == request.end() ? no_args : *args);
        m_log.write(topic::control, LOG_DEBUG, "control: %s", name.c_str());
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
