/*
 * The control socket's bytes, as they come: cut anywhere, held back, left off in mid-line. What stands in a line
 * is the other target's (control.cpp); here every line must have its one answer, wherever it was cut.
 *
 * The input's first byte: bit 0, the client reads nothing before it has sent everything; bit 1, it is gone
 * without having read. Then pieces, each a length and its bytes; a length of 255 is followed by one of two bytes,
 * one of 254 by a count (modulo 18) of 256 spaces, once. A line is too long beyond 4 KiB, so that it costs little
 * to make one; and behind some lines nothing is sent any more, because answers cost much.
 */
#include "fuzz.h"

#include "../process/support.h"
#include "control_server.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace l2vpnd;

constexpr size_t longest_line = 4096;
constexpr int most_turns = 100000;
constexpr std::ptrdiff_t most_lines = 12;

/* A process that nobody has connected to: no request changes it. */
class scene {
public:
    scene() : m_evm(event_mgr_new()), m_server(m_evm, {m_bench.process, "/nowhere", m_path}, m_bench.log)
    {
        FUZZ_CHECK(mkdtemp(m_directory) != nullptr && m_evm != nullptr);
        m_path = std::string(m_directory) + "/ctl";
        control_options options;
        options.path = m_path;
        options.max_line = longest_line;
        std::string error;
        FUZZ_CHECK(m_server.open(options, &error) == EOK);
    }
    ~scene()
    {
        unlink(m_path.c_str());
        rmdir(m_directory);
    }
    scene(const scene &) = delete;
    scene &operator=(const scene &) = delete;

    int connect() const
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof address.sun_path - 1);
        FUZZ_CHECK(::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
        return fd;
    }
    /* All there is to do at the moment, a bit of it. */
    void serve() const { FUZZ_CHECK(event_mgr_dispatch(m_evm, 0) >= 0); }
    void forget_log() { m_bench.lines.clear(); }

private:
    char m_directory[32] = "/tmp/l2vpn-fuzz-XXXXXX";
    std::string m_path;
    process_test::bench m_bench{process_options{}};
    event_mgr_p m_evm;
    control_server m_server;
};

/* The client's end. */
class client {
public:
    explicit client(const scene &of) : m_scene(of), m_fd(of.connect()) {}
    ~client() { close(m_fd); }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    /* Until the other end has taken it, or has hung up. */
    void send(fuzz::bytes piece, bool reads)
    {
        for (int turn = 0; !piece.empty(); ++turn) {
            FUZZ_CHECK(turn < most_turns);
            const ssize_t sent = ::send(m_fd, piece.data(), piece.size(), MSG_NOSIGNAL);
            if (sent < 0 && errno != EAGAIN)
                return;
            piece = piece.subspan(sent > 0 ? static_cast<size_t>(sent) : 0);
            m_scene.serve();
            if (reads || sent < 0)
                (void)read();
        }
    }
    /* What is answered until the other end hangs up. */
    const std::string &all_answers()
    {
        shutdown(m_fd, SHUT_WR);
        for (int turn = 0; read(); ++turn) {
            FUZZ_CHECK(turn < most_turns);
            m_scene.serve();
        }
        return m_got;
    }

private:
    /* False: the end. */
    bool read()
    {
        static char room[size_t{64} * 1024];
        const ssize_t got = recv(m_fd, room, sizeof room, 0);
        m_got.append(room, got > 0 ? static_cast<size_t>(got) : 0);
        return got > 0 || (got < 0 && errno == EAGAIN);
    }

    const scene &m_scene;
    int m_fd;
    std::string m_got;
};

/* The answers that a text must have: one a line, up to one that is too long. */
size_t answers_to(std::string_view text, bool &too_long)
{
    size_t count = 0;
    for (;;) {
        const size_t end = std::min(text.find('\n'), text.size());
        too_long = end > longest_line;
        if (too_long)
            return count + 1;
        if (end == text.size())
            return count;
        ++count;
        text.remove_prefix(end + 1);
    }
}

void check_answers(const std::string &got, std::string_view sent)
{
    bool too_long = false;
    const size_t expected = answers_to(sent, too_long);
    size_t count = 0;
    json last;
    std::string_view rest = got;
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        FUZZ_CHECK(end != std::string_view::npos);
        last = json::parse(rest.substr(0, end), nullptr, false);
        FUZZ_CHECK(last.is_object() && last.contains("ok") != last.contains("rows"));
        count += last.contains("ok") ? 1 : 0;
        rest.remove_prefix(end + 1);
    }
    FUZZ_CHECK(count == expected);
    FUZZ_CHECK(!too_long || last["error"]["code"] == "line_too_long");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static scene now;
    static const std::string spaces(longest_line / 16, ' ');
    fuzz::input in(data, size);
    const uint8_t mode = in.u8();
    std::string sent;
    client one(now);
    std::ptrdiff_t lines = 0;
    for (bool filled = false; !in.empty() && lines < most_lines;) {
        const uint8_t length = in.u8();
        size_t times = 1;
        fuzz::bytes piece(reinterpret_cast<const uint8_t *>(spaces.data()), spaces.size());
        if (length == 254) {
            times = std::exchange(filled, true) ? 0 : in.u8() % 18;
        } else {
            piece = in.take(length == 255 ? in.u16() : length);
        }
        for (; times > 0; --times) {
            one.send(piece, (mode & 1) == 0);
            sent.append(piece.begin(), piece.end());
            lines += std::count(piece.begin(), piece.end(), '\n');
        }
    }
    if ((mode & 2) == 0)
        check_answers(one.all_answers(), sent);
    now.forget_log();
    return 0;
}
