// How long reads and writes take beside a client that behaves badly, and how much memory the server
// then takes: rounds in pairs, one without the neighbour and one with it.
//
// The server and the one who measures have core 0, the neighbours have core 1: what is seen is what
// the server does for the neighbour, not what the neighbour does to the machine.
//   bench_neighbours [PART-OF-A-NAME]
// Ends with 1 when a neighbour makes the slowest of a hundred reads, or writes, more than twice as
// slow, or has ended by itself.

#include "Contest.h"

#include "support/DataServer.h"
#include "support/Processes.h"
#include "support/RawRequests.h"
#include "support/Sockets.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVTesting/RuntimeFolder.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace {

using support::connectRaw;
using support::push;
using support::readingRequest;
using support::repeated;
using Clock = std::chrono::steady_clock;
using Ready = std::function<void()>;
using Neighbour = std::function<void(const Ready& ready)>;

constexpr int kPairs = 7;
constexpr auto kReading = std::chrono::milliseconds(400);
constexpr auto kWriting = std::chrono::milliseconds(300);
constexpr char kLarge[] = "large";
constexpr double kSlowerAtMost = 2;

// ---- Bad neighbours: each does it until it is killed ----

// Rounds without a neighbour have this one: that a process is there at all makes a difference to
// the system's scheduler.
void isQuiet(const Ready& ready) {
    ready();
    pause();
}

void isStopped(const Ready& ready) {
    const auto requests = okv::encodeHello() + repeated(readingRequest(kLarge), 100);
    std::vector<okv::PrivateDescriptor> sockets;
    for (int i = 0; i < 4; ++i) {
        sockets.push_back(connectRaw());
        push(sockets.back(), requests);
    }
    ready();
    raise(SIGSTOP);
}

void neverReads(std::string_view key, const Ready& ready) {
    const auto socket = connectRaw();
    push(socket, okv::encodeHello());
    const auto requests = repeated(readingRequest(key), 100);
    ready();
    for (std::string_view left = requests;;) {
        const auto count = send(socket.get(), left.data(), left.size(), MSG_NOSIGNAL);
        if (count < 0) std::abort();
        left.remove_prefix(static_cast<std::size_t>(count));
        if (left.empty()) left = requests;
    }
}

// Reads, but has always a hundred requests under way.
void asksInBursts(const Ready& ready) {
    const auto socket = connectRaw();
    push(socket, okv::encodeHello());
    const auto requests = repeated(readingRequest("read"), 100);
    std::string answers(1U << 16, '\0');
    ready();
    for (;;) {
        if (send(socket.get(), requests.data(), requests.size(), MSG_NOSIGNAL) < 0) std::abort();
        pollfd entry{socket.get(), POLLIN, 0};
        while (poll(&entry, 1, 0) == 1 &&
               recv(socket.get(), answers.data(), answers.size(), MSG_DONTWAIT) > 0) {
        }
    }
}

void sendsAByteASecond(const Ready& ready) {
    const auto bytes = okv::encodeHello() + repeated(readingRequest("read"), 10);
    std::vector<okv::PrivateDescriptor> sockets;
    for (int i = 0; i < 20; ++i) sockets.push_back(connectRaw());
    ready();
    for (std::size_t at = 0;; ++at) {
        for (const auto& socket : sockets) {
            push(socket, {&bytes[at % bytes.size()], 1});
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
}

// So often a second; what it was late for, it does at once.
void repeatedly(int perSecond, const std::function<void()>& act) {
    const auto between = std::chrono::nanoseconds(std::chrono::seconds(1)) / perSecond;
    for (auto next = Clock::now();; next += between) {
        act();
        std::this_thread::sleep_until(next);
    }
}

void connects(const std::string& path, const Ready& ready) {
    ready();
    repeatedly(10000, [&] { support::connectOnly(path); });
}

void postsNotices(const Ready& ready) {
    auto& center = okv::DistributedNotificationCenter::defaultCenter();
    const okv::Value information(okv::Dictionary{{"text", std::string(200, 'n')}});
    ready();
    for (;;) center.post("bench.flood", {}, information);
}

// Dies before greeting, in the middle of it, of a request, of waiting and of reading.
void dies(const Ready& ready) {
    const auto greeting = okv::encodeHello(), request = readingRequest("read"),
               large = readingRequest(kLarge);
    const std::string lives[]{"",
                              greeting.substr(0, 3),
                              greeting,
                              greeting + request.substr(0, 9),
                              greeting + request,
                              greeting + large};
    std::size_t life = 0;
    ready();
    repeatedly(1000, [&] { push(connectRaw(), lives[life++ % std::size(lives)]); });
}

// ---- Who measures ----

struct Times {
    double median = 0, p99 = 0;
};

Times timesOf(Clock::duration length, const std::function<void()>& call) {
    std::vector<double> times;
    for (const auto end = Clock::now() + length; Clock::now() < end;) {
        const auto start = Clock::now();
        call();
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return {bench::quantileOf(times, 0.5), bench::quantileOf(times, 0.99)};
}

struct Round {
    Times reading, writing;
    std::int64_t kilobytes = 0;
};

class Bench {
public:
    /// `wanted`: a part of the names of the neighbours that are of interest.
    Bench(okv::RemoteObject& root, int server, std::string wanted)
        : root_(root), server_(server), wanted_(std::move(wanted)) {}

    void compare(const char* name, const Neighbour& neighbour) {
        if (std::string_view(name).find(wanted_) == std::string_view::npos) return;
        std::vector<double> quiet, loaded, reads, writes, quietWrites, loadedWrites;
        std::int64_t most = 0;
        for (int pair = 0; pair < kPairs; ++pair) {
            const auto before = playBeside(isQuiet);
            const auto beside = playBeside(neighbour);
            quiet.push_back(before.reading.p99);
            loaded.push_back(beside.reading.p99);
            reads.push_back(beside.reading.p99 / before.reading.p99);
            quietWrites.push_back(before.writing.p99);
            loadedWrites.push_back(beside.writing.p99);
            writes.push_back(beside.writing.p99 / before.writing.p99);
            most = std::max(most, beside.kilobytes);
        }
        std::printf("%-34s %9.1f %9.1f %6.2f %9.0f %9.0f %6.2f %9ld\n", name,
                    bench::quantileOf(quiet, 0.5), bench::quantileOf(loaded, 0.5),
                    bench::quantileOf(reads, 0.5), bench::quantileOf(quietWrites, 0.5),
                    bench::quantileOf(loadedWrites, 0.5), bench::quantileOf(writes, 0.5),
                    static_cast<long>(most));
        std::fflush(stdout);
        isKept_ = isKept_ && bench::quantileOf(reads, 0.5) <= kSlowerAtMost &&
                  bench::quantileOf(writes, 0.5) <= kSlowerAtMost;
    }
    /// Whether every neighbour so far stayed within the bound.
    bool isKept() const { return isKept_; }

private:
    Round playBeside(const Neighbour& neighbour) {
        const bench::ServerProcess process([&](const Ready& ready) {
            bench::pinTo(1);
            neighbour(ready);
        });
        const auto round = play();
        // Beside one that has died it was quiet.
        if (!process.isRunning()) throw std::runtime_error("a neighbour has ended by itself");
        return round;
    }

    Round play() {
        Round round;
        round.reading = timesOf(kReading, [this] {
            okv::send<&OKVDataMng_protocol::okvDataPT_appUid>(root_, "read", 1);
        });
        round.writing = timesOf(kWriting, [this] {
            okv::send<&OKVDataMng_protocol::setOKVDataPT_value_appUid>(root_, "written", ++number_,
                                                                       1);
        });
        round.kilobytes = support::residentKilobytes(server_);
        return round;
    }

    okv::RemoteObject& root_;
    const int server_;
    const std::string wanted_;
    int number_ = 0;
    bool isKept_ = true;
};

void set(okv::RemoteObject& root, const char* key, std::size_t size) {
    if (!okv::send<&OKVDataMng_protocol::setOKVDataPT_value_appUid>(root, key,
                                                                    std::string(size, 'v'), 1))
        std::abort();
}

void compareAll(Bench& bench, const std::string& socket) {
    std::printf("%-34s %9s %9s %6s %9s %9s %6s %9s\n", "neighbour", "read p99", "beside it",
                "ratio", "write p99", "beside it", "ratio", "server KB");
    bench.compare("none", isQuiet);
    bench.compare("4 stopped, with unread answers", isStopped);
    bench.compare("never reads, small answers",
                  [](const Ready& ready) { neverReads("read", ready); });
    bench.compare("never reads, large answers",
                  [](const Ready& ready) { neverReads(kLarge, ready); });
    bench.compare("asks in bursts without a pause", asksInBursts);
    bench.compare("20 that send a byte a second", sendsAByteASecond);
    bench.compare("10,000 connects a second", [&](const Ready& ready) { connects(socket, ready); });
    bench.compare("notices without a pause", postsNotices);
    bench.compare("1,000 clients a second that die", dies);
}

}  // namespace

int main(int argc, char** argv) {
    const okv::testing::RuntimeFolder folder;
    bench::pinTo(0);
    const bench::ServerProcess server(
        {OKV_BENCH_SERVER, "--foreground", "--store", (folder.path() / "store.db").string()});
    const auto root = support::connect();
    set(*root, "read", 32);
    set(*root, kLarge, 200U << 10);
    Bench bench(*root, server.pid(), argc > 1 ? argv[1] : "");
    try {
        compareAll(bench, folder.path() / kOKVDataServerName);
    } catch (const std::exception& error) {
        std::printf("BROKEN: %s\n", error.what());
        return EXIT_FAILURE;
    }
    std::printf("%s\n", bench.isKept() ? "kept: at most twice as slow" : "BROKEN");
    return bench.isKept() ? EXIT_SUCCESS : EXIT_FAILURE;
}
