#include "throw_away.h"

#include "reap.h"
#include "recordings.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace l2vpnctl {

namespace fs = std::filesystem;

namespace {

using clock = std::chrono::steady_clock;

constexpr int end_patience_ms = 5000;
constexpr int look_again_ms = 10;
constexpr size_t said_most = 4096;
constexpr std::string_view ready_line = "l2vpnd: ready on ";

[[noreturn]] void fail(const std::string &what, exit_status status = exit_unreachable)
{
    throw failure{status, "no l2vpnd could be started to replay into: " + what};
}

/* Beside this program in a build, in sbin when both are installed. */
std::string find_program(const std::string &given)
{
    if (!given.empty()) {
        return given;
    }
    std::error_code unknown;
    const fs::path here = fs::read_symlink("/proc/self/exe", unknown).parent_path();
    for (const char *place : {"l2vpnd", "../sbin/l2vpnd"}) {
        if (const fs::path path = here / place; access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return "l2vpnd"; /* wherever PATH has it */
}

/* The caller's own settings are not meant for it. */
std::vector<std::string> plain_environment()
{
    std::vector<std::string> out;
    for (char **variable = environ; *variable != nullptr; ++variable) {
        if (strncmp(*variable, "L2VPN_", 6) != 0 && strncmp(*variable, "LISTEN_", 7) != 0 &&
            strncmp(*variable, "NOTIFY_SOCKET", 13) != 0) {
            out.emplace_back(*variable);
        }
    }
    return out;
}

std::vector<char *> pointers(std::vector<std::string> &texts)
{
    std::vector<char *> out;
    out.reserve(texts.size() + 1);
    for (std::string &text : texts) {
        out.push_back(text.data());
    }
    out.push_back(nullptr);
    return out;
}

} // namespace

throw_away::throw_away(const replay_options &how, std::chrono::milliseconds patience)
{
    std::string name = (fs::temp_directory_path() / "l2vpn-replay-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        fail(name + ": " + strerror(errno));
    }
    m_folder = name;
    try {
        start(how);
        wait_until_ready(patience);
    } catch (...) {
        stop();
        throw;
    }
}

throw_away::~throw_away()
{
    stop();
}

void throw_away::start(const replay_options &how)
{
    std::vector<std::string> arguments = {find_program(how.program), "--runtime-dir=" + m_folder.string(),
                                          "--capture=off"};
    for (const std::string own : {"nodeid=1", "mtu=1048576"}) {
        const std::string name = own.substr(0, own.find('=') + 1);
        if (std::ranges::none_of(how.options, [&](const std::string &it) { return it.starts_with(name); })) {
            arguments.push_back("--" + own);
        }
    }
    for (const std::string &option : how.options) {
        arguments.push_back("--" + option);
    }
    std::vector<std::string> environment = plain_environment();
    const std::vector<char *> argv = pointers(arguments);
    const std::vector<char *> envp = pointers(environment);
    const std::string log = m_folder / "log";
    std::array<int, 2> out{};
    if (pipe2(out.data(), O_CLOEXEC) != 0) {
        fail(strerror(errno));
    }
    m_out.reset(out[0]);
    const l2vpn::platform_posix::unique_fd end(out[1]);
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid < 0) {
        fail(strerror(errno));
    }
    if (m_pid == 0) {
        setpgid(0, 0); /* the terminal's signals are for the one who replays */
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int err = open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (getppid() != parent || err < 0 || dup2(end.get(), STDOUT_FILENO) < 0 ||
            dup2(err, STDERR_FILENO) < 0) {
            _exit(127);
        }
        execvpe(argv[0], argv.data(), envp.data());
        dprintf(STDERR_FILENO, "%s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
}

void throw_away::wait_until_ready(std::chrono::milliseconds patience)
{
    const auto deadline = clock::now() + patience;
    std::string said;
    while (said.find('\n') == std::string::npos && said.size() < said_most) {
        if (is_stopped()) {
            fail("interrupted");
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now()).count();
        pollfd ready{m_out.get(), POLLIN, 0};
        if (left <= 0) {
            fail("it was not ready within " + std::to_string(patience.count()) + " ms");
        }
        if (poll(&ready, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        std::array<char, 256> bytes{};
        const ssize_t got = read(m_out.get(), bytes.data(), bytes.size());
        if (got <= 0) {
            ended_by_now();
            fail(last_words(), m_refused ? exit_usage : exit_unreachable);
        }
        said.append(bytes.data(), static_cast<size_t>(got));
    }
    if (!said.starts_with(ready_line)) {
        fail("it says something else than that it is ready");
    }
}

std::string throw_away::last_words() const
{
    std::ifstream log(m_folder / "log");
    std::string last = m_end.empty() ? "it says nothing" : "it ended at once";
    for (std::string line; std::getline(log, line);) {
        last = line.empty() ? last : line;
    }
    return last;
}

std::string throw_away::ended()
{
    int status = 0;
    if (m_pid > 0 && waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        m_refused = WIFEXITED(status) && WEXITSTATUS(status) == exit_usage;
        m_end = WIFSIGNALED(status) ? "was ended by signal " + std::to_string(WTERMSIG(status))
                                    : "ended with status " + std::to_string(WEXITSTATUS(status));
    }
    return m_end;
}

std::string throw_away::ended_by_now()
{
    const auto deadline = clock::now() + std::chrono::milliseconds(end_patience_ms);
    while (ended().empty() && clock::now() < deadline) {
        poll(nullptr, 0, look_again_ms);
    }
    return m_end;
}

void throw_away::stop()
{
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        if (ended_by_now().empty()) {
            kill(m_pid, SIGKILL);
            reap(m_pid);
        }
    }
    std::error_code ignored;
    fs::remove_all(m_folder, ignored);
}

} // namespace l2vpnctl
