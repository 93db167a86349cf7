#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "tests/convergence/Convergence.h"

// converge [--mode=D|R] [--seed=N] [--ops=N] [--faults=0xBITS] [--only=N,N…] [--runs=N]
//          [--shrink=1]
// runs the seed, or N seeds from it on, and says of each what went wrong first.

int main(int argc, char** argv) {
    tests::RunOptions options;
    std::uint64_t runs = 1;
    bool shrinks = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word(argv[i]);
        const auto end = word.find('=');
        const auto option = word.substr(0, end);
        const auto value = end == std::string::npos ? std::string() : word.substr(end + 1);
        const auto number = std::strtoull(value.c_str(), nullptr, 0);
        if (option == "--mode" && (value == "D" || value == "R")) {
            options.mode = value[0];
        } else if (option == "--seed") {
            options.seed = number;
        } else if (option == "--ops") {
            options.operations = number;
        } else if (option == "--faults") {
            options.faults = static_cast<unsigned>(number);
        } else if (option == "--runs") {
            runs = number;
        } else if (option == "--shrink") {
            shrinks = number != 0;
        } else if (option == "--only") {
            options.only.emplace();
            std::istringstream list(value);
            for (std::string part; std::getline(list, part, ',');) {
                options.only->insert(std::strtoull(part.c_str(), nullptr, 10));
            }
        } else {
            std::cerr << "converge: cannot understand " << word << "\n";
            return 2;
        }
    }
    std::size_t failures = 0, judgedSaves = 0;
    for (; runs > 0; --runs, ++options.seed) {
        const auto least = shrinks ? tests::shrink(options) : options;
        const auto result = tests::converge(least);
        judgedSaves += result.judgedSaves;
        if (result.difference.empty()) continue;
        ++failures;
        std::cout << result.log << result.difference << "\n" << tests::commandLine(least) << "\n";
    }
    std::cout << failures << " failed; " << judgedSaves << " saves judged\n";
    return failures == 0 ? 0 : 1;
}
