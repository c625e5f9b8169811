#include "command_line.h"

#include "command_line_numbers.h"
#include "command_line_watch.h"

#include <iostream>
#include <utility>

namespace l2vpnctl {

namespace {

/* What the options of all verbs write to; each verb takes what it has. */
struct values {
    std::optional<uint64_t> owner;
    std::optional<uint32_t> class_id;
    std::optional<uint32_t> node;
    std::optional<std::string> name;
    std::optional<std::string> state;
    std::optional<std::string> kind;
    std::vector<uint32_t> handles;
    bool raw = false;
    bool all = false;
    bool owners = false;
    uint32_t flags = 0;
    uint32_t word2 = 0;
    uint32_t word3 = 0;
    std::vector<std::string> records;
};

template <typename T>
void put(json &args, const char *name, const std::optional<T> &value)
{
    if (value) {
        args[name] = *value;
    }
}

void put(json &args, const char *name, bool value)
{
    if (value) {
        args[name] = true;
    }
}

json choice_of(const values &given)
{
    json args = json::object();
    put(args, "owner", given.owner);
    put(args, "class", given.class_id);
    put(args, "node", given.node);
    put(args, "name", given.name);
    put(args, "state", given.state);
    put(args, "kind", given.kind);
    put(args, "raw", given.raw);
    put(args, "all", given.all);
    put(args, "owners", given.owners);
    if (!given.handles.empty()) {
        args["handles"] = given.handles;
    }
    return args;
}

std::string wrong(const std::string &part, const std::string &whole, const char *why)
{
    return std::string("'").append(part).append("' in '").append(whole).append("' ").append(why);
}

uint32_t number_in(const std::string &text, const std::string &field)
{
    const std::optional<uint64_t> value = l2vpnd::number_in(text);
    if (!value || *value > UINT32_MAX) {
        throw CLI::ValidationError("--record", wrong(text, field, "is no number of 32 bits"));
    }
    return static_cast<uint32_t>(*value);
}

/* "word=1,half=2,octets=0102,words=1:2:3:4,opaque=01020304,word2=5", any of them, in any order. */
json record_in(const std::string &text)
{
    json record = json::object();
    for (const std::string &part : CLI::detail::split(text, ',')) {
        const size_t equals = part.find('=');
        const std::string key = part.substr(0, equals);
        const std::string value = equals == std::string::npos ? "" : part.substr(equals + 1);
        if (record.contains(key)) {
            throw CLI::ValidationError("--record", wrong(key, text, "is given twice"));
        }
        if (key == "word" || key == "half" || key == "word2") {
            record[key] = number_in(value, part);
        } else if (key == "octets" || key == "opaque") {
            record[key] = value;
        } else if (key == "words") {
            for (const std::string &word : CLI::detail::split(value, ':')) {
                record[key].push_back(number_in(word, part));
            }
        } else {
            throw CLI::ValidationError("--record", wrong(key, text, "is no field"));
        }
    }
    return record;
}

void add_owner_choice(CLI::App &verb, values &given)
{
    add_number(verb, "--owner", given.owner, "The client with this number");
    add_class(verb, given.class_id);
    add_number(verb, "--node", given.node, "Of this node");
}

void add_ac_choice(CLI::App &verb, values &given)
{
    add_owner_choice(verb, given);
    verb.add_option("--name", given.name, "Whose name matches; *, ? and [] as in the shell")
        ->type_name("PATTERN");
    verb.add_option("--handle", given.handles, "With this interface handle; may be repeated")
        ->type_name("N")
        ->type_size(1)
        ->take_all()
        ->transform(l2vpnd::number());
    verb.add_option("--state", given.state, "In this state")
        ->type_name("STATE")
        ->check(CLI::IsMember({"batched", "created", "provisioned", "provisioning", "unprovisioning"}));
}

/* `finish` completes the request when the verb is the one that was given. */
CLI::App *add_verb(CLI::App &under, const char *name, const char *text, command_line &line,
                   const values &given, command what,
                   void (*finish)(const values &given, json &args) = nullptr)
{
    CLI::App *verb = under.add_subcommand(name, text)->fallthrough();
    verb->final_callback([&line, &given, what = std::move(what), finish] {
        line.what = what;
        line.what.args.update(choice_of(given));
        if (finish != nullptr) {
            finish(given, line.what.args);
        }
    });
    return verb;
}

void add_shows(CLI::App &app, command_line &line, values &given)
{
    add_verb(app, "status", "Show the process", line, given,
             {"status", json::object(), nullptr, nullptr, view_of_status});

    CLI::App *show =
        app.add_subcommand("show", "Show what the process holds")->require_subcommand(1)->fallthrough();
    add_owner_choice(*add_verb(*show, "clients", "Interface owners that are connected", line, given,
                               {"show clients", json::object(), "clients", "summary", view_of_clients}),
                     given);
    CLI::App *acs = add_verb(*show, "acs", "Attachment circuits", line, given,
                             {"show acs", json::object(), "acs", "summary", view_of_acs});
    add_ac_choice(*acs, given);
    acs->add_flag("--raw", given.raw, "Also definition and information, byte for byte");
    CLI::App *mstp = add_verb(*show, "mstp", "Spanning trees: roots, port states, VLAN maps, protection",
                              line, given, {"show mstp", json::object(), "mstp", "summary", view_of_mstp});
    add_owner_choice(*mstp, given);
    mstp->add_option("--kind", given.kind, "Of this kind")
        ->type_name("KIND")
        ->check(CLI::IsMember({"root", "state", "protection", "vlan"}));
    mstp->add_flag("--raw", given.raw, "Also the records, byte for byte");
    add_owner_choice(*add_verb(*show, "batches", "Batches that are open", line, given,
                               {"show batches", json::object(), "batches", "summary", view_of_batches}),
                     given);
    for (CLI::App *under : {show, &app}) {
        CLI::App *counters =
            add_verb(*under, "counters", "What was counted since the start", line, given,
                     {"show counters", json::object(), "owners", "totals", view_of_counters});
        add_owner_choice(*counters, given);
        counters->add_flag("--owners", given.owners, "Also for each client");
    }
}

void add_commands(CLI::App &app, command_line &line, values &given)
{
    for (const char *name : {"provision", "unprovision"}) {
        const bool provision = std::string("provision") == name;
        CLI::App *verb = add_verb(app, name, provision ? "Provision ACs" : "Unprovision ACs", line, given,
                                  {name, json::object(), nullptr, nullptr, view_of_provision});
        add_ac_choice(*verb, given);
        verb->add_flag("--all", given.all, "All ACs");
    }

    CLI::App *notify = app.add_subcommand("notify", "Send a notice")->require_subcommand(1)->fallthrough();
    CLI::App *bulk = add_verb(*notify, "bulk", "A notice with records", line, given,
                              {"notify", {{"kind", "bulk"}}, nullptr, nullptr, view_of_notify},
                              [](const values &v, json &args) {
                                  args["flags"] = v.flags;
                                  args["records"] = json::array();
                                  for (const std::string &text : v.records) {
                                      args["records"].push_back(record_in(text));
                                  }
                              });
    bulk->add_option("--record", given.records,
                     "A record: word=N,half=N,octets=HEX,words=N:N:N:N,opaque=HEX,word2=N; may be repeated")
        ->type_name("FIELDS")
        ->required()
        ->type_size(1)
        ->take_all();
    CLI::App *header = add_verb(*notify, "header", "A notice that is two words", line, given,
                                {"notify", {{"kind", "header"}}, nullptr, nullptr, view_of_notify},
                                [](const values &v, json &args) {
                                    args["word2"] = v.word2;
                                    args["word3"] = v.word3;
                                });
    add_number(*header, "--word2", given.word2, "The third word of the header");
    add_number(*header, "--word3", given.word3, "The fourth word of the header");
    CLI::App *flags = add_verb(*notify, "flags", "A flags notice: bit 0x2 is set in any case", line, given,
                               {"notify", {{"kind", "flags"}}, nullptr, nullptr, view_of_notify},
                               [](const values &v, json &args) { args["flags"] = v.flags; });
    for (CLI::App *with_flags : {bulk, flags}) {
        add_number(*with_flags, "--flags", given.flags, "The header's flags word");
    }
    for (CLI::App *kind : {bulk, header, flags}) {
        add_owner_choice(*kind, given);
        kind->add_flag("--all", given.all, "To all clients");
    }
}

} // namespace

std::optional<exit_status> read_command_line(int argc, char **argv, command_line &line)
{
    CLI::App app("Asks and commands the L2VPN process", "l2vpnctl");
    values given;
    int64_t patience = line.patience.count();
    app.set_version_flag("--version", "l2vpnctl " L2VPN_VERSION, "Print the version");
    app.add_option("--runtime-dir", line.runtime_dir, "Directory of the process's sockets")->type_name("DIR");
    app.add_flag("--json", line.as_json, "Print one JSON document");
    app.add_option("--color", line.colour, "Colours: auto, always or never")
        ->type_name("WHEN")
        ->check(CLI::IsMember({"auto", "always", "never"}));
    app.add_option("--timeout", patience, "Milliseconds that all of it may take (60000)")
        ->type_name("MS")
        ->transform(l2vpnd::number(1, 3'600'000));
    app.require_subcommand(1);
    add_shows(app, line, given);
    add_commands(app, line, given);
    add_watching_verbs(app, line);
    app.footer(
        "Exit status: 0 done, 1 refused or failed, 2 bad command line, 3 the process cannot be reached,\n"
        "4 its answer broke off, 5 no such AC, 6 more than one AC is meant. Numbers may be given in "
        "hexadecimal (0x...).");
    try {
        app.parse(argc, argv);
        line.patience = std::chrono::milliseconds(patience);
        return std::nullopt;
    } catch (const CLI::CallForHelp &) {
        std::cout << app.help();
    } catch (const CLI::CallForVersion &) {
        std::cout << "l2vpnctl " L2VPN_VERSION "\n";
    } catch (const CLI::ParseError &error) {
        std::string text = error.what();
        const std::vector<std::string> unknown = app.remaining(true);
        if (dynamic_cast<const CLI::RequiredError *>(&error) != nullptr && !unknown.empty()) {
            text = "no verb or option '" + unknown.front() + "' here";
        }
        std::replace(text.begin(), text.end(), '\n', ' ');
        std::cerr << "l2vpnctl: " << text << " (see l2vpnctl --help)\n";
        return exit_usage;
    }
    if (!std::cout.flush()) {
        std::cerr << "l2vpnctl: cannot write to standard output\n";
        return exit_failed;
    }
    return exit_ok;
}

} // namespace l2vpnctl
