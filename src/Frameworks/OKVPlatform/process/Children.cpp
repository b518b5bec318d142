#include <OKVPlatform/process/Children.h>
#include <OKVPlatform/values/Lasting.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace okv {

namespace {

void reap(Task::Child& child) noexcept {
    if (child.isReaped || child.waiters > 0) return;
    // Not our child any more (reaped by the application's own code): then there is nothing to reap.
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
    static constinit OnDemand<Children> children;
    return children.get();
}

std::shared_ptr<Task::Child> Children::launch(const std::function<Task::Child()>& spawn) {
    std::list launched{std::make_shared<Task::Child>()};
    reapFinished();
    // Under no lock: it waits until the new process has its program, and a fork would wait for it.
    *launched.front() = spawn();
    auto child = launched.front();
    const std::lock_guard lock(mutex_);
    children_.splice(children_.end(), launched);
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
    children_.remove_if(isDone);
}

void Children::holdForFork(void* self) {
    static_cast<Children*>(self)->mutex_.lock();
}

void Children::freeInParent(void* self) {
    static_cast<Children*>(self)->mutex_.unlock();
}

// They are the parent's to wait for. An identifier may come back as that of a child of our own.
void Children::forgetInChild(void* self) {
    auto& children = *static_cast<Children*>(self);
    for (const auto& child : children.children_) {
        if (child->errorPipe >= 0) close(child->errorPipe);
        child->errorPipe = -1;
        child->isReaped = true;
    }
    children.children_.clear();
    children.mutex_.unlock();
}

}  // namespace okv
