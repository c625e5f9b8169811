/*
 * l2vpnctl: what an operator talks to l2vpnd with. One command line is one request; the answer is printed as a
 * table or, with --json, as one JSON document, whose rows are printed as they come: it can be far larger
 * than what anybody wants in memory.
 */
#include "command_line.h"
#include "output.h"

#include <cstdio>
#include <exception>
#include <sys/resource.h>

using namespace l2vpnctl;

namespace {

void ask_for_people(control_link &link, const command_line &line)
{
    const view_ptr view = line.what.view();
    const json result =
        link.ask(line.what.verb, line.what.args, [&view](const json &row) { view->take(row); });
    write_out(view->print(result, style_of(line.colour)));
}

void ask_for_programs(control_link &link, const command_line &line)
{
    const command &what = line.what;
    if (what.rows == nullptr) {
        write_out(link.ask(what.verb, what.args, [](const json &) {}).dump(2) + "\n");
        return;
    }
    /* Nothing is printed before the first sign of a good answer. */
    const std::string head = std::string("{\"") + what.rows + "\":[";
    bool first = true;
    const json result = link.ask(what.verb, what.args, [&](const json &row) {
        write_out((first ? head : ",") + "\n" + row.dump());
        first = false;
    });
    write_out((first ? head : "\n") + "],\"" + what.summary + "\":" + result.dump() + "}\n");
}

void ask(const command_line &line)
{
    control_link link(control_path(line.runtime_dir), line.patience);
    (line.as_json ? ask_for_programs : ask_for_people)(link, line);
}

/* Wherever an answer of the process is looked at. */
void run(const command_line &line)
try {
    (line.what.run != nullptr ? line.what.run : ask)(line);
} catch (const json::exception &) {
    throw odd_answer(control_path(line.runtime_dir));
}

/* Of rings there can be many. */
void allow_many_files()
{
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
}

} // namespace

int main(int argc, char **argv)
{
    allow_many_files();
    try {
        command_line line;
        if (const auto status = read_command_line(argc, argv, line)) {
            return *status;
        }
        run(line);
        flush_out();
        return exit_ok;
    } catch (const failure &why) {
        if (!why.text.empty()) {
            fprintf(stderr, "l2vpnctl: %s\n", why.text.c_str());
        }
        return why.status;
    } catch (const std::exception &error) {
        fprintf(stderr, "l2vpnctl: %s\n", error.what());
        return exit_failed;
    }
}
