#include "options.h"

#include "field.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>

namespace owner {

namespace {

constexpr uint32_t smallest_mtu = 16;
constexpr uint32_t largest_mtu = 1048576;

// Read as the platform does, which would only warn of a bad one: this program counts on the number, too.
std::string read_mtu_of_environment(uint32_t &mtu)
{
    const char *text = std::getenv("L2VPN_MTU");
    if (text == nullptr || *text == '\0')
        return {};
    uint64_t number = 0;
    const std::string fault = parse_number(text, smallest_mtu, largest_mtu, number);
    if (!fault.empty())
        return "L2VPN_MTU: " + fault;
    mtu = static_cast<uint32_t>(number);
    return {};
}

int refuse(std::string line)
{
    std::ranges::replace(line, '\n', ' ');
    std::cerr << "l2vpn-owner: " << line << " (--help lists the options)\n";
    return exit_bad_input;
}

} // namespace

bool parse_options(int argc, char **argv, options &chosen, int &exit_status)
{
    CLI::App app{"Hands the interfaces of an inventory to the L2VPN process, again whenever it comes back.\n"
                 "What an inventory looks like is told in README.md beside the sample.",
                 "l2vpn-owner"};
    app.set_help_flag("-h,--help", "Shows this and ends");
    app.add_flag_callback(
        "--fields",
        [] {
            print_fields(std::cout);
            throw CLI::Success();
        },
        "Lists the fields that an inventory can give, and ends");
    app.add_option("-i,--inventory", chosen.inventory, "The inventory, a CSV file")
        ->required()
        ->type_name("FILE");
    app.add_option("-r,--runtime-dir", chosen.runtime_dir,
                   "Directory of the process's socket; else $L2VPN_RUNTIME_DIR, else the platform's")
        ->type_name("DIR");
    const CLI::Option *const mtu =
        app.add_option("-m,--mtu", chosen.mtu, "Largest message, in bytes; else $L2VPN_MTU")
            ->check(CLI::Range(smallest_mtu, largest_mtu))
            ->capture_default_str()
            ->type_name("BYTES");
    CLI::Option *const mstp =
        app.add_option("--mstp", chosen.mstp, "An MSTP scenario to send after the interfaces")
            ->type_name("FILE");
    CLI::Option *const watch = app.add_flag(
        "-w,--watch", chosen.watch, "Reads the inventory again when it is written, and sends what changed");
    app.add_flag("-v,--verbose", chosen.verbose, "Shows each AC of a message that arrives");
    CLI::Option *const once = app.add_flag("--once", chosen.once, "Ends when every AC was created");
    app.add_option("--timeout", chosen.timeout_seconds, "How long --once tries, in seconds")
        ->check(CLI::Range(1U, 86400U))
        ->capture_default_str()
        ->needs(once)
        ->type_name("SECONDS");
    CLI::Option *const print =
        app.add_flag("--print-expected", chosen.print_expected,
                     "Prints what the process must hold, one line an AC: class, handle, name, definition\n"
                     "and information as on the wire, in hexadecimal. Connects to nothing");
    app.add_option("--compare", chosen.compare,
                   "Compares the inventory with what the process holds, the output of\n"
                   "'l2vpnctl show acs --json --raw' ('-': standard input). Connects to nothing")
        ->excludes(print)
        ->excludes(once)
        ->excludes(watch)
        ->type_name("FILE");
    app.add_option("--compare-mstp", chosen.compare_mstp,
                   "The same for the MSTP scenario and the output of\n"
                   "'l2vpnctl show mstp --json --raw'")
        ->excludes(print)
        ->excludes(once)
        ->excludes(watch)
        ->needs(mstp)
        ->type_name("FILE");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        std::cout << app.help();
        exit_status = 0;
        return false;
    } catch (const CLI::Success &) {
        exit_status = 0;
        return false;
    } catch (const CLI::ParseError &error) {
        exit_status = refuse(error.what());
        return false;
    }
    if (mtu->count() == 0) {
        if (const std::string fault = read_mtu_of_environment(chosen.mtu); !fault.empty()) {
            exit_status = refuse(fault);
            return false;
        }
    }
    return true;
}

} // namespace owner
