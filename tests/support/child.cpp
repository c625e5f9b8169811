#include "child.h"

#include "temp_folder.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

extern char **environ;

namespace system_test {

namespace {

constexpr std::chrono::milliseconds poll_interval{10};
constexpr int cannot_run = 127;

std::vector<char *> pointers(std::vector<std::string> &texts)
{
    std::vector<char *> list;
    list.reserve(texts.size() + 1);
    for (std::string &text : texts)
        list.push_back(text.data());
    list.push_back(nullptr);
    return list;
}

/* The child's side of a fork, where other threads may have held any lock: system calls alone. A program does
 * not outlive the test that started it, however that ends. */
[[noreturn]] void become(pid_t parent, const char *out, const char *err, char *const *argv, char *const *envp)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_APPEND;
    constexpr rlimit no_core{0, 0};
    if (setrlimit(RLIMIT_CORE, &no_core) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 &&
        getppid() == parent && dup2(open("/dev/null", O_RDONLY), STDIN_FILENO) >= 0 &&
        dup2(open(out, flags, S_IRUSR | S_IWUSR), STDOUT_FILENO) >= 0 &&
        dup2(open(err, flags, S_IRUSR | S_IWUSR), STDERR_FILENO) >= 0) {
        execve(argv[0], argv, envp);
    }
    constexpr char text[] = "the program cannot be run\n";
    (void)!write(STDERR_FILENO, text, sizeof text - 1);
    _exit(cannot_run);
}

} // namespace

temp_dir::temp_dir() : path_(new_temp_folder()) {}

temp_dir::~temp_dir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string temp_dir::write(const std::string &name, const std::string &content) const
{
    const std::string path = file(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::string read_file(const std::string &path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

bool eventually(const std::function<bool()> &condition, seconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(poll_interval);
    }
    return true;
}

child::child(const std::string &program, const std::vector<std::string> &arguments,
             const std::vector<std::string> &environment)
{
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> variables = environment;
    for (char **entry = environ; *entry != nullptr; ++entry)
        if (!std::string(*entry).starts_with("L2VPN_"))
            variables.emplace_back(*entry);

    const std::string out = files_.file("out");
    const std::string err = files_.file("err");
    const std::vector<char *> argv = pointers(words);
    const std::vector<char *> envp = pointers(variables);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0)
        throw std::system_error(errno, std::generic_category(), program);
    if (pid_ == 0)
        become(parent, out.c_str(), err.c_str(), argv.data(), envp.data());
}

child::~child()
{
    if (running()) {
        (void)kill(pid_, SIGKILL);
        (void)reap(true);
    }
}

std::string child::out() const
{
    return read_file(files_.file("out"));
}

std::string child::err() const
{
    return read_file(files_.file("err"));
}

bool child::says(const std::string &text) const
{
    return eventually([&] { return out().find(text) != std::string::npos; });
}

std::string child::line_after(const std::string &text)
{
    std::optional<std::string> found;
    (void)eventually([&] {
        const bool ended = !running();
        const std::string all = out();
        const std::size_t begin = std::min(all.find(text), all.size());
        const std::size_t end = all.find('\n', begin);
        if (end != std::string::npos)
            found = all.substr(begin + text.size(), end - begin - text.size());
        return found || ended;
    });
    if (!found)
        throw std::runtime_error("no line \"" + text + "\": " + out() + err());
    return *found;
}

bool child::reap(bool block)
{
    int status = 0;
    if (!ended_ && waitpid(pid_, &status, block ? 0 : WNOHANG) == pid_) {
        ended_ = true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return ended_;
}

bool child::running()
{
    return !reap(false);
}

void child::send_signal(int signal)
{
    if (running())
        (void)kill(pid_, signal);
}

int child::wait(seconds limit)
{
    if (!eventually([this] { return !running(); }, limit)) {
        (void)kill(pid_, SIGKILL);
        (void)reap(true);
        return -1000;
    }
    return status_;
}

result run(const std::string &program, const std::vector<std::string> &arguments,
           const std::vector<std::string> &environment)
{
    child one(program, arguments, environment);
    const int status = one.wait();
    return {status, one.out(), one.err()};
}

std::string binary(const std::string &name)
{
    const char *const others = std::getenv("L2VPN_PROGRAMS");
    return std::string(others != nullptr ? others : L2VPN_BINARY_DIR) + "/" + name;
}

} // namespace system_test
