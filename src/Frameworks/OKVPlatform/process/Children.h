#pragma once

#include <OKVPlatform/process/Task.h>
#include <OKVPlatform/values/ForkGuard.h>

#include <sys/types.h>

#include <functional>
#include <list>
#include <memory>
#include <mutex>

namespace okv {

/// One launched child. All fields but `pid` belong to the registry's lock.
struct Task::Child {
    pid_t pid = 0;
    /// The end of the standard-error pipe that nobody reads; -1 when there is none (any more).
    int errorPipe = -1;
    int waiters = 0;
    bool isReaped = false;
};

/// Every child that a Task launched and that still needs care: reaping, or its pipe closed. A
/// forked process begins with none. Not installed: Task's own.
class Children {
public:
    /// The process's one registry; never destroyed, since threads may outlive `main`.
    static Children& shared();

    /// Adds what `spawn` answers. The room is made before, so that no child is lost for want of it.
    std::shared_ptr<Task::Child> launch(const std::function<Task::Child()>& spawn);
    void wait(Task::Child& child);
    void reapFinished();

private:
    static void holdForFork(void* self);
    static void freeInParent(void* self);
    static void forgetInChild(void* self);
    void reapAllLocked();

    std::mutex mutex_;
    std::list<std::shared_ptr<Task::Child>> children_;
    ForkGuard guard_{this, {&holdForFork, &freeInParent, &forgetInChild}};
};

}  // namespace okv
