/*
 * The command line of l2vpnd.
 */
#ifndef L2VPND_OPTIONS_H
#define L2VPND_OPTIONS_H

#include "process.h"

#include <optional>
#include <string>

namespace l2vpnd {

/* What l2vpnd and l2vpnctl end with. */
enum exit_status { exit_ok = 0, exit_failed = 1, exit_usage = 2, exit_in_use = 3 };

struct program_options {
    std::string runtime_dir; /* empty: the platform's default */
    std::string group;       /* empty: the process's own */
    std::optional<uint32_t> nodeid;
    uint32_t mtu = 0; /* 0: the platform's default */
    std::string capture = "on";
    bool capture_asked = false;        /* else it is on where there is room */
    uint32_t capture_size = 16 * 1024; /* KiB */
    bool to_syslog = false;
    bool verbose = false;
    bool has_file = false; /* --config was given: there is something to read again */
    process_options process;

    bool operator==(const program_options &other) const = default;
};

/* Returns nothing when the program is to go on, else what it is to end with: the text was printed. */
std::optional<exit_status> read_command_line(int argc, char **argv, program_options &options);

/* The same for what the file of options says by now. Empty: done; else a line that says what is wrong. */
std::string read_again(int argc, char **argv, program_options &options);

} // namespace l2vpnd

#endif
