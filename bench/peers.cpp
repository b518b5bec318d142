// One call beside what others need for the same work: a key and an int in, a text of 32 bytes out.
// On one core, split over two, with a pause before each call, and from eight processes at once.
//
//     bench_peers [FILE]    prints a table; the figures as JSON into FILE

#include "Figures.h"
#include "Throughput.h"
#include "peers/Peer.h"

#include <OKVTesting/RuntimeFolder.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <fstream>

namespace {

using bench::Peer;
using nlohmann::json;

constexpr bench::Rounds kBusy{31, 1000};
constexpr bench::Rounds kPausing{9, 60, std::chrono::milliseconds(1)};
constexpr int kThroughputRounds = 21;
constexpr int kClients = 8;

struct Everyone {
    std::vector<Peer> present;
    std::vector<Peer> absent;
};

void add(Everyone& everyone, Peer peer) {
    auto& where = peer.absent.empty() ? everyone.present : everyone.absent;
    where.push_back(std::move(peer));
}

// Raw comes first: everybody's figures are told as ratios to its.
Everyone startAll(const std::string& folder) {
    Everyone everyone;
    add(everyone, bench::rawStream(folder));
    add(everyone, bench::okvTransport());
    for (auto& peer : bench::dataServer(folder)) add(everyone, std::move(peer));
    add(everyone, bench::sdBusPeerToPeer(folder));
    add(everyone, bench::sdBusOverDaemon(folder));
    add(everyone, bench::sdBusOverBroker(folder));
    add(everyone, bench::sdbusCpp(folder));
    add(everyone, bench::capnProto(folder));
    add(everyone, bench::grpc(folder));
    return everyone;
}

void pinServers(const Everyone& everyone, int core) {
    for (const auto& peer : everyone.present)
        for (const auto& server : peer.servers) bench::pinTo(core, server->pid());
}

// ---- Latency ----

json latency(const char* title, const std::vector<bench::Contender>& contenders,
             const bench::Rounds& rounds) {
    std::printf("\n%s\n", title);
    const auto results = bench::contest(contenders, rounds);
    bench::print(results);
    return bench::figures(results);
}

json latencies(const Everyone& everyone) {
    std::vector<bench::Contender> contenders;
    for (const auto& peer : everyone.present) contenders.push_back({peer.name, peer.connect()});
    bench::pinTo(0);
    pinServers(everyone, 0);
    json all;
    all["one core"] = latency("Everything on one core", contenders, kBusy);
    all["1 ms between calls"] = latency("One core, 1 ms between calls", contenders, kPausing);
    pinServers(everyone, 1);
    all["two cores"] = latency("Client and server on a core each", contenders, kBusy);
    return all;
}

// ---- Throughput ----

json throughputs(const Everyone& everyone) {
    bench::pinTo(0);
    pinServers(everyone, 0);
    std::vector<std::vector<double>> counts(everyone.present.size());
    for (int round = 0; round < kThroughputRounds; ++round)
        for (std::size_t i = 0; i < counts.size(); ++i)
            counts[i].push_back(
                bench::throughputOfProcesses(kClients, everyone.present[i].connect));
    std::printf("\n%-50s %10s %7s\n", "Eight client processes, everything on one core", "calls/s",
                "of raw");
    json rows = json::array();
    for (std::size_t i = 0; i < counts.size(); ++i) {
        std::vector<double> ratios;
        for (std::size_t round = 0; round < counts[i].size(); ++round)
            ratios.push_back(counts[i][round] / counts[0][round]);
        const auto perSecond = bench::quantileOf(counts[i], 0.5);
        const auto ofRaw = bench::quantileOf(ratios, 0.5);
        std::printf("%-50s %10.0f %7.2f\n", everyone.present[i].name.c_str(), perSecond, ofRaw);
        rows.push_back({{"name", everyone.present[i].name},
                        {"calls_per_second", perSecond},
                        {"of_raw", ofRaw}});
    }
    return rows;
}

json absentees(const Everyone& everyone) {
    json rows = json::array();
    for (const auto& peer : everyone.absent) {
        std::printf("left out: %s (%s)\n", peer.name.c_str(), peer.absent.c_str());
        rows.push_back({{"name", peer.name}, {"why", peer.absent}});
    }
    return rows;
}

}  // namespace

int main(int count, char** arguments) {
    std::setbuf(stdout, nullptr);
    const okv::testing::RuntimeFolder folder;
    const auto everyone = startAll(folder.path());
    json report;
    report["absent"] = absentees(everyone);
    // Before anybody connects: it forks, and some of the others have threads once they do.
    report["throughput"] = throughputs(everyone);
    report["latency"] = latencies(everyone);
    if (count > 1) std::ofstream(arguments[1]) << report.dump(2) << '\n';
}
