#include "options.h"

#include <CLI/CLI.hpp>
#include <iostream>

#ifndef L2VPN_VERSION
#define L2VPN_VERSION "0"
#endif

namespace l2vpnd {

namespace {

constexpr uint32_t largest_mtu = 1048576;
constexpr uint32_t largest_nodeid = 0xFFFFFFFEu;
constexpr uint32_t most_acs = 100'000'000;
constexpr uint32_t most_owners = 65536;
constexpr uint32_t smallest_ring = 64; /* KiB */
constexpr uint32_t largest_ring = 1048576;

void describe(CLI::App &app, program_options &options)
{
    app.set_version_flag("--version", "l2vpnd " L2VPN_VERSION, "Print the version");
    app.set_config("--config", "", "File of options, a line each: NAME = VALUE, without the dashes")
        ->type_name("FILE");
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.add_option("--runtime-dir", options.runtime_dir, "Directory of the sockets")
        ->type_name("DIR")
        ->check(
            [](const std::string &dir) { return dir.empty() ? std::string("it is empty") : std::string(); });
    app.add_option("--group", options.group, "Group of the sockets")->type_name("NAME");
    app.add_option("--nodeid", options.nodeid, "Id of this node")
        ->type_name("N")
        ->check(CLI::Range(uint32_t{0}, largest_nodeid).description(""));
    app.add_option("--mtu", options.mtu, "Largest message in bytes")
        ->type_name("BYTES")
        ->check(CLI::Range(hdr_len, largest_mtu).description(""));
    app.add_flag("--auto-provision", options.process.auto_provision,
                 "Provision every new AC when its batch is complete");
    app.add_option("--max-acs", options.process.max_acs, "ACs that are kept at most")
        ->type_name("N")
        ->check(CLI::Range(uint32_t{1}, most_acs).description(""))
        ->capture_default_str();
    app.add_option("--max-owners", options.process.max_owners, "Owners that are served at most")
        ->type_name("N")
        ->check(CLI::Range(uint32_t{1}, most_owners).description(""))
        ->capture_default_str();
    app.add_option("--max-mstp", options.process.max_mstp, "MSTP records that are kept at most")
        ->type_name("N")
        ->check(CLI::Range(uint32_t{1}, most_acs).description(""))
        ->capture_default_str();
    app.add_option(
           "--capture", options.capture,
           "Ring of the latest messages: on (the runtime directory's l2vpnd-PID.ring), off, or a path "
           "with a slash in it")
        ->type_name("WHERE")
        ->capture_default_str()
        ->check([](const std::string &where) {
            const bool good = where == "on" || where == "off" || where.find('/') != std::string::npos;
            return good ? std::string() : "'" + where + "' is not on, off or a path with a slash in it";
        });
    app.add_option("--capture-size", options.capture_size, "Size of that ring")
        ->type_name("KIB")
        ->check(CLI::Range(smallest_ring, largest_ring).description(""))
        ->capture_default_str();
    app.add_option("--log", "Where the log goes")
        ->type_name("stderr|syslog")
        ->default_str("stderr")
        ->check(CLI::IsMember({"stderr", "syslog"}))
        ->each([&options](const std::string &where) { options.to_syslog = where == "syslog"; });
    app.add_flag("--verbose", options.verbose, "Log owners that come and go, and requests of operators");
    app.footer(
        "Exit status: 0 ended on a signal, 1 failed, 2 bad command line, 3 another l2vpnd is running.\n"
        "Numbers may be given in hexadecimal (0x...).");
}

std::string one_line(const CLI::ParseError &error)
{
    std::string line = error.what();
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

} // namespace

std::optional<exit_status> read_command_line(int argc, char **argv, program_options &options)
{
    CLI::App app("The L2VPN process: keeps the attachment circuits of this node's interface owners",
                 "l2vpnd");
    describe(app, options);
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::CallForHelp &) {
        std::cout << app.help();
    } catch (const CLI::CallForVersion &) {
        std::cout << "l2vpnd " L2VPN_VERSION "\n";
    } catch (const CLI::ParseError &error) {
        std::cerr << "l2vpnd: " << one_line(error) << " (see l2vpnd --help)\n";
        return exit_usage;
    }
    if (!std::cout.flush()) {
        std::cerr << "l2vpnd: cannot write to standard output\n";
        return exit_failed;
    }
    return exit_ok;
}

std::string read_again(int argc, char **argv, program_options &options)
{
    CLI::App app;
    describe(app, options);
    try {
        app.parse(argc, argv);
        return {};
    } catch (const CLI::ParseError &error) {
        return one_line(error);
    }
}

} // namespace l2vpnd
