/*
 * Tells when a file was written anew. The folder is watched, not the file: editors put a new file in the
 * place of the old one.
 */
#ifndef OWNER_FILE_WATCH_H
#define OWNER_FILE_WATCH_H

#include <functional>
#include <platform/event_loop.h>
#include <string>

namespace owner {

class file_watch {
public:
    file_watch() = default;
    ~file_watch();
    file_watch(const file_watch &) = delete;
    file_watch &operator=(const file_watch &) = delete;

    // False with the cause in errno. `changed` is called on the event manager's thread.
    bool start(event_mgr_p evm, const std::string &path, std::function<void()> changed);

private:
    void read_events();
    static void on_readable(event_fd_watch_t *watch, int fd, uint32_t events, void *arg);

    int fd_ = -1;
    event_fd_watch_t *watch_ = nullptr;
    std::string name_;
    std::function<void()> changed_;
};

} // namespace owner

#endif
