/* Runs a target over files, for compilers without libFuzzer. */
#include "fuzz.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        std::ifstream file(argv[i], std::ios::binary);
        const std::vector<char> content((std::istreambuf_iterator<char>(file)), {});
        if (!file) {
            std::cerr << argv[0] << ": cannot read " << argv[i] << '\n';
            return 1;
        }
        std::cout << argv[i] << std::endl; /* before it is run: it may be the last line */
        const fuzz::exact input({reinterpret_cast<const uint8_t *>(content.data()), content.size()});
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    return argc > 1 ? 0 : 2;
}
