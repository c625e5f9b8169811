#include "file_watch.h"

#include <array>
#include <filesystem>
#include <sys/inotify.h>
#include <unistd.h>

namespace owner {

file_watch::~file_watch()
{
    event_fd_unwatch(watch_);
    if (fd_ >= 0)
        (void)close(fd_);
}

bool file_watch::start(event_mgr_p evm, const std::string &path, std::function<void()> changed)
{
    const std::filesystem::path file(path);
    const std::string folder = file.has_parent_path() ? file.parent_path().string() : ".";
    name_ = file.filename();
    changed_ = std::move(changed);
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0 || inotify_add_watch(fd_, folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0)
        return false;
    watch_ = event_fd_watch(evm, fd_, EVENT_FD_READ, on_readable, this);
    return watch_ != nullptr;
}

// Events that came together are one change.
void file_watch::read_events()
{
    alignas(inotify_event) std::array<char, 4096> buffer;
    bool changed = false;
    for (;;) {
        const ssize_t got = read(fd_, buffer.data(), buffer.size());
        if (got <= 0)
            break;
        for (std::size_t at = 0; at < static_cast<std::size_t>(got);) {
            const auto *const event = reinterpret_cast<const inotify_event *>(buffer.data() + at);
            const bool lost_some = (event->mask & IN_Q_OVERFLOW) != 0;
            changed = changed || lost_some || (event->len > 0 && name_ == event->name);
            at += sizeof *event + event->len;
        }
    }
    if (changed)
        changed_();
}

void file_watch::on_readable(event_fd_watch_t *, int, uint32_t, void *arg)
{
    static_cast<file_watch *>(arg)->read_events();
}

} // namespace owner
