#include <OKVPlatform/ipc/RunLoop.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace okv {

namespace {

constexpr RunLoop::Id kWake = 1;
constexpr RunLoop::Id kTimer = 2;
constexpr int kEventsPerTurn = 64;

thread_local Ref<RunLoop> currentLoop;
thread_local std::uint32_t currentGeneration;
// The same loop, for those who only ask whether it is theirs: without a destructor there is nothing
// to set up first, and at a fixed distance from the thread there is no function to be called for
// its place.
[[gnu::tls_model("initial-exec")]] constinit thread_local const RunLoop* loopOfThread = nullptr;

template <class Open>
PrivateDescriptor required(Open open) {
    auto made = PrivateDescriptor::opened(open);
    if (!made.isValid()) throw std::system_error(errno, std::generic_category(), "run loop");
    return made;
}

bool control(int epoll, int operation, int descriptor, std::uint32_t events, RunLoop::Id id) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    return epoll_ctl(epoll, operation, descriptor, &event) == 0;
}

void signal(int counter) {
    const std::uint64_t one = 1;
    while (write(counter, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void drain(int counter) {
    std::uint64_t count = 0;
    while (read(counter, &count, sizeof count) < 0 && errno == EINTR) {
    }
}

}  // namespace

RunLoop::RunLoop()
    : epoll_(required([] { return epoll_create1(EPOLL_CLOEXEC); })),
      wake_(required([] { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); })),
      // At once, because a timer is what a process without descriptors waits for.
      timerDescriptor_(
          required([] { return timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK); })) {
    if (!control(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), EPOLLIN, kWake) ||
        !control(epoll_.get(), EPOLL_CTL_ADD, timerDescriptor_.get(), EPOLLIN, kTimer))
        throw std::system_error(errno, std::generic_category(), "run loop");
}

Ref<RunLoop> RunLoop::current() {
    if (!currentLoop || currentGeneration != forkGeneration()) {
        currentLoop = make<RunLoop>();
        currentGeneration = forkGeneration();
        loopOfThread = currentLoop.get();
    }
    return currentLoop;
}

Ref<RunLoop> RunLoop::currentIfPossible() {
    try {
        return current();
    } catch (const std::system_error&) {
        return nullptr;
    }
}

bool RunLoop::isCurrent() const noexcept {
    return loopOfThread == this;
}

void RunLoop::run() {
    engage();
    while (isOurs() && !stopped_.exchange(false)) turn(-1);
}

bool RunLoop::runUntil(Clock::time_point deadline) {
    engage();
    while (!stopped_.exchange(false)) {
        if (!isOurs() || Clock::now() >= deadline) return false;
        turn(millisecondsUntil(deadline));
    }
    return true;
}

int RunLoop::millisecondsUntil(Clock::time_point deadline) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 3600000));
}

void RunLoop::stop() {
    stopped_.store(true);
    perform([] {});
}

int RunLoop::fd() {
    engage();
    return epoll_.get();
}

void RunLoop::dispatch() {
    engage();
    turn(0);
}

RunLoop::Id RunLoop::watch(int descriptor, std::uint32_t events, Handler handler,
                           const Object* owner) {
    if (!isOurs()) return 0;
    auto source = std::make_shared<Source>(Source{descriptor, events, std::move(handler), owner});
    const std::lock_guard lock(mutex_);
    const auto id = ++lastId_;
    // The source first, for it may find no memory: what is watched can then be taken back.
    const auto at = sources_.emplace(id, std::move(source)).first;
    if (events != 0 && !control(epoll_.get(), EPOLL_CTL_ADD, descriptor, events, id)) {
        sources_.erase(at);
        return 0;
    }
    return id;
}

bool RunLoop::rewatch(Id id, std::uint32_t events) {
    if (!isOurs()) return true;
    const std::lock_guard lock(mutex_);
    const auto found = sources_.find(id);
    if (found == sources_.end() || found->second->events == events) return true;
    auto& source = *found->second;
    // Out of the set, not masked: the kernel reports hang-ups of a masked descriptor all the same.
    const int operation = events == 0          ? EPOLL_CTL_DEL
                          : source.events == 0 ? EPOLL_CTL_ADD
                                               : EPOLL_CTL_MOD;
    const bool done = control(epoll_.get(), operation, source.descriptor, events, id);
    if (done || events == 0) source.events = events;  // what cannot be taken out is not there
    return done || events == 0;
}

bool RunLoop::rearm(Id id) {
    if (!isOurs()) return true;
    const std::lock_guard lock(mutex_);
    const auto found = sources_.find(id);
    if (found == sources_.end() || found->second->events == 0) return true;
    return control(epoll_.get(), EPOLL_CTL_MOD, found->second->descriptor, found->second->events,
                   id);
}

void RunLoop::unwatch(Id id) {
    if (!isOurs()) return;
    std::shared_ptr<Source>
        dropped;  // its handler may own things: destroyed after the lock is given back
    const std::lock_guard lock(mutex_);
    const auto found = sources_.find(id);
    if (found == sources_.end()) return;
    dropped = found->second;
    if (dropped->events != 0) control(epoll_.get(), EPOLL_CTL_DEL, dropped->descriptor, 0, id);
    sources_.erase(found);
}

void RunLoop::perform(Task task, const Object* owner) {
    if (!isOurs()) return;
    {
        const std::lock_guard lock(mutex_);
        tasks_.push_back({0, std::move(task), owner});
        if (tasks_.size() > 1) return;
    }
    signal(wake_.get());
}

RunLoop::Id RunLoop::performAfter(Clock::duration delay, Task task, const Object* owner) {
    if (!isOurs()) return 0;
    const std::lock_guard lock(mutex_);
    const auto id = ++lastId_;
    timers_.emplace(Clock::now() + delay, OwnedTask{id, std::move(task), owner});
    setTimer();
    return id;
}

void RunLoop::cancel(Id timer) {
    if (!isOurs()) return;
    Task dropped;
    const std::lock_guard lock(mutex_);
    const auto found = std::find_if(timers_.begin(), timers_.end(),
                                    [&](const auto& entry) { return entry.second.id == timer; });
    if (found == timers_.end()) return;
    dropped = std::move(found->second.task);
    timers_.erase(found);
    setTimer();
}

// It belongs in destructors and must not fail: what is dropped moves over without an allocation.
void RunLoop::forget(const Object* owner) noexcept {
    if (!isOurs()) return;
    // Destroyed after the lock is given back: what they hold may end with them and come here again.
    std::shared_ptr<Source> droppedSources;
    std::list<OwnedTask> droppedTasks;
    Timers droppedTimers;
    const std::lock_guard lock(mutex_);
    for (auto at = sources_.begin(); at != sources_.end();) {
        if (at->second->owner != owner) {
            ++at;
            continue;
        }
        if (at->second->events != 0)
            control(epoll_.get(), EPOLL_CTL_DEL, at->second->descriptor, 0, at->first);
        at->second->nextDropped = std::exchange(droppedSources, at->second);
        at = sources_.erase(at);
    }
    for (auto at = tasks_.begin(); at != tasks_.end();) {
        const auto task = at++;
        if (task->owner == owner) droppedTasks.splice(droppedTasks.end(), tasks_, task);
    }
    for (auto at = timers_.begin(); at != timers_.end();) {
        const auto timer = at++;
        if (timer->second.owner == owner) droppedTimers.insert(timers_.extract(timer));
    }
    if (!droppedTimers.empty()) setTimer();
}

// Lock held.
void RunLoop::setTimer() {
    itimerspec when{};
    if (!timers_.empty()) {
        const auto since = timers_.begin()->first.time_since_epoch();
        const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
        when.it_value.tv_sec = seconds.count();
        when.it_value.tv_nsec =
            std::max<long>(1, std::chrono::nanoseconds(since - seconds).count());
    }
    timerfd_settime(timerDescriptor_.get(), TFD_TIMER_ABSTIME, &when, nullptr);
}

void RunLoop::turn(int timeoutMilliseconds) {
    epoll_event events[kEventsPerTurn];
    const int ready = epoll_wait(epoll_.get(), events, kEventsPerTurn, timeoutMilliseconds);
    for (int i = 0; i < ready; ++i) serve(events[i].data.u64, events[i].events);
}

void RunLoop::serve(Id id, std::uint32_t events) {
    if (id == kWake) return serveTasks();
    if (id == kTimer) return serveTimers();
    std::shared_ptr<Source> source;
    Ref<const Object> owner;
    {
        const std::lock_guard lock(mutex_);
        const auto found = sources_.find(id);
        if (found == sources_.end() || found->second->events == 0) return;
        source = found->second;
        owner = Ref<const Object>::unlessDying(source->owner);
        if (source->owner != nullptr && !owner) return;
    }
    source->handler(events);
}

// Only what was there when the turn began: a task that queues another must not keep the loop from
// its descriptors.
void RunLoop::serveTasks() {
    drain(wake_.get());
    for (auto left = taskCount(); left > 0 && serveTask(); --left) {
    }
}

std::size_t RunLoop::taskCount() {
    const std::lock_guard lock(mutex_);
    return tasks_.size();
}

bool RunLoop::serveTask() {
    OwnedTask next;
    Ref<const Object> owner;
    {
        const std::lock_guard lock(mutex_);
        if (tasks_.empty()) return false;
        next = std::move(tasks_.front());
        tasks_.pop_front();
        owner = Ref<const Object>::unlessDying(next.owner);
        // Before the task: it may run the loop itself, or throw, and those behind it must not be
        // forgotten.
        if (!tasks_.empty()) signal(wake_.get());
    }
    if (next.owner == nullptr || owner) next.task();
    return true;
}

void RunLoop::serveTimers() {
    drain(timerDescriptor_.get());
    const auto now = Clock::now();
    for (;;) {
        OwnedTask due;  // destroyed after the lock is given back: what it holds may come here again
        Ref<const Object> owner;
        {
            const std::lock_guard lock(mutex_);
            const auto first = timers_.begin();
            if (first == timers_.end() || first->first > now) return setTimer();
            due = std::move(first->second);
            owner = Ref<const Object>::unlessDying(due.owner);
            timers_.erase(first);
            setTimer();  // before the task, which may run the loop itself or throw
        }
        if (due.owner == nullptr || owner) due.task();
    }
}

}  // namespace okv
