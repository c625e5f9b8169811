/*
 * l2vpn-trace: prints the trace file of a process, dead or alive.
 */
#include "print.h"
#include "trace_file.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

namespace {

using namespace l2vpn::trace_reader;

using printer = void (*)(std::ostream &, const contents &);
constexpr printer printers[2][2] = {{print_records, print_records_json}, {print_locks, print_locks_json}};

int flushed()
{
    if (!std::cout.flush()) {
        std::cerr << "l2vpn-trace: cannot write the output\n";
        return 1;
    }
    return 0;
}

int run(int argc, char **argv)
{
    CLI::App program("Prints the trace file of an L2VPN process or interface owner.", "l2vpn-trace");
    std::string path;
    bool locks = false;
    bool json = false;
    program.add_option("FILE", path, "The trace file")->required();
    program.add_flag("--locks", locks, "Where threads waited for locks, instead of the records");
    program.add_flag("--json", json, "One JSON object, for programs");
    program.set_version_flag("--version", "l2vpn-trace " L2VPN_VERSION, "Print the version");
    program.footer(
        "Exit status: 0 printed, 1 the file cannot be read or is no trace file, 2 bad command line.");
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) {
            program.exit(error);
            return flushed();
        }
        std::cerr << "l2vpn-trace: " << error.what() << " (see l2vpn-trace --help)\n";
        return 2;
    }
    try {
        const contents read = read_file(path);
        printers[locks ? 1 : 0][json ? 1 : 0](std::cout, read);
    } catch (const bad_file &bad) {
        std::cerr << "l2vpn-trace: " << path << ": " << bad.what() << '\n';
        return 1;
    }
    return flushed();
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::cerr << "l2vpn-trace: " << error.what() << '\n';
        return 1;
    }
}
