#pragma once

#include <OKVPlatform/ipc/ForkGuard.h>
#include <OKVPlatform/process/Task.h>

#include <sys/types.h>

#include <functional>
#include <memory>
#include <vector>

namespace okv {

/// One launched child. All fields but `pid` belong to the registry's lock.
struct Task::Child {
    pid_t pid = 0;
    /// The end of the standard-error pipe that nobody reads; -1 when there is none (any more).
    int errorPipe = -1;
    int waiters = 0;
    bool isReaped = false;
};

/// Every child that a Task launched and that still needs care: reaping, or its pipe closed. Not
/// installed: Task's own.
class Children {
public:
    /// The process's one registry; never destroyed, since threads may outlive `main`.
    static Children& shared();

    /// Adds what `spawn` answers. The room is made before, so that no child is lost for want of it.
    std::shared_ptr<Task::Child> launch(const std::function<Task::Child()>& spawn);
    void wait(Task::Child& child);
    void reapFinished();

private:
    void reapAllLocked();

    ForkMutex mutex_;
    std::vector<std::shared_ptr<Task::Child>> children_;
};

}  // namespace okv
