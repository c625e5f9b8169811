/*
 * The command line.
 */
#ifndef OWNER_OPTIONS_H
#define OWNER_OPTIONS_H

#include <cstdint>
#include <string>

namespace owner {

struct options {
    std::string inventory;
    std::string runtime_dir;  // empty: the platform's
    std::string mstp;         // empty: no scenario
    std::string compare;      // empty: nothing to compare
    std::string compare_mstp; // the same
    uint32_t mtu = 65536;
    uint32_t timeout_seconds = 30;
    bool once = false;
    bool watch = false;
    bool verbose = false;
    bool print_expected = false;
    bool as_json = false;
};

constexpr int exit_failed = 1;
constexpr int exit_bad_input = 2;

// What the program ends with when all was printed: 0, unless it could not be.
int flushed();

// False when the program is to end at once, with `exit_status`: a wrong option, or --help.
bool parse_options(int argc, char **argv, options &chosen, int &exit_status);

} // namespace owner

#endif
