// How many calls a second come through when several threads share one connection, or several
// processes have one each, beside raw blocking Unix streams: as many connections, each with a
// thread of its own at the other end.

#include "Contest.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Publication.h>
#include <OKVTesting/RuntimeFolder.h>

#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 9;
constexpr auto kRound = std::chrono::milliseconds(300);
constexpr char kKey[] = "dc-gui-window_colour";
// A request for the key is framed into this many bytes, and its answer into as many below: raw
// moves the same.
constexpr std::size_t kRequestSize = 60;
constexpr std::size_t kReplySize = 43;

// ---- The two servers ----

void moveAll(int socket) {
    char buffer[256] = {};
    while (recv(socket, buffer, kRequestSize, MSG_WAITALL) == kRequestSize &&
           send(socket, buffer, kReplySize, MSG_NOSIGNAL) == kReplySize) {
    }
    close(socket);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

void serveRaw(const std::string& path, const std::function<void()>& ready) {
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    const auto address = addressOf(path);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 64) != 0)
        std::abort();
    ready();
    for (;;) std::thread(moveAll, accept(listener, nullptr, nullptr)).detach();
}

void answer(void*, okv::IncomingRequest& request) {
    static const okv::Value text(std::string(32, 'v'));
    std::string frame;
    okv::beginFrame(frame, okv::FrameKind::reply);
    okv::CborWriter(frame).value(text);
    okv::finishFrame(frame, 0, 0);
    request.answer(std::move(frame));
}

void serveBare(const std::function<void()>& ready) {
    std::string why;
    const auto publication =
        okv::Publication::publish("bench.bare", {&answer, nullptr, nullptr}, {}, why);
    if (!publication) std::abort();
    ready();
    okv::RunLoop::current()->run();
}

// ---- Their clients ----

/// One client's way to call; made where it is used.
using Call = std::function<void()>;
using MakeCall = std::function<Call()>;

Call rawCall(const std::string& path) {
    const int connected = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto address = addressOf(path);
    if (connect(connected, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        std::abort();
    const std::shared_ptr<void> closer(nullptr, [connected](void*) { close(connected); });
    return [connected, closer] {
        char buffer[256] = {};
        if (send(connected, buffer, kRequestSize, MSG_NOSIGNAL) != kRequestSize ||
            recv(connected, buffer, kReplySize, MSG_WAITALL) != kReplySize)
            std::abort();
    };
}

okv::Ref<okv::RemoteObject> connectOkv() {
    const auto connection = okv::Connection::connectionWithRegisteredName("bench.bare");
    if (!connection) std::abort();
    return connection->rootProxy();
}

Call okvCall(okv::Ref<okv::RemoteObject> root) {
    return [root = std::move(root)] {
        okv::send<&OKVDataMng_protocol::okvDataPT_appUid>(*root, kKey, 1);
    };
}

// ---- Counting ----

/// Shared by all who call in one round, whether threads or processes.
struct Board {
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::atomic<long> calls{0};
};

void callForARound(Board& board, const Call& call) {
    for (int i = 0; i < 100; ++i) call();  // warm
    ++board.ready;
    while (!board.go) sched_yield();
    const auto end = Clock::now() + kRound;
    long calls = 0;
    for (; Clock::now() < end; calls += 16) {
        for (int i = 0; i < 16; ++i) call();
    }
    board.calls += calls;
}

void letGo(Board& board, int count) {
    while (board.ready < count) sched_yield();
    board.go = true;
}

double perSecond(const Board& board) {
    return static_cast<double>(board.calls) / std::chrono::duration<double>(kRound).count();
}

double throughputOfThreads(int count, const MakeCall& make) {
    Board board;
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back([&] { callForARound(board, make()); });
    letGo(board, count);
    for (auto& thread : threads) thread.join();
    return perSecond(board);
}

double throughputOfProcesses(int count, const MakeCall& make) {
    auto* const board = new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board;
    for (int i = 0; i < count; ++i) {
        if (fork() != 0) continue;
        callForARound(*board, make());
        _exit(0);
    }
    letGo(*board, count);
    for (int i = 0; i < count; ++i) wait(nullptr);
    const auto result = perSecond(*board);
    munmap(board, sizeof(Board));
    return result;
}

double medianOf(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void compare(const char* what, const std::function<double()>& raw,
             const std::function<double()>& okv) {
    std::vector<double> raws, okvs, ratios;
    for (int round = 0; round < kRounds; ++round) {
        raws.push_back(raw());
        okvs.push_back(okv());
        ratios.push_back(raws.back() / okvs.back());
    }
    std::printf("%-38s %12.0f %12.0f %9.2f %7.2f\n", what, medianOf(raws), medianOf(okvs),
                1e6 / medianOf(okvs), medianOf(ratios));
}

void compareAll(const std::string& raw) {
    const MakeCall makeRaw = [&] { return rawCall(raw); };
    const MakeCall makeOkv = [] { return okvCall(connectOkv()); };
    std::printf("%-38s %12s %12s %9s %7s\n", "", "raw calls/s", "okv calls/s", "us/call", "ratio");
    for (const int count : {1, 2, 8}) {
        const auto root = connectOkv();
        const auto what = std::to_string(count) + " threads on one connection";
        compare(
            what.c_str(), [&] { return throughputOfThreads(count, makeRaw); },
            [&] { return throughputOfThreads(count, [&] { return okvCall(root); }); });
    }
    compare(
        "8 processes", [&] { return throughputOfProcesses(8, makeRaw); },
        [&] { return throughputOfProcesses(8, makeOkv); });
}

}  // namespace

int main() {
    const okv::testing::RuntimeFolder folder;
    const auto raw = folder.path() / "raw";
    {
        const bench::ServerProcess rawServer([&](const auto& ready) { serveRaw(raw, ready); });
        const bench::ServerProcess bare(serveBare);
        std::puts("All cores:");
        compareAll(raw);
    }
    std::filesystem::remove(raw);
    bench::pinTo(0);
    const bench::ServerProcess rawServer([&](const auto& ready) { serveRaw(raw, ready); });
    const bench::ServerProcess bare(serveBare);
    std::puts("\nEverything on one core:");
    compareAll(raw);
}
