#include "options.h"

#include "log.h"
#include "number_option.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace l2vpnd {

namespace {

constexpr uint32_t largest_mtu = 1048576;
constexpr uint32_t largest_nodeid = 0xFFFFFFFEu;
constexpr uint32_t most_acs = 100'000'000;
constexpr uint32_t most_owners = 65536;
constexpr uint32_t smallest_ring = 64; /* KiB */
constexpr uint32_t largest_ring = 1048576;

/* A flag that is given a value: in the file, or by --NAME=VALUE. */
std::string check_flag(const std::string &value)
{
    static constexpr std::string_view words[] = {"true", "false", "on", "off", "yes", "no", "1", "0"};
    const bool good = std::ranges::find(words, value) != std::end(words);
    return good ? std::string() : "'" + value + "' is neither true nor false";
}

/* That the file can be read, or why not. */
std::string check_file(const std::string &path)
{
    struct stat there {};
    int wrong = 0;
    if (stat(path.c_str(), &there) != 0 || faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0) {
        wrong = errno;
    } else if (S_ISDIR(there.st_mode)) {
        wrong = EISDIR;
    }
    return wrong == 0 ? std::string() : path + ": " + strerror(wrong);
}

/* The file of options. Each line is taken as the command line takes --NAME=VALUE, by itself at first, so that
 * what is wrong is told with its line. */
class option_file : public CLI::ConfigBase {
public:
    explicit option_file(const CLI::App &app) : m_app(app) {}

    std::vector<CLI::ConfigItem> from_config(std::istream &input) const override;

private:
    CLI::ConfigItem read_line(std::string_view line) const;

    const CLI::App &m_app;
};

void describe(CLI::App &app, program_options &options)
{
    app.config_formatter(std::make_shared<option_file>(app));
    app.set_version_flag("--version", "l2vpnd " L2VPN_VERSION, "Print the version");
    app.set_config("--config", "", "File of options, a line each: NAME = VALUE, without the dashes")
        ->type_name("FILE")
        ->check(check_file);
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.add_option("--runtime-dir", options.runtime_dir, "Directory of the sockets")
        ->type_name("DIR")
        ->check(
            [](const std::string &dir) { return dir.empty() ? std::string("it is empty") : std::string(); });
    app.add_option("--group", options.group, "Group of the sockets")->type_name("NAME");
    app.add_option("--nodeid", options.nodeid, "Id of this node")
        ->type_name("N")
        ->transform(number(0, largest_nodeid));
    app.add_option("--mtu", options.mtu, "Largest message in bytes")
        ->type_name("BYTES")
        ->transform(number(hdr_len, largest_mtu));
    app.add_flag("--auto-provision", options.process.auto_provision,
                 "Provision every new AC when its batch is complete")
        ->check(check_flag);
    app.add_option("--max-acs", options.process.max_acs, "ACs that are kept at most")
        ->type_name("N")
        ->transform(number(1, most_acs))
        ->capture_default_str();
    app.add_option("--max-owners", options.process.max_owners, "Owners that are served at most")
        ->type_name("N")
        ->transform(number(1, most_owners))
        ->capture_default_str();
    app.add_option("--max-mstp", options.process.max_mstp, "MSTP records that are kept at most")
        ->type_name("N")
        ->transform(number(1, most_acs))
        ->capture_default_str();
    app.add_option(
           "--capture", options.capture,
           "Ring of the latest messages: on (the runtime directory's l2vpnd-PID.ring), off, or a path "
           "with a slash in it")
        ->type_name("WHERE")
        ->default_str("on where 4 times its size is free")
        ->check([](const std::string &where) {
            const bool good = where == "on" || where == "off" || where.find('/') != std::string::npos;
            return good ? std::string() : "'" + where + "' is not on, off or a path with a slash in it";
        });
    app.add_option("--capture-size", options.capture_size, "Size of that ring")
        ->type_name("KIB")
        ->transform(number(smallest_ring, largest_ring))
        ->capture_default_str();
    app.add_option("--log", "Where the log goes")
        ->type_name("stderr|syslog")
        ->default_str("stderr")
        ->check(CLI::IsMember({"stderr", "syslog"}))
        ->each([&options](const std::string &where) { options.to_syslog = where == "syslog"; });
    app.add_flag("--verbose", options.verbose, "Log owners that come and go, and requests of operators")
        ->check(check_flag);
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

void parse(CLI::App &app, int argc, char **argv, program_options &options)
{
    describe(app, options);
    app.parse(argc, argv);
    options.capture_asked = app.count("--capture") > 0;
    options.has_file = app.get_config_ptr()->count() > 0;
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view spaces = " \t\r";
    const size_t begin = text.find_first_not_of(spaces);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(spaces) + 1 - begin);
}

/* In quotes or not, with a comment behind it or not. Empty: there is none. */
std::string_view value_in(std::string_view text)
{
    text = trimmed(text);
    if (!text.starts_with('"') && !text.starts_with('\'')) {
        return trimmed(text.substr(0, text.find(" #")));
    }
    const size_t end = text.find(text.front(), 1);
    const std::string_view rest = end == std::string_view::npos ? text : trimmed(text.substr(end + 1));
    return rest.empty() || rest.starts_with('#') ? text.substr(1, end - 1) : std::string_view();
}

CLI::ConfigItem option_file::read_line(std::string_view line) const
{
    const size_t equals = line.find('=');
    const std::string name(trimmed(line.substr(0, equals)));
    const std::string value(equals < line.size() ? value_in(line.substr(equals + 1)) : std::string_view());
    const auto in_name = [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_'; };
    if (name.empty() || value.empty() || !std::ranges::all_of(name, in_name)) {
        throw CLI::ConfigError("this is no NAME = VALUE");
    }
    const CLI::Option *const option = m_app.get_option_no_throw("--" + name);
    if (option == nullptr || !option->get_configurable()) {
        throw CLI::ConfigError("there is no option '" + name + "' in a file");
    }
    CLI::App alone;
    program_options ignored;
    describe(alone, ignored);
    std::vector<std::string> arguments{"--" + name + "=" + value};
    alone.parse(arguments);
    CLI::ConfigItem item;
    item.name = name;
    item.inputs = {value};
    return item;
}

std::vector<CLI::ConfigItem> option_file::from_config(std::istream &input) const
{
    std::vector<CLI::ConfigItem> taken;
    std::string line;
    for (size_t number = 1; std::getline(input, line); number++) {
        const std::string_view text = trimmed(line);
        if (text.empty() || text.front() == '#' || text.front() == ';') {
            continue;
        }
        try {
            taken.push_back(read_line(text));
            const auto same = [&taken](const CLI::ConfigItem &item) {
                return item.name == taken.back().name;
            };
            if (std::ranges::count_if(taken, same) > 1) {
                throw CLI::ConfigError("'" + taken.back().name + "' is there already");
            }
        } catch (const CLI::ParseError &error) {
            throw CLI::ConfigError(m_app.get_config_ptr()->as<std::string>() + ":" + std::to_string(number) +
                                   ": " + error.what());
        }
    }
    return taken;
}

} // namespace

std::optional<exit_status> read_command_line(int argc, char **argv, program_options &options)
{
    CLI::App app("The L2VPN process: keeps the attachment circuits of this node's interface owners",
                 "l2vpnd");
    try {
        parse(app, argc, argv, options);
        return std::nullopt;
    } catch (const CLI::CallForHelp &) {
        std::cout << app.help();
    } catch (const CLI::CallForVersion &) {
        std::cout << "l2vpnd " L2VPN_VERSION "\n";
    } catch (const CLI::ParseError &error) {
        std::cerr << journal_prefix(LOG_ERR) << "l2vpnd: " << one_line(error) << " (see l2vpnd --help)\n";
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
    try {
        parse(app, argc, argv, options);
        return {};
    } catch (const CLI::ParseError &error) {
        return one_line(error);
    }
}

} // namespace l2vpnd
