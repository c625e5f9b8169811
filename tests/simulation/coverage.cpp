#include "coverage.h"

#include "generator.h"

namespace simulation {

namespace {

constexpr const char *feature_names[] = {
#define X(name) #name,
    SIMULATION_FEATURES(X)
#undef X
};

/* The messages that the library sends. */
constexpr std::uint32_t sent_types[] = {0, 2, 3, 6, 9, 11, 12, 14};

} // namespace

std::vector<coverage::row> coverage::rows() const
{
    std::vector<row> result;
    for (std::size_t i = 0; i < op_count; ++i)
        result.push_back({std::string("step ") + name_of(static_cast<op>(i)), ops_[i]});
    for (const std::uint32_t type : sent_types)
        result.push_back({"sent type " + std::to_string(type), sent_.at(type)});
    for (std::size_t type = 0; type < received_.size(); ++type)
        result.push_back(
            {"received type " + std::to_string(type) + (type == types ? " and more" : ""), received_[type]});
    for (const fn function : failing)
        result.push_back(
            {"failed " + l2vpn::sim::name_of(function), failures_[static_cast<std::size_t>(function)]});
    for (std::size_t i = 0; i < features_.size(); ++i)
        result.push_back({feature_names[i], features_[i]});
    return result;
}

std::vector<std::string> coverage::table() const
{
    std::vector<std::string> lines;
    for (const auto &[name, count] : rows())
        lines.push_back(name + " " + std::to_string(count));
    return lines;
}

std::vector<std::string> coverage::missing() const
{
    std::vector<std::string> lines;
    for (const auto &[name, count] : rows()) {
        if (count == 0)
            lines.push_back(name);
    }
    return lines;
}

} // namespace simulation
