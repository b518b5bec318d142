#include "Throughput.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <new>
#include <thread>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kRound = std::chrono::milliseconds(300);

/// Shared by all who call in one round, whether threads or processes.
struct Board {
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::atomic<long> calls{0};
};

void callForARound(Board& board, const std::function<void()>& call) {
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

}  // namespace

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
    std::vector<pid_t> callers;
    for (int i = 0; i < count; ++i) {
        callers.push_back(fork());
        if (callers.back() != 0) continue;
        callForARound(*board, make());
        _exit(0);
    }
    letGo(*board, count);
    for (const auto caller : callers) waitpid(caller, nullptr, 0);
    const auto result = perSecond(*board);
    munmap(board, sizeof(Board));
    return result;
}

}  // namespace bench
