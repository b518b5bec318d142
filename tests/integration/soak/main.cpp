// Mixed work with churn for a long time, on a server that is restarted all along.
//   okv_soak SECONDS [FAULT]
// Ends with 0 when everything was kept; with 1 when anything was lost, went wrong or grew; with 3
// when nothing did, but growth could not be judged: the run was interrupted, shorter than 12
// seconds, or so slow that there are too few samples. FAULT puts something in that must be found.

#include "Director.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct NamedFault {
    const char* name;
    soak::Fault fault;
};
constexpr NamedFault kFaults[]{{"descriptors", soak::Fault::descriptors},
                               {"memory", soak::Fault::memory},
                               {"error", soak::Fault::error},
                               {"lost-write", soak::Fault::lostWrite}};

int usage() {
    std::fputs("usage: okv_soak SECONDS [descriptors|memory|error|lost-write]\n", stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 0;
    auto fault = soak::Fault::none;
    if (argc == 3) {
        for (const auto& [name, named] : kFaults) {
            if (std::strcmp(argv[2], name) == 0) fault = named;
        }
    }
    if (seconds < 1 || argc > 3 || (argc == 3 && fault == soak::Fault::none)) return usage();
    try {
        return static_cast<int>(soak::Director(soak::Schedule::of(seconds), fault).run());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "soak: %s\n", error.what());
        return 1;
    }
}
