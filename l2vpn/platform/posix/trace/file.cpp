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
#include <string_view>
#include <sys/file.h>
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

/* True for NAME-PID.trace, or whatever the kind ends with, of a process that has ended, and for predecessors. */
bool is_of_dead_process(std::string_view name, std::string_view program, const file_kind &kind)
{
    const std::string_view name_end = kind.name_end;
    bool was_set_aside = false;
    for (std::size_t index = 1; index <= kind.kept && !was_set_aside; ++index) {
        const std::string number = predecessor("", index);
        was_set_aside = name.ends_with(number);
        name.remove_suffix(was_set_aside ? number.size() : 0);
    }
    const std::string start = std::string(program) + "-";
    if (!name.starts_with(start) || !name.ends_with(name_end) ||
        name.size() <= start.size() + name_end.size()) {
        return false;
    }
    pid_t pid = 0;
    const char *end = name.data() + name.size() - name_end.size();
    const auto [stop, error] = std::from_chars(name.data() + start.size(), end, pid);
    return error == std::errc() && stop == end && pid > 0 &&
           (was_set_aside || (::kill(pid, 0) < 0 && errno == ESRCH));
}

} // namespace

std::string path_of_process(const std::string &directory, std::string_view program, const file_kind &kind)
{
    return directory + "/" + std::string(program) + "-" + std::to_string(::getpid()) +
           std::string(kind.name_end);
}

void remove_dead(const std::string &directory, std::string_view program, std::size_t keep,
                 const file_kind &kind)
{
    namespace fs = std::filesystem;
    std::error_code failed;
    std::vector<std::pair<fs::file_time_type, std::string>> dead;
    for (fs::directory_iterator at(directory, failed); !failed && at != fs::directory_iterator();
         at.increment(failed)) {
        const std::string path = at->path().string();
        std::string ignored;
        bool found = false;
        std::error_code gone;
        /* A process of another container may have a pid that is nobody's here: its lock tells. */
        if (is_of_dead_process(at->path().filename().string(), program, kind) &&
            may_replace(path, kind, ignored, found) == EOK) {
            dead.emplace_back(at->last_write_time(gone), path);
        }
    }
    std::ranges::sort(dead, std::greater<>());
    for (std::size_t index = keep; index < dead.size(); ++index) {
        ::unlink(dead[index].second.c_str());
    }
}

new_file::~new_file()
{
    if (!temporary_.empty()) {
        ::unlink(temporary_.c_str());
    }
}

qerrno new_file::make(const std::string &path, std::uint64_t size, std::string &problem)
{
    path_ = path;
    std::string name = path + ".XXXXXX";
    fd_.reset(::mkostemp(name.data(), O_CLOEXEC));
    if (!fd_) {
        return refuse(problem, path, errno);
    }
    temporary_ = name;
    if (const int cause = allocate(fd_.get(), size); cause != 0) {
        return refuse(problem, path, cause);
    }
    if (::flock(fd_.get(), LOCK_EX | LOCK_NB) < 0) {
        return refuse(problem, path, errno);
    }
    return EOK;
}

qerrno new_file::move_in_place(std::string &problem)
{
    bool found = false;
    qerrno status = may_replace(path_, kind_, problem, found);
    if (status == EOK && found && kind_.kept > 0) {
        status = set_aside(path_, kind_, problem);
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

} // namespace l2vpn::trace
