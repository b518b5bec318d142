#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/PrivateDescriptor.h>
#include <OKVPlatform/values/Object.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace okv {

/// A thread's run loop: what comes from outside (incoming requests, distributed notices) reaches a
/// process only while the thread that asked for it runs its loop.
///
///     auto loop = okv::RunLoop::current();
///     loop->run();                                  // until stop()
///
/// or, inside an application's own loop (poll, GLib, Qt, Asio):
///
///     pollfd entry{loop->fd(), POLLIN, 0};          // readable: something to do
///     if (poll(&entry, 1, -1) > 0) loop->dispatch();
///
/// Threads: `stop`, `perform`, and watching may be called from any thread; the rest belongs to the
/// loop's own. Handlers run on the loop's thread and under no lock. In a forked child `current()`
/// is a new loop, and one of the parent's does nothing: it watches nothing, drops every task, and
/// returns from `run()` and `runUntil()` at once.
class OKV_EXPORT RunLoop final : public Object {
public:
    using Clock = std::chrono::steady_clock;
    using Handler = std::function<void(std::uint32_t events)>;
    using Task = std::function<void()>;
    using Id = std::uint64_t;

    /// The calling thread's loop, made at the first call. Throws std::system_error without
    /// descriptors.
    static Ref<RunLoop> current();
    /// The same, but null without descriptors.
    static Ref<RunLoop> currentIfPossible();

    /// Serves until `stop()`.
    void run();
    /// Serves until `stop()` (answers true) or the deadline (answers false).
    bool runUntil(Clock::time_point deadline);
    /// Ends the run that is on, or the next one when none is.
    void stop();

    /// A descriptor that is readable whenever `dispatch()` has something to do.
    int fd();
    /// Serves what is ready now; never waits.
    void dispatch();

    /// Calls `handler` when one of the epoll `events` is ready on `descriptor` (level-triggered,
    /// unless EPOLLET is among them).
    /// With an owner, it is called under a reference to it, and not at all once the owner is being
    /// deallocated. Answers 0, and keeps nothing, when the kernel does not watch it: out of memory,
    /// or beyond what the account may watch.
    Id watch(int descriptor, std::uint32_t events, Handler handler, const Object* owner = nullptr);
    /// Changes the events waited for; none at all takes the descriptor out of the set until the
    /// next change. Answers false, and leaves it as it was, when the kernel does not do it.
    bool rewatch(Id id, std::uint32_t events);
    /// For what is watched edge-triggered (EPOLLET): what is ready now is told of once more.
    /// Answers as `rewatch`.
    bool rearm(Id id);
    /// Ends the watch; its handler is not called any more, though a call under way is not waited
    /// for. Does nothing for an id that is not watched.
    void unwatch(Id id);

    /// Runs the task on the loop's thread, at its next turn. With an owner: as for `watch`.
    void perform(Task task, const Object* owner = nullptr);
    /// Runs the task on the loop's thread once `delay` has passed. With an owner: as for `watch`.
    Id performAfter(Clock::duration delay, Task task, const Object* owner = nullptr);
    /// Drops a task that `performAfter` put off; does nothing once it has begun.
    void cancel(Id timer);
    /// Drops all that waits for this owner; belongs in its `dealloc`.
    void forget(const Object* owner) noexcept;

    /// Whether this is the calling thread's loop.
    bool isCurrent() const noexcept;
    /// Whether the loop was ever run or handed to a foreign loop: before, nobody waits on its
    /// descriptors.
    bool isEngaged() const noexcept { return engaged_.load(std::memory_order_acquire); }

private:
    friend Ref<RunLoop> make<RunLoop>();
    struct Source {
        int descriptor;
        std::uint32_t events;
        Handler handler;
        const Object* owner;
        std::shared_ptr<Source> nextDropped = nullptr;
    };
    struct OwnedTask {
        Id id = 0;
        Task task;
        const Object* owner = nullptr;
    };
    using Timers = std::multimap<Clock::time_point, OwnedTask>;

    RunLoop();

    void turn(int timeoutMilliseconds);
    void serve(Id id, std::uint32_t events);
    void serveTasks();
    bool serveTask();
    std::size_t taskCount();
    void serveTimers();
    void setTimer();
    bool isOurs() const noexcept { return generation_ == forkGeneration(); }
    void engage() noexcept { engaged_.store(true, std::memory_order_release); }
    int millisecondsUntil(Clock::time_point deadline) const;

    const std::uint32_t generation_ = forkGeneration();
    PrivateDescriptor epoll_;
    PrivateDescriptor wake_;
    PrivateDescriptor timerDescriptor_;
    std::atomic<bool> engaged_{false};
    std::atomic<bool> stopped_{false};
    std::mutex mutex_;  // guards all below; held for look-ups only, never around a handler
    Id lastId_ = 15;    // the ids up to here are the loop's own
    std::unordered_map<Id, std::shared_ptr<Source>> sources_;
    Timers timers_;
    std::list<OwnedTask> tasks_;
};

}  // namespace okv
