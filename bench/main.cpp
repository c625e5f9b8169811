/*
 * l2vpn_bench [--thorough] FILE: measures whole requests of the library beside what else does the same job,
 * and writes the times into FILE. See ./run bench.
 */
#include "drain.h"
#include "results.h"

#include <cstdio>
#include <cstring>
#include <fstream>

int main(int argc, char **argv)
{
    const bool thorough = argc == 3 && strcmp(argv[1], "--thorough") == 0;
    if (argc != 2 && !thorough) {
        std::fputs("usage: l2vpn_bench [--thorough] FILE\n", stderr);
        return 2;
    }
    drain socket; /* first: it forks */
    results all(thorough);
    measure_owners(all); /* before what needs more memory: the most that was used is asked for */
    measure_outbound(all, socket);
    measure_inbound(all);
    if (thorough) {
        measure_growth(all, socket);
        measure_million(all);
    }

    const char *const path = argv[argc - 1];
    std::ofstream file(path);
    file << all.finished().dump(1) << '\n';
    if (!file.flush()) {
        std::fprintf(stderr, "l2vpn_bench: %s: cannot be written\n", path);
        return 1;
    }
    return 0;
}
