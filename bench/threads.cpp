// How many calls a second come through when several threads share one connection, or several
// processes have one each, beside raw blocking Unix streams: as many connections, each with a
// thread of its own at the other end.

#include "Throughput.h"
#include "peers/Peer.h"

#include <OKVTesting/RuntimeFolder.h>

#include <cstdio>

namespace {

constexpr int kRounds = 9;

void compare(const char* what, const std::function<double()>& raw,
             const std::function<double()>& okv) {
    std::vector<double> raws, okvs, ratios;
    for (int round = 0; round < kRounds; ++round) {
        raws.push_back(raw());
        okvs.push_back(okv());
        ratios.push_back(raws.back() / okvs.back());
    }
    std::printf("%-38s %12.0f %12.0f %9.2f %7.2f\n", what, bench::quantileOf(raws, 0.5),
                bench::quantileOf(okvs, 0.5), 1e6 / bench::quantileOf(okvs, 0.5),
                bench::quantileOf(ratios, 0.5));
}

void compareAll() {
    const okv::testing::RuntimeFolder folder;
    const auto raw = bench::rawStream(folder.path());
    const auto okv = bench::okvTransport();
    std::printf("%-38s %12s %12s %9s %7s\n", "", "raw calls/s", "okv calls/s", "us/call", "ratio");
    compare(
        "8 processes", [&] { return bench::throughputOfProcesses(8, raw.connect); },
        [&] { return bench::throughputOfProcesses(8, okv.connect); });
    for (const int count : {1, 2, 8}) {
        const auto what = std::to_string(count) + " threads on one connection";
        compare(
            what.c_str(), [&] { return bench::throughputOfThreads(count, raw.connect); },
            [&, shared = okv.connect()] {
                return bench::throughputOfThreads(count, [&] { return shared; });
            });
    }
}

}  // namespace

int main() {
    std::puts("All cores:");
    compareAll();
    bench::pinTo(0);
    std::puts("\nEverything on one core:");
    compareAll();
}
