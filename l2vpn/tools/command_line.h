/*
 * The command line of l2vpnctl: which request it means, and how the answer is to be shown.
 */
#ifndef L2VPNCTL_COMMAND_LINE_H
#define L2VPNCTL_COMMAND_LINE_H

#include "recordings.h"
#include "replay/options.h"
#include "timeline/options.h"
#include "top.h"
#include "views.h"

#include <chrono>
#include <optional>
#include <string>

namespace l2vpnctl {

/* A request, and the names of its parts in the JSON document. */
struct command {
    std::string verb;
    json args = json::object();
    const char *rows = nullptr;    /* the list of rows; null: the answer is the result alone */
    const char *summary = nullptr; /* the result beside the rows */
    view_ptr (*view)() = nullptr;
    void (*run)(const command_line &line) = nullptr; /* does all of it, where it is more than a request */
};

struct command_line {
    std::string runtime_dir;
    std::chrono::milliseconds patience{60'000};
    bool as_json = false;
    std::string colour = "auto";
    command what;
    recording_options recordings;
    std::string asked; /* the handle or name to be explained */
    top_options top;
    replay_options replay;
    timeline_options timeline;
};

/* Returns nothing when the program is to go on, else what it is to end with: the text was printed. */
std::optional<exit_status> read_command_line(int argc, char **argv, command_line &line);

} // namespace l2vpnctl

#endif
