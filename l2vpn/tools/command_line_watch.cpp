#include "command_line_watch.h"

#include "command_line.h"
#include "command_line_numbers.h"
#include "replay/replay.h"
#include "timeline/timeline.h"

namespace l2vpnctl {

namespace {

/* monitor and capture. */
void add_recordings(CLI::App &app, command_line &line)
{
    recording_options &to = line.recordings;
    const auto add = [&](const char *name, const char *text, void (*run)(const command_line &)) {
        CLI::App *verb = app.add_subcommand(name, text)->fallthrough();
        verb->add_option("--count", to.count, "End after so many records")
            ->type_name("N")
            ->transform(l2vpnd::number(1, UINT64_MAX));
        verb->add_flag("--history", to.history, "What the process's ring holds already, too");
        verb->final_callback([&line, run] { line.what.run = run; });
        return verb;
    };
    CLI::App *seen = add("monitor", "Show messages as they come, or from a file", monitor);
    record_choice &choice = to.choice;
    seen->add_option("--read", to.files,
                     "From a pcapng file or a ring instead of the process; may be repeated")
        ->type_name("FILE")
        ->excludes("--history");
    add_number(*seen, "--owner", choice.owner, "Of the client with this number");
    add_class(*seen, choice.class_id);
    seen->add_option("--type", choice.type, "Of this message type: CREATE, PROV, ...")->type_name("TYPE");
    seen->add_option("--handle", choice.handles, "That name an AC with this handle; may be repeated")
        ->type_name("N")
        ->type_size(1)
        ->take_all()
        ->transform(l2vpnd::number());
    seen->add_option("--name", choice.name,
                     "That name an AC whose name matches, since it was seen to be created; *, ? and []")
        ->type_name("PATTERN");
    seen->add_flag("-v,--verbose", to.verbose, "With all ACs and records");
    seen->add_flag("-x,--bytes", to.bytes, "With all bytes");

    CLI::App *kept = add("capture", "Write messages to a pcapng file, as they come or from rings", capture);
    kept->add_option("-w,--write", to.write, "The file; older ones are FILE.1, FILE.2, ...")
        ->type_name("FILE")
        ->required();
    kept->add_option("--from-ring", to.files,
                     "From the rings of processes, dead or alive, instead of the process")
        ->type_name("FILE")
        ->excludes("--history");
    kept->add_option("--size", to.size_mib, "A file is full with so many MiB (64)")
        ->type_name("MIB")
        ->transform(l2vpnd::number(1, uint64_t{1} << 20));
    kept->add_option("--files", to.written_files,
                     "So many files are kept (4); with 1, the capture ends when it is full")
        ->type_name("N")
        ->transform(l2vpnd::number(1, 1000));
    kept->add_flag("--force", to.force, "Replace files that are there");
}

void add_explain(CLI::App &app, command_line &line)
{
    CLI::App *verb =
        app.add_subcommand("explain", "Tell what happened to one AC, and why it is as it is")->fallthrough();
    verb->add_option("ac", line.asked, "Its interface handle, or its name")
        ->required()
        ->type_name("HANDLE|NAME");
    CLI::Option *const read =
        verb->add_option("--read", line.recordings.files,
                         "From a pcapng file or a ring instead of the process; may be repeated")
            ->type_name("FILE")
            ->type_size(1)
            ->take_all();
    verb->add_option("--also", line.recordings.also,
                     "A ring of an owner's that is elsewhere, beside the process; may be repeated")
        ->type_name("RING")
        ->type_size(1)
        ->take_all()
        ->excludes(read);
    record_choice &choice = line.recordings.choice;
    add_number(*verb, "--owner", choice.owner, "Of the client with this number");
    add_class(*verb, choice.class_id);
    add_number(*verb, "--node", choice.node, "Of this node");
    verb->final_callback([&line] { line.what.run = explain; });
}

void add_top(CLI::App &app, command_line &line)
{
    constexpr double shortest = 0.1;
    constexpr double longest = 3600;
    CLI::App *verb =
        app.add_subcommand("top", "Show owners, rates, queues and retries, again and again")->fallthrough();
    verb->add_option("--interval", line.top.interval, "Seconds between two refreshes (1)")
        ->type_name("SECONDS")
        ->check(within(shortest, longest));
    CLI::Option *count = verb->add_option("--count", line.top.count, "End after so many refreshes")
                             ->type_name("N")
                             ->transform(l2vpnd::number(1, UINT64_MAX));
    verb->add_flag("--once", line.top.once, "One refresh: rates since the beginning")->excludes(count);
    verb->final_callback([&line] { line.what.run = top; });
}

void add_replay(CLI::App &app, command_line &line)
{
    CLI::App *const verb =
        app.add_subcommand("replay", "Play a capture's owners again and compare the tables")->fallthrough();
    replay_options &to = line.replay;
    verb->add_option("file", line.recordings.files, "pcapng files or rings")->type_name("FILE")->required();
    CLI::Option *const running =
        verb->add_flag("--running", to.running, "Into the running process, not an l2vpnd of its own");
    CLI::Option *const against =
        verb->add_option("--against", to.against,
                         "Compare with what show acs, mstp or batches printed with --json, not with what the "
                         "messages say; may be repeated")
            ->type_name("FILE")
            ->type_size(1)
            ->take_all();
    verb->add_flag("--bisect", to.bisect,
                   "Find a record after which something differs, and before which nothing did")
        ->excludes(running)
        ->excludes(against);
    verb->add_option("--program", to.program, "The l2vpnd to be started")
        ->type_name("PATH")
        ->excludes(running);
    verb->add_option("--option", to.options,
                     "An option for it, as in its file of options: NAME=VALUE; may be repeated")
        ->type_name("NAME=VALUE")
        ->type_size(1)
        ->take_all()
        ->excludes(running);
    verb->add_option("--speed", to.speed, "So many times as fast as it was, not as fast as it goes")
        ->type_name("X")
        ->check(within(1e-3, 1e9));
    verb->add_option("--count", line.recordings.count, "Only so many records")
        ->type_name("N")
        ->transform(l2vpnd::number(1, UINT64_MAX));
    verb->footer(
        "Exit status: 0 the tables are the same, 1 they differ, 2 bad command line, 3 the process cannot\n"
        "be reached or started, 4 all else.");
    verb->final_callback([&line] { line.what.run = replay; });
}

void add_timeline(CLI::App &app, command_line &line)
{
    CLI::App *const verb =
        app.add_subcommand("timeline", "Make a page that shows recorded messages")->fallthrough();
    verb->add_option("file", line.recordings.files, "pcapng files or rings")->type_name("FILE")->required();
    verb->add_option("-o,--output", line.timeline.write, "The page")->type_name("FILE")->required();
    verb->add_flag("--force", line.timeline.force, "Replace a file that is there");
    verb->final_callback([&line] { line.what.run = timeline; });
}

} // namespace

void add_watching_verbs(CLI::App &app, command_line &line)
{
    add_recordings(app, line);
    add_explain(app, line);
    add_top(app, line);
    add_replay(app, line);
    add_timeline(app, line);
}

} // namespace l2vpnctl
