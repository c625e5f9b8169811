/*
 * l2vpn_bench [--small|--thorough] FILE: measures whole requests of the library beside what else does the same
 * job, and writes the times into FILE. See ./run bench.
 */
#include "drain.h"
#include "results.h"

#include <cstdio>
#include <fstream>
#include <string_view>

int main(int argc, char **argv)
{
    const std::string_view option = argc == 3 ? argv[1] : "";
    const effort by = option == "--small"      ? effort::small
                      : option == "--thorough" ? effort::thorough
                                               : effort::usual;
    if (argc != 2 && by == effort::usual) {
        std::fputs("usage: l2vpn_bench [--small|--thorough] FILE\n", stderr);
        return 2;
    }
    const char *const path = argv[argc - 1];
    if (!std::ofstream(path, std::ios::app)) { /* what is there stays until there is something new */
        std::fprintf(stderr, "l2vpn_bench: %s: cannot be written\n", path);
        return 1;
    }
    drain socket; /* first: it forks */
    results all(by);
    if (!all.small())
        measure_owners(all); /* before what needs more memory: the most that was used is asked for */
    measure_outbound(all, socket);
    measure_inbound(all);
    measure_told(all);
    if (all.thorough()) {
        measure_growth(all, socket);
        measure_million(all);
    }

    std::ofstream file(path);
    file << all.finished().dump(1) << '\n';
    if (!file.flush()) {
        std::fprintf(stderr, "l2vpn_bench: %s: cannot be written\n", path);
        return 1;
    }
    return 0;
}
