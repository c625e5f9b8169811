/*
 * Options that several verbs have, and whose value is a number.
 */
#ifndef L2VPNCTL_COMMAND_LINE_NUMBERS_H
#define L2VPNCTL_COMMAND_LINE_NUMBERS_H

#include "number_option.h"
#include "wire.h"

#include <limits>

namespace l2vpnctl {

template <typename T>
constexpr uint64_t most_of(const T & /*value*/)
{
    return std::numeric_limits<T>::max();
}

template <typename T>
constexpr uint64_t most_of(const std::optional<T> & /*value*/)
{
    return std::numeric_limits<T>::max();
}

/* Any that `to` has room for. */
template <typename T>
void add_number(CLI::App &verb, const char *name, T &to, const char *text)
{
    verb.add_option(name, to, text)->type_name("N")->transform(l2vpnd::number(0, most_of(to)));
}

/* Of seconds and the like. CLI11's own range lets through what is no number at all. */
inline CLI::Validator within(double least, double most)
{
    const auto check = [least, most](const std::string &text) {
        double value = 0;
        const bool is_one = CLI::detail::lexical_cast(text, value) && value >= least && value <= most;
        return is_one ? std::string()
                      : "'" + text + "' is no number from " + CLI::detail::to_string(least) + " to " +
                            CLI::detail::to_string(most);
    };
    return {check, ""};
}

inline void add_class(CLI::App &verb, std::optional<uint32_t> &to)
{
    verb.add_option("--class", to, "Of this class: 0 to 17, but not 15")
        ->type_name("CLASS")
        ->transform(l2vpnd::number())
        ->check([](const std::string &text) {
            const l2vpnd::class_row *row = l2vpnd::find_class(static_cast<uint32_t>(std::stoul(text)));
            return row != nullptr && row->valid ? std::string() : "there is no class " + text;
        });
}

} // namespace l2vpnctl

#endif
