#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/NotificationFeed.h>
#include <OKVPlatform/ipc/RuntimeFolder.h>
#include <OKVPlatform/values/Lasting.h>

#include <algorithm>
#include <map>
#include <stdexcept>

namespace okv {

/// What the centre holds in one process. A forked child makes its own and touches nothing of the
/// one that it found, whose locks another thread of the parent may have held.
class DistributedNotificationCenter::State final : public Object {
public:
    State(std::string folder, const NotificationLogWriter::Options& options, State* inherited)
        : folder_(folder), writer_(std::move(folder), options), inherited_(inherited) {}

    bool isOurs() const noexcept { return generation_ == forkGeneration(); }

    NotificationLogWriter& writer() noexcept { return writer_; }

    void add(NotificationFeed::Registration registration);
    void remove(const Object& observer, const std::optional<std::string_view>& name,
                const Value& object);
    void forgetAll();

private:
    // The centres at which a thread observes; its registrations end with it.
    struct Thread {
        std::vector<std::pair<Ref<State>, const RunLoop*>> feeds;
        ~Thread();
    };

    Ref<NotificationFeed> feedOf(const Ref<RunLoop>& loop);
    void forget(const RunLoop* loop);

    const std::uint32_t generation_ = forkGeneration();
    const std::string folder_;
    NotificationLogWriter writer_;
    [[maybe_unused]] State* const inherited_;  // the parent's: kept in reach, never used
    std::mutex mutex_;                         // guards the feeds
    std::map<const RunLoop*, Ref<NotificationFeed>> feeds_;
};

DistributedNotificationCenter::State::Thread::~Thread() {
    for (const auto& [center, loop] : feeds)
        if (center->isOurs()) center->forget(loop);
}

// Only the loop's own thread makes its feed, so nobody else can make it meanwhile.
Ref<NotificationFeed> DistributedNotificationCenter::State::feedOf(const Ref<RunLoop>& loop) {
    thread_local Thread thread;
    const std::pair entry(Ref<State>::retaining(this), static_cast<const RunLoop*>(loop.get()));
    if (std::find(thread.feeds.begin(), thread.feeds.end(), entry) == thread.feeds.end())
        thread.feeds.push_back(entry);
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = feeds_.find(loop.get()); found != feeds_.end()) return found->second;
    }
    return make<NotificationFeed>(folder_, loop);
}

void DistributedNotificationCenter::State::add(NotificationFeed::Registration registration) {
    const auto loop = RunLoop::current();
    const auto feed = feedOf(loop);
    feed->place(*registration);
    // Another thread may have taken the feed's last observer, and the feed, away meanwhile.
    const std::lock_guard lock(mutex_);
    feeds_[loop.get()] = feed;
    feed->add(std::move(registration));
}

void DistributedNotificationCenter::State::remove(const Object& observer,
                                                  const std::optional<std::string_view>& name,
                                                  const Value& object) {
    // Destroyed after the lock is given back: handlers may own things, feeds leave their run loop.
    std::vector<NotificationFeed::Registration> removed;
    std::vector<Ref<NotificationFeed>> left;
    const std::lock_guard lock(mutex_);
    for (auto at = feeds_.begin(); at != feeds_.end();) {
        for (auto& registration : at->second->remove(&observer, name, object))
            removed.push_back(std::move(registration));
        const auto feed = at++;
        if (!feed->second->isEmpty()) continue;
        left.push_back(std::move(feed->second));
        feeds_.erase(feed);
    }
}

void DistributedNotificationCenter::State::forget(const RunLoop* loop) {
    Ref<NotificationFeed> left;
    const std::lock_guard lock(mutex_);
    const auto found = feeds_.find(loop);
    if (found == feeds_.end()) return;
    left = std::move(found->second);
    feeds_.erase(found);
}

void DistributedNotificationCenter::State::forgetAll() {
    decltype(feeds_) left;
    const std::lock_guard lock(mutex_);
    left.swap(feeds_);
}

DistributedNotificationCenter& DistributedNotificationCenter::defaultCenter() {
    static constinit OnDemand<DistributedNotificationCenter> center;
    return center.get(
        [] { return std::make_unique<DistributedNotificationCenter>(runtimeDirectory()); });
}

DistributedNotificationCenter::DistributedNotificationCenter(
    std::string folder, const NotificationLogWriter::Options& options)
    : folder_(std::move(folder)),
      options_(options),
      state_(make<State>(folder_, options_, nullptr).leak()) {}

DistributedNotificationCenter::~DistributedNotificationCenter() {
    auto* const state = state_.load();
    if (!state->isOurs()) return;
    state->forgetAll();
    state->release();
}

DistributedNotificationCenter::State& DistributedNotificationCenter::state() {
    auto* found = state_.load(std::memory_order_acquire);
    if (found->isOurs()) return *found;
    auto made = make<State>(folder_, options_, found);
    if (state_.compare_exchange_strong(found, made.get(), std::memory_order_acq_rel))
        return *made.leak();
    return *found;
}

void DistributedNotificationCenter::addObserver(const Object& observer, Handler handler,
                                                std::optional<std::string_view> name,
                                                const Value& object, MissedHandler missed) {
    if (!handler) throw std::invalid_argument("okv: an observer of notices without a handler");
    auto registration = std::make_shared<NotificationRegistration>();
    registration->observer = &observer;
    if (name) registration->name = std::string(*name);
    registration->object = object;
    registration->handler = std::move(handler);
    registration->missed = std::move(missed);
    state().add(std::move(registration));
}

void DistributedNotificationCenter::removeObserver(const Object& observer,
                                                   std::optional<std::string_view> name,
                                                   const Value& object) {
    state().remove(observer, name, object);
}

void DistributedNotificationCenter::post(std::string_view name, const Value& object,
                                         const Value& userInfo) {
    if (!object.isNil() && !object.is<std::string>())
        throw std::invalid_argument("okv: the sender of a notice is a string or nil");
    state().writer().post({std::string(name), object, userInfo});
}

}  // namespace okv
