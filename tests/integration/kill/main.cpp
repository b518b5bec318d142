// Kills the data server again and again under writers and watchers, and judges what they saw.
//   okv_kill_rounds ROUNDS HISTORY [FAULT]
// The history goes to a file that must not be there yet. Ends with 1 when the checker finds a
// fault; FAULT puts one in that must be found.

#include "Rounds.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

struct NamedSeed {
    const char* name;
    killing::Seed seed;
};
constexpr NamedSeed kSeeds[]{{"lost", killing::Seed::lost},
                             {"torn", killing::Seed::torn},
                             {"gap", killing::Seed::gap},
                             {"duplicate", killing::Seed::duplicate},
                             {"stale", killing::Seed::stale}};

int usage() {
    std::fputs("usage: okv_kill_rounds ROUNDS HISTORY [lost|torn|gap|duplicate|stale]\n", stderr);
    return 2;
}

bool judge(const std::string& file) {
    std::ifstream text(file);
    const auto faults = killing::check(killing::readHistory(text));
    for (const auto& fault : faults)
        std::printf("  %s: %s\n", killing::nameOf(fault.kind), fault.what.c_str());
    std::printf("kill-rounds: %s\n", faults.empty() ? "kept" : "BROKEN");
    return faults.empty();
}

int run(int count, const std::string& file, killing::Seed seed) {
    const auto begun = killing::now();
    killing::Rounds rounds(file, seed);
    rounds.run(count);
    std::printf("%s, in %.0f s\n", rounds.summary().c_str(), killing::now() - begun);
    return judge(file) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc >= 3 ? std::atoi(argv[1]) : 0;
    auto seed = killing::Seed::none;
    for (const auto& [name, named] : kSeeds) {
        if (argc == 4 && std::strcmp(argv[3], name) == 0) seed = named;
    }
    if (rounds < 1 || argc > 4 || (argc == 4 && seed == killing::Seed::none) ||
        access(argv[2], F_OK) == 0)
        return usage();
    try {
        return run(rounds, argv[2], seed);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kill-rounds: %s\n", error.what());
        return 1;
    }
}
