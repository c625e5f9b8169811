#include "results.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sys/utsname.h>
#include <thread>

namespace {

std::string processor()
{
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        if (line.starts_with("model name"))
            return line.substr(line.find(':') + 2);
    }
    return "unknown";
}

std::string caches()
{
    std::string result;
    for (int index = 0;; ++index) {
        const std::string folder = "/sys/devices/system/cpu/cpu0/cache/index" + std::to_string(index) + "/";
        std::ifstream level(folder + "level"), type(folder + "type"), size(folder + "size");
        std::string l, t, s;
        if (!(level >> l && type >> t && size >> s))
            return result;
        if (t != "Instruction")
            result += (result.empty() ? "L" : ", L") + l + " " + s;
    }
}

/* always, madvise or never: what the arrays lie on decides how often an address is looked up. */
std::string huge_pages()
{
    std::ifstream mode("/sys/kernel/mm/transparent_hugepage/enabled");
    for (std::string word; mode >> word;) {
        if (word.front() == '[')
            return word.substr(1, word.size() - 2);
    }
    return "none";
}

} // namespace

results::results(effort by) : effort_(by)
{
    getloadavg(&load_, 1);
}

void results::take(const char *operation, uint32_t class_id, uint32_t mtu, uint32_t acs,
                   const std::vector<candidate> &candidates, double seconds)
{
    std::fprintf(stderr, "  %s, class %u, MTU %u, %u ACs\n", operation, class_id, mtu, acs);
    const std::vector<timing> times = measure(candidates, seconds);
    for (size_t i = 0; i < candidates.size(); ++i) {
        const timing &t = times[i];
        add("times", {{"operation", operation},
                      {"class", class_id},
                      {"mtu", mtu},
                      {"acs", acs},
                      {"what", candidates[i].name},
                      {"ns", t.low},
                      {"p10", t.p10},
                      {"median", t.median},
                      {"p90", t.p90},
                      {"rounds", t.rounds}});
    }
}

double results::seconds(uint32_t acs) const
{
    if (small())
        return 0; /* the fewest rounds */
    return (thorough() ? 3.0 : 0.7) * (acs > 100000 ? 3 : 1);
}

nlohmann::ordered_json results::finished() const
{
    utsname system = {};
    uname(&system);
    nlohmann::ordered_json out;
    out["machine"] = {{"processor", processor()},
                      {"processors", std::thread::hardware_concurrency()},
                      {"caches", caches()},
                      {"system", std::string(system.sysname) + " " + system.release},
                      {"compiler", "g++ " __VERSION__},
                      {"huge_pages", huge_pages()},
                      {"load", load_},
                      {"thorough", thorough()}};
    out.update(all_);
    return out;
}
