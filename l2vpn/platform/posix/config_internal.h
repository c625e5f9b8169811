/*
 * The configuration of this process, for the platform's own parts. <platform/config.h> says what each
 * value means.
 */
#ifndef PLATFORM_POSIX_CONFIG_INTERNAL_H
#define PLATFORM_POSIX_CONFIG_INTERNAL_H

#include <platform/qerr.h>

#include <cstdint>
#include <string>

namespace l2vpn::platform_posix {

struct node_id_setting {
    enum class state { absent, good, bad } is = state::absent;
    std::uint32_t value = 0;
};

struct configuration {
    std::string runtime_dir; /* absolute, without a slash at the end */
    node_id_setting nodeid;
    std::uint32_t mtu = 0;
    std::uint32_t send_timeout_ms = 0;
    bool log_to_stderr = false; /* as well as to the system's log */
    std::string debug_sink;
    std::string trace;
    std::uint32_t trace_size_kib = 0;
    std::string capture;
    bool capture_asked = false; /* by the environment: what goes wrong is said */
    std::uint32_t capture_size_kib = 0;
    std::uint32_t capture_snap = 0;
};

/* The configuration, read from the environment by the first call. Any thread. */
[[nodiscard]] const configuration &config();

/* Makes the runtime directory when it is not there, for its owner and group alone (mode 0750). EOK when it
 * is there and fit to be trusted, else the errno and, in `problem`, one line that names the directory and
 * says what is wrong. Any thread. */
[[nodiscard]] qerrno make_runtime_dir(std::string &problem);

/* The same for a directory that is there. */
[[nodiscard]] qerrno check_runtime_dir(std::string &problem);

} // namespace l2vpn::platform_posix

#endif
