#include <OKVPlatform/ipc/NotificationFeed.h>

#include <sys/epoll.h>

#include <algorithm>

namespace okv {

namespace {

// How often a run loop looks that cannot watch.
constexpr std::chrono::seconds kLookEvery{1};
// After so many calls the run loop's other sources have their turn.
constexpr int kCallsPerTurn = 1000;

}  // namespace

bool NotificationRegistration::wants(const Notification& notification) const {
    return (!name || *name == notification.name) &&
           (object.isNil() || object == notification.object);
}

// The log that was at the path then may be a later one than the feed read.
bool NotificationRegistration::begins(std::uint64_t log, std::uint64_t sequence) const noexcept {
    return log == from.log ? sequence >= from.next : log != logThen;
}

std::uint64_t NotificationRegistration::missedIn(const NotificationLogEntry& entry) const noexcept {
    if (!begins(entry.log, entry.sequence)) return 0;
    const auto first =
        entry.log == from.log ? std::max(entry.missedFrom, from.next) : entry.missedFrom;
    return entry.sequence - first;
}

bool NotificationRegistration::isFor(const Object* whom, const std::optional<std::string_view>& of,
                                     const Value& by) const {
    return observer == whom && (!of || name == *of) && (by.isNil() || object == by);
}

// Watches first and reads then, so that nothing can be posted unseen in between.
NotificationFeed::NotificationFeed(const std::string& folder, Ref<RunLoop> loop)
    : loop_(std::move(loop)), watch_(folder, kNotificationLogFile), reader_(folder) {
    startWatching();
    reader_.skipToEnd();
    if (!watch_.isOpen() || !reader_.isAtPath()) schedule(kLookEvery);
}

void NotificationFeed::dealloc() {
    stopWatching();
    if (timer_ != 0) loop_->cancel(timer_);
}

void NotificationFeed::startWatching() {
    if (!watch_.open()) return;
    source_ = loop_->watch(
        watch_.descriptor(), EPOLLIN, [this](std::uint32_t) { folderChanged(); }, this);
    if (source_ == 0) watch_.close();  // then it is looked at now and then
}

void NotificationFeed::stopWatching() {
    if (source_ != 0) loop_->unwatch(std::exchange(source_, 0));
    watch_.close();
}

void NotificationFeed::schedule(RunLoop::Clock::duration delay) {
    if (timer_ != 0) loop_->cancel(timer_);
    timer_ = loop_->performAfter(
        delay,
        [this] {
            timer_ = 0;
            look();
        },
        this);
}

// What could not be done, for an observer's exception or for lack of memory, is not told of again:
// the rest is looked at anew. The exception is the run loop's caller's.
template <class Work>
void NotificationFeed::orAgain(Work work) {
    try {
        work();
    } catch (...) {
        schedule({});
        throw;
    }
}

void NotificationFeed::folderChanged() {
    orAgain([this] {
        const auto seen = watch_.read();
        if (seen.lost) stopWatching();
        if (seen.lost || seen.path || !reader_.isAtPath()) return lookNow();
        reader_.refresh(false);
        deliverAll();
    });
}

void NotificationFeed::look() {
    orAgain([this] { lookNow(); });
}

// Looks whether everything is still in its place, and looks again later when it is not.
void NotificationFeed::lookNow() {
    if (!watch_.isAtPath()) {
        stopWatching();
        startWatching();
    }
    reader_.refresh(true);
    if (!watch_.isOpen() || !reader_.isAtPath()) schedule(kLookEvery);
    deliverAll();
}

void NotificationFeed::place(NotificationRegistration& registration) const {
    registration.logThen = reader_.position().log;
    registration.from = reader_.end();
}

void NotificationFeed::add(Registration registration) {
    const std::lock_guard lock(mutex_);
    registrations_.push_back(std::move(registration));
}

std::vector<NotificationFeed::Registration> NotificationFeed::remove(
    const Object* observer, const std::optional<std::string_view>& name, const Value& object) {
    std::vector<Registration> removed;
    const std::lock_guard lock(mutex_);
    std::vector<Registration> left;
    for (auto& registration : registrations_) {
        registration->removed = registration->isFor(observer, name, object);
        (registration->removed ? removed : left).push_back(std::move(registration));
    }
    registrations_ = std::move(left);
    return removed;
}

bool NotificationFeed::isEmpty() {
    const std::lock_guard lock(mutex_);
    return registrations_.empty();
}

void NotificationFeed::deliverAll() {
    for (int calls = 0; deliverNext(); ++calls)
        if (calls == kCallsPerTurn) return schedule({});
}

bool NotificationFeed::deliverNext() {
    if (nextRecipient_ == recipients_.size()) return takeNext();
    const auto recipient = recipients_[nextRecipient_++];
    const auto entry = entry_;
    deliver(*recipient, *entry);
    return true;
}

bool NotificationFeed::takeNext() {
    auto entry = reader_.next();
    if (!entry) return false;
    // What the former ones' handlers hold may end with them and come here: not under the lock.
    std::vector<Registration> recipients;
    try {
        auto held = std::make_shared<const NotificationLogEntry>(std::move(*entry));
        const std::lock_guard lock(mutex_);
        recipients = registrations_;
        entry_ = std::move(held);
    } catch (const std::bad_alloc&) {
        reader_.stepBack();  // it is read again when there is memory
        throw;
    }
    recipients_.swap(recipients);
    nextRecipient_ = 0;
    return true;
}

// The observer is held anew for each call: it may remove itself, or go, in the first.
void NotificationFeed::deliver(NotificationRegistration& registration,
                               const NotificationLogEntry& entry) {
    const auto missed = registration.missed ? registration.missedIn(entry) : 0;
    if (missed != 0) {
        if (const auto observer = hold(registration)) registration.missed(missed);
    }
    if (!entry.notification || !registration.begins(entry.log, entry.sequence)) return;
    if (!registration.wants(*entry.notification)) return;
    if (const auto observer = hold(registration)) registration.handler(*entry.notification);
}

// Under the lock that removal takes: an observer that is removed by its dealloc is still there.
Ref<const Object> NotificationFeed::hold(const NotificationRegistration& registration) {
    const std::lock_guard lock(mutex_);
    return Ref<const Object>::unlessDying(registration.removed ? nullptr : registration.observer);
}

}  // namespace okv
