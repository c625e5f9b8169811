#include "compare.h"
#include "console.h"
#include "documents.h"
#include "inventory.h"
#include "mstp.h"
#include "options.h"
#include "owner.h"
#include "wire.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace {

using comparisons = std::vector<owner::comparison>;

template <typename Intended>
int compare_with(std::istream &held, const std::string &name, const char *verb, const Intended &intended,
                 comparisons &made)
{
    if (!held) {
        std::cerr << "l2vpn-owner: " << name << ": " << std::strerror(errno) << '\n';
        return owner::exit_bad_input;
    }
    try {
        made.push_back(owner::compare(intended, held));
        return made.back().differences.empty() ? 0 : owner::exit_failed;
    } catch (const std::exception &error) {
        std::cerr << "l2vpn-owner: " << name << ": is not what 'l2vpnctl show " << verb
                  << " --json --raw' prints: " << error.what() << '\n';
        return owner::exit_bad_input;
    }
}

// With what the process holds, from a file or ('-') from standard input.
template <typename Intended>
int compare_with(const std::string &path, const char *verb, const Intended &intended, comparisons &made)
{
    if (path == "-")
        return compare_with(std::cin, "standard input", verb, intended, made);
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        std::cerr << "l2vpn-owner: " << path << ": is a directory, not a file\n";
        return owner::exit_bad_input;
    }
    std::ifstream file(path);
    return compare_with(file, path, verb, intended, made);
}

int run(int argc, char **argv)
{
    owner::options chosen;
    int status = 0;
    if (!owner::parse_options(argc, argv, chosen, status))
        return status;
    owner::interface_list interfaces;
    owner::fault_list faults(chosen.inventory);
    if (!owner::read_inventory(chosen.inventory, interfaces, faults)) {
        faults.print(std::cerr);
        return owner::exit_bad_input;
    }
    owner::mstp_scenario scenario;
    owner::fault_list scenario_faults(chosen.mstp);
    if (!chosen.mstp.empty() && !owner::read_mstp(chosen.mstp, scenario, scenario_faults)) {
        scenario_faults.print(std::cerr);
        return owner::exit_bad_input;
    }
    if (!chosen.mstp.empty() && std::ranges::none_of(interfaces, [&](const owner::interface_ptr &entry) {
            return entry->class_id == scenario.class_id;
        })) {
        std::cerr << "l2vpn-owner: " << chosen.mstp << ": the inventory has no interface of class "
                  << scenario.class_id << '\n';
        return owner::exit_bad_input;
    }
    if (chosen.print_expected) {
        if (chosen.as_json)
            std::cout << owner::document_of_expected(interfaces);
        else
            owner::print_expected(interfaces, std::cout);
        return owner::flushed();
    }
    comparisons made;
    if (!chosen.compare.empty())
        status = compare_with(chosen.compare, "acs", interfaces, made);
    if (!chosen.compare_mstp.empty())
        status = std::max(status, compare_with(chosen.compare_mstp, "mstp", scenario, made));
    if (chosen.as_json && status != owner::exit_bad_input)
        std::cout << owner::document_of(made);
    for (const owner::comparison &one : made)
        if (!chosen.as_json)
            owner::print_comparison(one, std::cout);
    if (!chosen.compare.empty() || !chosen.compare_mstp.empty())
        return std::max(status, owner::flushed());

    // The platform reads its configuration when it is first used, which is not yet.
    // It takes an absolute directory only.
    if (!chosen.runtime_dir.empty())
        (void)setenv("L2VPN_RUNTIME_DIR", std::filesystem::absolute(chosen.runtime_dir).c_str(), 1);
    // Why a class is not connected is said where a person sees it, unless told otherwise.
    (void)setenv("L2VPN_LOG", "stderr", 0);
    (void)setenv("L2VPN_MTU", std::to_string(chosen.mtu).c_str(), 1);
    owner::console out;
    return owner::interface_owner(chosen, out, chosen.mstp.empty() ? nullptr : &scenario).run(interfaces);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::cerr << "l2vpn-owner: " << error.what() << '\n';
        return owner::exit_failed;
    }
}
