#pragma once

#include "support/Files.h"

#include <sys/types.h>

#include <string>
#include <vector>

/// What the process tests share: real child processes.
namespace processtest {

inline constexpr uid_t kNobody = 65534;

/// How a child process is started.
struct ChildOptions {
    std::vector<std::string> arguments;  // arguments[0] included; empty: the executable's path
    uid_t uid = 0;                       // 0: the caller's own
};

/// A running copy of the test's helper program; ended and reaped with the object. It is ready (it
/// has written its line) when the constructor returns.
class Child {
public:
    explicit Child(const std::string& executable, const ChildOptions& options = {});
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();
    pid_t pid() const noexcept { return pid_; }
    bool isReady() const noexcept { return isReady_; }
    /// Ends it and leaves it a zombie.
    void end() const;

private:
    pid_t pid_ = 0;
    bool isReady_ = false;
};

/// The helper program: writes "ready" and waits; see Sleeper.cpp for its options.
std::string sleeperPath();

/// Blocks until a child of ours has ended, without reaping it.
void waitForEnd(pid_t child);

std::size_t openDescriptors();

/// From now on this process may open `count` more descriptors at the most; for children that
/// were forked for it.
void leaveDescriptors(unsigned count);

}  // namespace processtest
