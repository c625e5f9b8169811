#include "trace/file.h"
#include "capture/format.h"
#include "trace/format.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string_view>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace l2vpn::trace {

const file_kind trace_file{magic, ".trace", "trace file", 0};
const file_kind ring_file{capture::ring_magic, ".ring", "capture ring", 2};

static_assert(offsetof(header, magic) == offsetof(file_head, magic) &&
              offsetof(header, pid) == offsetof(file_head, pid));
static_assert(offsetof(capture::ring_header, magic) == offsetof(file_head, magic) &&
              offsetof(capture::ring_header, pid) == offsetof(file_head, pid));

namespace {

using platform_posix::unique_fd;

constexpr std::string_view temporary_end = ".XXXXXX";

qerrno refuse(std::string &problem, const std::string &path, int cause, const std::string &why)
{
    problem = path + ": " + why;
    return static_cast<qerrno>(cause);
}

qerrno refuse(std::string &problem, const std::string &path, int cause)
{
    return refuse(problem, path, cause, ::strerrordesc_np(cause));
}

/* Beyond the limit of the process's files the kernel would send SIGXFSZ. */
bool beyond_limit(std::uint64_t size)
{
    rlimit limit{};
    return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && size > limit.rlim_cur;
}

int allocate(int fd, std::uint64_t size)
{
    int cause = beyond_limit(size) ? EFBIG : EINTR;
    while (cause == EINTR) {
        cause = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    }
    return cause;
}

/* Whether what is at `path` now may be replaced; `found` says whether that is a file of its kind. */
qerrno may_replace(const std::string &path, const file_kind &kind, std::string &problem, bool &found)
{
    found = false;
    const unique_fd old(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!old) {
        return errno == ENOENT ? EOK : refuse(problem, path, errno);
    }
    struct stat about {};
    if (::fstat(old.get(), &about) < 0) {
        return refuse(problem, path, errno);
    }
    if (!S_ISREG(about.st_mode)) {
        return refuse(problem, path, EEXIST, "there already and not a file");
    }
    if (about.st_size == 0) {
        return EOK;
    }
    file_head head{};
    const ssize_t length = ::read(old.get(), &head, sizeof head);
    if (length < static_cast<ssize_t>(sizeof head) || head.magic != kind.magic) {
        return refuse(problem, path, EEXIST, std::string("there already and not a ") + kind.name);
    }
    if (::flock(old.get(), LOCK_SH | LOCK_NB) < 0) {
        return refuse(problem, path, EBUSY, "in use by process " + std::to_string(head.pid));
    }
    found = true;
    return EOK;
}

std::string predecessor(const std::string &path, std::size_t index)
{
    return index == 0 ? path : path + "." + std::to_string(index);
}

/* The file at `path` gets the number 1, and so on; the oldest goes. */
qerrno set_aside(const std::string &path, const file_kind &kind, std::string &problem)
{
    for (std::size_t index = 1; index <= kind.kept; ++index) {
        bool found = false;
        if (const qerrno status = may_replace(predecessor(path, index), kind, problem, found);
            status != EOK) {
            return status;
        }
    }
    for (std::size_t index = kind.kept; index > 0; --index) {
        const std::string from = predecessor(path, index - 1);
        if (::rename(from.c_str(), predecessor(path, index).c_str()) < 0 && errno != ENOENT) {
            return refuse(problem, from, errno);
        }
    }
    return EOK;
}

/* What is behind NAME-PID.trace, or whatever the kind ends with: "", ".1" of a predecessor, ".XXXXXX" of a file that
 * is being made. */
struct file_name {
    pid_t pid;
    std::string_view behind;
};

std::optional<file_name> name_in(std::string_view name, std::string_view program, const file_kind &kind)
{
    const std::size_t end = name.rfind(kind.name_end);
    const std::size_t dash = end == std::string_view::npos ? end : name.substr(0, end).rfind('-');
    if (dash == std::string_view::npos || dash == 0 ||
        (!program.empty() && name.substr(0, dash) != program)) {
        return std::nullopt;
    }
    file_name found{0, name.substr(end + kind.name_end.size())};
    const auto [stop, error] = std::from_chars(name.data() + dash + 1, name.data() + end, found.pid);
    if (error != std::errc() || stop != name.data() + end || found.pid <= 0) {
        return std::nullopt;
    }
    return found;
}

bool has_ended(pid_t pid)
{
    return ::kill(pid, 0) < 0 && errno == ESRCH;
}

bool is_set_aside(std::string_view behind, const file_kind &kind)
{
    for (std::size_t index = 1; index <= kind.kept; ++index) {
        if (behind == predecessor("", index)) {
            return true;
        }
    }
    return false;
}

/* A process that was killed while it made its file: nobody has that open, and it has no head to tell by. */
void remove_half_made(const std::string &path)
{
    const unique_fd left(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat about {};
    if (left && ::fstat(left.get(), &about) == 0 && S_ISREG(about.st_mode) &&
        ::flock(left.get(), LOCK_EX | LOCK_NB) == 0) {
        ::unlink(path.c_str());
    }
}

/* A locked file under a name of its own beside `path`; it is removed again when it was not moved there. */
class new_file {
public:
    explicit new_file(const std::string &path) : path_(path) {}
    ~new_file()
    {
        if (!temporary_.empty()) {
            ::unlink(temporary_.c_str());
        }
    }
    new_file(const new_file &) = delete;
    new_file &operator=(const new_file &) = delete;

    qerrno make(std::uint64_t size, std::string &problem)
    {
        std::string name = path_ + std::string(temporary_end);
        fd_.reset(::mkostemp(name.data(), O_CLOEXEC));
        if (!fd_) {
            return refuse(problem, path_, errno);
        }
        temporary_ = name;
        if (::flock(fd_.get(), LOCK_EX | LOCK_NB) < 0) {
            return refuse(problem, path_, errno);
        }
        if (const int cause = allocate(fd_.get(), size); cause != 0) {
            return refuse(problem, path_, cause);
        }
        return EOK;
    }

    qerrno move_in_place(const file_kind &kind, std::string &problem)
    {
        bool found = false;
        qerrno status = may_replace(path_, kind, problem, found);
        if (status == EOK && found && kind.kept > 0) {
            status = set_aside(path_, kind, problem);
        }
        if (status != EOK) {
            return status;
        }
        if (::rename(temporary_.c_str(), path_.c_str()) < 0) {
            return refuse(problem, path_, errno);
        }
        temporary_.clear();
        return EOK;
    }

    [[nodiscard]] int fd() const noexcept { return fd_.get(); }
    [[nodiscard]] unique_fd take() noexcept { return std::move(fd_); }

private:
    const std::string &path_;
    std::string temporary_; /* empty: there is none (any more) */
    unique_fd fd_;
};

} // namespace

std::string path_of_process(const std::string &directory, std::string_view program, const file_kind &kind)
{
    return directory + "/" + std::string(program) + "-" + std::to_string(::getpid()) +
           std::string(kind.name_end);
}

std::vector<std::uint64_t> remove_dead(const std::string &directory, std::string_view program,
                                       std::size_t keep, const file_kind &kind)
{
    namespace fs = std::filesystem;
    std::error_code failed;
    std::vector<std::pair<fs::file_time_type, std::string>> dead;
    for (fs::directory_iterator at(directory, failed); !failed && at != fs::directory_iterator();
         at.increment(failed)) {
        const std::string path = at->path().string();
        const std::string name = at->path().filename().string();
        const auto about = name_in(name, program, kind);
        if (!about) {
            continue;
        }
        /* Where pids begin anew, one before this one had its pid, too. */
        const bool ended = about->pid == ::getpid() || has_ended(about->pid);
        if (ended && about->behind.size() == temporary_end.size() && about->behind.starts_with('.')) {
            remove_half_made(path);
        }
        std::string ignored;
        bool found = false;
        std::error_code gone;
        /* A process of another container may have a pid that is nobody's here: its lock tells. */
        if ((is_set_aside(about->behind, kind) || (ended && about->behind.empty())) &&
            may_replace(path, kind, ignored, found) == EOK) {
            dead.emplace_back(at->last_write_time(gone), path);
        }
    }
    std::ranges::sort(dead, std::greater<>());
    std::vector<std::uint64_t> left;
    for (const auto &[time, path] : dead) {
        if (left.size() == keep) {
            ::unlink(path.c_str());
            continue;
        }
        const std::uintmax_t size = fs::file_size(path, failed);
        left.push_back(failed ? 0 : size);
    }
    return left;
}

mapped_file make_mapped(const file_kind &kind, const std::string &path, std::size_t size,
                        const std::function<void(std::span<std::byte>)> &begin, qerrno &cause,
                        std::string &problem)
{
    const auto nothing = [&](qerrno why) {
        cause = why;
        return mapped_file{};
    };
    new_file made(path);
    if (const qerrno status = made.make(size, problem); status != EOK) {
        return nothing(status);
    }
    void *address = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, made.fd(), 0);
    if (address == MAP_FAILED) {
        return nothing(
            refuse(problem, path, errno, std::string("cannot be mapped: ") + ::strerrordesc_np(errno)));
    }
    const std::span map(static_cast<std::byte *>(address), size);
    begin(map);
    if (const qerrno status = made.move_in_place(kind, problem); status != EOK) {
        ::munmap(address, size);
        return nothing(status);
    }
    return {made.take(), map};
}

} // namespace l2vpn::trace
