#include <OKVPlatform/process/Children.h>
#include <OKVPlatform/values/Lasting.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace okv {

namespace {

void reap(Task::Child& child) noexcept {
    if (child.isReaped || child.waiters > 0) return;
    // Not our child any more (a fork's copy of the registry, or reaped by the application's own
    // code): then there is nothing to reap.
    child.isReaped = waitpid(child.pid, nullptr, WNOHANG) != 0;
}

// The pipe outlives the child: a process that the child started may still write to it, and must
// not be killed by a broken pipe.
void closePipeWithoutWriters(Task::Child& child) noexcept {
    if (!child.isReaped || child.errorPipe < 0) return;
    pollfd look{child.errorPipe, 0, 0};
    if (poll(&look, 1, 0) != 1) return;
    close(child.errorPipe);
    child.errorPipe = -1;
}

bool isDone(const std::shared_ptr<Task::Child>& child) noexcept {
    return child->isReaped && child->errorPipe < 0;
}

// Leaves the child a zombie, so that its id cannot go to another process meanwhile.
void blockUntilEnded(pid_t pid) noexcept {
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

}  // namespace

Children& Children::shared() {
    static constinit LastingOnDemand<Children> children;
    return children.get();
}

std::shared_ptr<Task::Child> Children::launch(const std::function<Task::Child()>& spawn) {
    auto child = std::make_shared<Task::Child>();
    const std::lock_guard lock(mutex_);
    reapAllLocked();
    children_.reserve(children_.size() + 1);
    *child = spawn();
    children_.push_back(child);
    return child;
}

void Children::wait(Task::Child& child) {
    {
        const std::lock_guard lock(mutex_);
        if (child.isReaped) return;
        ++child.waiters;
    }
    blockUntilEnded(child.pid);
    const std::lock_guard lock(mutex_);
    --child.waiters;
    reapAllLocked();
}

void Children::reapFinished() {
    const std::lock_guard lock(mutex_);
    reapAllLocked();
}

void Children::reapAllLocked() {
    for (const auto& child : children_) {
        reap(*child);
        closePipeWithoutWriters(*child);
    }
    children_.erase(std::remove_if(children_.begin(), children_.end(), isDone), children_.end());
}

}  // namespace okv
