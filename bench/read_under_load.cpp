// How long a read takes while other clients write 16 MiB of large values to a disk that needs
// 100 ms for every flush, beside how long it takes when nothing else happens.
//
// The reader has core 0, the writers core 1; the server may use both. Each pair of rounds is an
// idle one and a loaded one; the loaded one lasts as long as the writers need.

#include "Contest.h"

#include "support/DataServer.h"

#include <OKVTesting/RuntimeFolder.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

using support::connect;
using Clock = std::chrono::steady_clock;

constexpr int kPairs = 7;
constexpr int kWriters = 4;
constexpr std::size_t kValueSize = 250U << 10;
constexpr int kValuesPerWriter = (16 << 20) / static_cast<int>(kValueSize) / kWriters;
constexpr auto kIdleRound = std::chrono::milliseconds(1000);

bool set(okv::RemoteObject& root, const std::string& key, const std::string& value) {
    return okv::send<&OKVDataMng_protocol::setOKVDataPT_value_appUid>(root, key, value, 1);
}

struct Times {
    double median, p99;
};

template <class GoOn>
Times read(okv::RemoteObject& root, GoOn goOn) {
    std::vector<double> times;
    while (goOn()) {
        const auto start = Clock::now();
        okv::send<&OKVDataMng_protocol::okvDataPT_appUid>(root, "read", 1);
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return {bench::quantileOf(times, 0.5), bench::quantileOf(times, 0.99)};
}

Times readIdle(okv::RemoteObject& root) {
    const auto end = Clock::now() + kIdleRound;
    return read(root, [end] { return Clock::now() < end; });
}

void writeLargeValues(int writer) {
    bench::pinTo(1);
    const auto root = connect();
    const std::string value(kValueSize, static_cast<char>('a' + writer));
    for (int i = 0; i < kValuesPerWriter; ++i) {
        // Few keys: a user's room is bounded.
        const auto key = "large" + std::to_string(writer) + "." + std::to_string(i % 4);
        if (!set(*root, key, value)) std::abort();
    }
}

Times readLoaded(okv::RemoteObject& root, double& seconds) {
    std::atomic<int> writing{kWriters};
    std::vector<std::thread> writers;
    const auto start = Clock::now();
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([&writing, writer] {
            writeLargeValues(writer);
            --writing;
        });
    }
    const auto times = read(root, [&writing] { return writing > 0; });
    seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (auto& writer : writers) writer.join();
    return times;
}

}  // namespace

int main() {
    const okv::testing::RuntimeFolder folder;
    setenv("LD_PRELOAD", OKV_SLOW_FSYNC, 1);
    setenv("OKV_SLOW_FSYNC_MS", "100", 1);
    const bench::ServerProcess server(
        {OKV_BENCH_SERVER, "--foreground", "--store", (folder.path() / "store.db").string()});
    unsetenv("LD_PRELOAD");
    bench::pinTo(0);
    const auto root = connect();
    if (!set(*root, "read", std::string(32, 'v'))) return EXIT_FAILURE;
    readIdle(*root);  // warm
    std::printf("%-6s %12s %12s %12s %12s %7s %9s\n", "round", "idle us", "idle p99", "loaded us",
                "loaded p99", "ratio", "load s");
    std::vector<double> ratios, tails;
    for (int pair = 1; pair <= kPairs; ++pair) {
        const auto idle = readIdle(*root);
        double seconds = 0;
        const auto loaded = readLoaded(*root, seconds);
        std::printf("%-6d %12.1f %12.1f %12.1f %12.1f %7.2f %9.2f\n", pair, idle.median, idle.p99,
                    loaded.median, loaded.p99, loaded.median / idle.median, seconds);
        ratios.push_back(loaded.median / idle.median);
        tails.push_back(loaded.p99 / idle.p99);
    }
    std::printf("median of the ratios: %.2f (of the 99th percentiles: %.2f)\n",
                bench::quantileOf(ratios, 0.5), bench::quantileOf(tails, 0.5));
}
