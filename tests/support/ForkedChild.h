#pragma once

#include "Patience.h"
#include "Sanitizers.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <thread>
#include <type_traits>
#include <vector>

/// What a forked child can do with what it found of its parent.
namespace support {

/// The exit code of a child of this process; -1 where a signal ended it, as one does when it has
/// not ended within a minute.
inline int exitCodeOf(pid_t child) {
    const auto handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0U));
    pollfd look{handle, POLLIN, 0};
    Patience patience(std::chrono::seconds(60));
    while (handle >= 0 && poll(&look, 1, 1000) != 1) {
        if (!patience.isLeft()) kill(child, SIGKILL);
    }
    if (handle >= 0) close(handle);
    int status = -1;  // which no exit has
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// What the task answers in a child of its own, 0 to 255; -1 where a signal ended that.
template <class Task>
int outcomeInAChild(Task task) {
    // What it throws must not go up into the parent's tests.
    const auto outcome = [&]() noexcept { return static_cast<int>(task()); };
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) return -1;
    if (child > 0) return exitCodeOf(child);
    const int code = outcome();
    std::fflush(nullptr);
    _exit(code);
}

/// Whether the task, in a child of its own, met no failure and answered true, where it answers.
template <class Task>
bool succeedsInAChild(Task task) {
    const auto succeeds = [&] {
        bool answer = true;
        if constexpr (std::is_void_v<std::invoke_result_t<Task>>) {
            task();
        } else {
            answer = task();
        }
        return answer && !testing::Test::HasFailure();
    };
    return outcomeInAChild([&] { return succeeds() ? 0 : 1; }) == 0;
}

/// Expects the task to succeed in so many children one after the other, all forked while two other
/// threads are busy with something again and again. Skips the test under the thread sanitizer, in
/// whose children now and then a thread's lock of the sanitizer's own stays taken.
template <class Task>
void expectChildrenSucceedWhile(const std::function<void()>& busy, Task task, int children = 100) {
    if (kIsThreadSanitized) GTEST_SKIP() << "the thread sanitizer has locks that survive a fork";
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!stop) busy();
        });
    }
    bool succeeded = true;
    for (int i = 0; i < children && succeeded; ++i) succeeded = succeedsInAChild(task);
    stop = true;
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(succeeded);
}

}  // namespace support
