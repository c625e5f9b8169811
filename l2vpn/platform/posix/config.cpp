/*
 * The configuration: the environment, read once. A value that cannot be used is said so on standard error,
 * once because the reading happens once, and its default holds. An empty value is as good as none. Set-id
 * programs do not listen to their environment.
 */
#include "capture/format.h"
#include "config_internal.h"

#include <platform/config.h>
#include <platform/node.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace l2vpn::platform_posix {
namespace {

constexpr const char *system_dir = "/run/l2vpn";

std::optional<std::string_view> environment(const char *name)
{
    const char *value = ::secure_getenv(name);
    return value == nullptr || *value == '\0' ? std::nullopt : std::optional<std::string_view>(value);
}

void complain(const char *name, std::string_view value, const std::string &problem)
{
    const std::string line = "l2vpn: " + std::string(name) + "=" + std::string(value) + ": " + problem + "\n";
    std::fputs(line.c_str(), stderr);
}

/* A decimal or 0x hexadecimal number, and nothing after it. */
std::optional<std::uint32_t> number_in(std::string_view text)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    std::uint32_t value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

struct number_row {
    const char *name;
    std::uint32_t configuration::*field;
    std::uint32_t least;
    std::uint32_t most;
    std::uint32_t otherwise;
};

constexpr std::array number_rows{
    number_row{"L2VPN_MTU", &configuration::mtu, 16, 1048576, 65536},
    number_row{"L2VPN_SEND_TIMEOUT_MS", &configuration::send_timeout_ms, 0, 60000, 1000},
    number_row{"L2VPN_TRACE_SIZE", &configuration::trace_size_kib, 64, 1048576, 1024},
    number_row{"L2VPN_CAPTURE_SIZE", &configuration::capture_size_kib, 64, 1048576, 256},
    number_row{"L2VPN_CAPTURE_SNAP", &configuration::capture_snap, 16, 1048576, capture::one_slot_message},
};

std::uint32_t number_of(const number_row &row)
{
    const auto text = environment(row.name);
    if (!text) {
        return row.otherwise;
    }
    const auto value = number_in(*text);
    if (!value || *value < row.least || *value > row.most) {
        complain(row.name, *text,
                 "not a number from " + std::to_string(row.least) + " to " + std::to_string(row.most) +
                     "; using " + std::to_string(row.otherwise));
        return row.otherwise;
    }
    return *value;
}

std::string fallback_dir()
{
    return "/tmp/l2vpn-" + std::to_string(::geteuid());
}

std::string without_end_slashes(std::string_view path)
{
    while (path.size() > 1 && path.ends_with('/')) {
        path.remove_suffix(1);
    }
    return std::string(path);
}

std::string default_dir()
{
    if (::geteuid() == 0 || ::access(system_dir, X_OK) == 0) {
        return system_dir;
    }
    if (const auto users = environment("XDG_RUNTIME_DIR"); users && users->starts_with('/')) {
        return without_end_slashes(*users) + "/l2vpn";
    }
    return fallback_dir();
}

std::string runtime_dir()
{
    const auto configured = environment("L2VPN_RUNTIME_DIR");
    if (configured && configured->starts_with('/')) {
        return without_end_slashes(*configured);
    }
    std::string otherwise = default_dir();
    if (configured) {
        complain("L2VPN_RUNTIME_DIR", *configured, "not an absolute path; using " + otherwise);
    }
    return otherwise;
}

node_id_setting node_id()
{
    const auto text = environment("L2VPN_NODEID");
    if (!text) {
        return {};
    }
    const auto value = number_in(*text);
    if (!value || *value == NODEID_INVALID) {
        complain("L2VPN_NODEID", *text, "not a number below 0xFFFFFFFF");
        return {.is = node_id_setting::state::bad};
    }
    return {.is = node_id_setting::state::good, .value = *value};
}

bool log_to_stderr()
{
    const auto text = environment("L2VPN_LOG");
    if (text && *text != "syslog" && *text != "stderr") {
        complain("L2VPN_LOG", *text, "not syslog or stderr; using syslog");
    }
    return text == "stderr";
}

std::string debug_sink()
{
    const auto text = environment("L2VPN_DEBUG");
    if (!text || *text == "off" || *text == "stderr" || *text == "syslog") {
        return std::string(text.value_or("off"));
    }
    complain("L2VPN_DEBUG", *text, "not off, stderr or syslog; using off");
    return "off";
}

/* Off, on or a file. */
std::string place(const char *name, std::string_view otherwise)
{
    const auto text = environment(name);
    if (!text || *text == "off" || *text == "on" || text->find('/') != std::string_view::npos) {
        return std::string(text.value_or(otherwise));
    }
    complain(name, *text, "not off, on or a path with a slash in it; using " + std::string(otherwise));
    return std::string(otherwise);
}

configuration read_environment()
{
    configuration read;
    read.runtime_dir = runtime_dir();
    read.nodeid = node_id();
    for (const number_row &row : number_rows) {
        read.*row.field = number_of(row);
    }
    read.log_to_stderr = log_to_stderr();
    read.debug_sink = debug_sink();
    read.trace = place("L2VPN_TRACE", "off");
    // What a set-id program was not asked for it does not write.
    read.capture = place("L2VPN_CAPTURE", ::getauxval(AT_SECURE) != 0 ? "off" : "on");
    read.capture_asked = environment("L2VPN_CAPTURE").has_value();
    return read;
}

} // namespace

const configuration &config()
{
    // Never destroyed: threads may still ask while the process exits.
    static const configuration &read = *new configuration(read_environment());
    return read;
}

qerrno make_runtime_dir(std::string &problem)
{
    const std::string &path = config().runtime_dir;
    if (::mkdir(path.c_str(), 0750) < 0 && errno != EEXIST) {
        const int cause = errno;
        problem = path + ": cannot make the directory: " + ::strerrordesc_np(cause);
        return static_cast<qerrno>(cause);
    }
    return check_runtime_dir(problem);
}

qerrno check_runtime_dir(std::string &problem)
{
    const std::string &path = config().runtime_dir;
    const auto refuse = [&](int cause, const std::string &why) {
        problem = path + ": " + why;
        return static_cast<qerrno>(cause);
    };
    // Anybody may put anything under /tmp: a link there is somebody else's.
    struct stat found {};
    const bool is_fallback = path == fallback_dir();
    if ((is_fallback ? ::lstat(path.c_str(), &found) : ::stat(path.c_str(), &found)) < 0) {
        const int cause = errno;
        return refuse(cause, ::strerrordesc_np(cause));
    }
    if (!S_ISDIR(found.st_mode)) {
        return refuse(ENOTDIR, "not a directory");
    }
    if (found.st_uid != ::geteuid() && (is_fallback || found.st_uid != 0)) {
        return refuse(EPERM, "belongs to user " + std::to_string(found.st_uid));
    }
    if ((found.st_mode & S_IWOTH) != 0) {
        return refuse(EPERM, "anybody may write to it");
    }
    return EOK;
}

} // namespace l2vpn::platform_posix

qerrno platform_service_path(const char *service, char *path, size_t size)
try {
    if (service == nullptr || path == nullptr) {
        return EINVAL;
    }
    const std::string_view name(service);
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) {
        return EINVAL;
    }
    const std::string &directory = l2vpn::platform_posix::config().runtime_dir;
    const std::size_t length = directory.size() + name.size() + std::strlen("/.sock");
    if (length >= size || length >= sizeof(sockaddr_un::sun_path)) {
        return ENAMETOOLONG;
    }
    std::snprintf(path, size, "%s/%s.sock", directory.c_str(), service);
    return EOK;
} catch (const std::bad_alloc &) { /* to read the configuration */
    return ENOMEM;
}
