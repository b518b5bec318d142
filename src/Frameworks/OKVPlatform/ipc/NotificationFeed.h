#pragma once

#include <OKVPlatform/ipc/FolderWatch.h>
#include <OKVPlatform/ipc/NotificationLogReader.h>
#include <OKVPlatform/ipc/RunLoop.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace okv {

/// One observer's wish to hear of notices. Fixed once made, but for `removed`.
struct NotificationRegistration {
    const Object* observer;           // not retained
    std::optional<std::string> name;  // none: any
    Value object;                     // nil: any sender
    std::function<void(const Notification&)> handler;
    std::function<void(std::uint64_t)> missed;
    NotificationLogPosition from;  // what was posted before is not for it
    std::uint64_t logThen = 0;     // the log that the feed read when the registration was made
    bool removed = false;          // guarded by the feed's mutex

    bool wants(const Notification& notification) const;
    /// Whether an entry up to this number was posted after the registration.
    bool begins(std::uint64_t log, std::uint64_t sequence) const noexcept;
    /// How many of the entry's missing notices were posted after the registration.
    std::uint64_t missedIn(const NotificationLogEntry& entry) const noexcept;
    bool isFor(const Object* observer, const std::optional<std::string_view>& name,
               const Value& object) const;
};

/// The observers of one run loop: watches the runtime folder, reads the log and calls them.
///
/// Threads: `add` and `remove` may be called from any; everything else is the run loop's.
class NotificationFeed final : public Object {
public:
    using Registration = std::shared_ptr<NotificationRegistration>;

    NotificationFeed(const std::string& folder, Ref<RunLoop> loop);

    /// Where a registration made now begins.
    void place(NotificationRegistration& registration) const;
    void add(Registration registration);
    /// Takes away what fits and hands it over, to be destroyed under no lock.
    std::vector<Registration> remove(const Object* observer,
                                     const std::optional<std::string_view>& name,
                                     const Value& object);
    bool isEmpty();

protected:
    void dealloc() override;

private:
    void startWatching();
    void stopWatching();
    void folderChanged();
    void look();
    void lookNow();
    template <class Work>
    void orAgain(Work work);
    void schedule(RunLoop::Clock::duration delay);
    void deliverAll();
    bool deliverNext();
    bool takeNext();
    void deliver(NotificationRegistration& registration, const NotificationLogEntry& entry);
    Ref<const Object> hold(const NotificationRegistration& registration);

    const Ref<RunLoop> loop_;
    FolderWatch watch_;
    RunLoop::Id source_ = 0;
    RunLoop::Id timer_ = 0;
    NotificationLogReader reader_;
    // The delivery that is under way. It stands here, not on the stack: a handler that runs the
    // run loop carries it on, and every observer gets its notices in order.
    std::shared_ptr<const NotificationLogEntry> entry_;
    std::vector<Registration> recipients_;
    std::size_t nextRecipient_ = 0;

    std::mutex mutex_;  // guards the registrations; never held around a call
    std::vector<Registration> registrations_;
};

}  // namespace okv
