#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <thread>
#include <type_traits>
#include <vector>

/// What a forked child can do with what it found of its parent.
namespace support {

/// Whether the task, in a child of its own, met no failure and answered true, where it answers.
template <class Task>
bool succeedsInAChild(Task task) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        bool isDone = true;
        if constexpr (std::is_void_v<std::invoke_result_t<Task>>) {
            task();
        } else {
            isDone = task();
        }
        std::fflush(nullptr);
        _exit(isDone && !testing::Test::HasFailure() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return child > 0 && status == 0;
}

/// Whether the task succeeds in so many children one after the other, all forked while two other
/// threads are busy with something again and again.
template <class Task>
bool succeedsInChildrenWhile(const std::function<void()>& busy, Task task, int children = 100) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!stop) busy();
        });
    }
    bool succeeded = true;
    for (int i = 0; i < children && succeeded; ++i) {
        succeeded = succeedsInAChild([&] {
            alarm(30);
            return task();
        });
    }
    stop = true;
    for (auto& thread : threads) thread.join();
    return succeeded;
}

}  // namespace support
