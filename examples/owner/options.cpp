#include "options.h"

#include "documents.h"
#include "field.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>

#ifndef L2VPN_VERSION
#define L2VPN_VERSION "(built by itself)"
#endif

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

// As inventories have them; CLI11 by itself takes a leading zero for octal.
CLI::Validator number(uint64_t least, uint64_t most)
{
    const auto check = [least, most](std::string &text) {
        uint64_t value = 0;
        std::string fault = parse_number(text, least, most, value);
        if (fault.empty())
            text = std::to_string(value);
        return fault;
    };
    return {check, ""};
}

} // namespace

int flushed()
{
    if (std::cout.flush())
        return 0;
    std::cerr << "l2vpn-owner: cannot write to standard output\n";
    return exit_failed;
}

bool parse_options(int argc, char **argv, options &chosen, int &exit_status)
{
    CLI::App app{"Hands the interfaces of an inventory to the L2VPN process, again whenever it comes back.\n"
                 "What an inventory looks like is told in README.md beside the sample.",
                 "l2vpn-owner"};
    app.set_help_flag("-h,--help", "Shows this and ends");
    app.set_version_flag("--version", "l2vpn-owner " L2VPN_VERSION, "Prints the version and ends");
    const CLI::Option *const json =
        app.add_flag("--json", chosen.as_json,
                     "One JSON document, with --fields, --print-expected, --compare and --compare-mstp");
    app.add_flag_callback(
        "--fields",
        [&chosen] {
            if (chosen.as_json)
                std::cout << document_of_fields();
            else
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
            ->transform(number(smallest_mtu, largest_mtu))
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
        ->transform(number(1, 86400))
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
        exit_status = flushed();
        return false;
    } catch (const CLI::CallForVersion &version) {
        std::cout << version.what() << '\n';
        exit_status = flushed();
        return false;
    } catch (const CLI::Success &) {
        exit_status = flushed();
        return false;
    } catch (const CLI::ParseError &error) {
        exit_status = refuse(error.what());
        return false;
    }
    if (json->count() > 0 && !chosen.print_expected && chosen.compare.empty() &&
        chosen.compare_mstp.empty()) {
        exit_status = refuse(
            "--json goes with --fields, --print-expected, --compare or --compare-mstp, and none is given");
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
