#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/Notification.h>
#include <OKVPlatform/ipc/NotificationLog.h>
#include <OKVPlatform/ipc/NotificationLogWriter.h>
#include <OKVPlatform/values/Object.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace okv {

/// Notices to every process of the machine, without any process in between: they are written to a
/// log in the runtime folder (see NotificationLog.h), which every observing process reads.
///
///     center.addObserver(*this, &Panel::settingChanged, "org.example.settings");
///
/// An observer hears what is posted after it registered, in the order of posting, on the thread
/// that registered it and only while that thread runs its run loop. An observer that does not run
/// for long enough may miss some: it is told how many.
///
/// Observers are not retained: `removeObserver` belongs in their `dealloc`. A delivery takes a
/// reference first and skips an observer that is being deallocated or that was removed meanwhile,
/// by an earlier callback too. Callbacks run in order of registration and under no lock. An
/// observer added twice is called twice. When a thread ends, its registrations do.
///
/// In a forked child nobody observes until it registers itself.
///
/// Threads: every operation may be called from any. A centre of one's own must outlive its use by
/// other threads.
class OKV_EXPORT DistributedNotificationCenter {
public:
    using Handler = std::function<void(const Notification&)>;
    /// Is told how many notices, of whatever name, were posted and can no longer be read.
    using MissedHandler = std::function<void(std::uint64_t count)>;

    /// The centre of the machine's runtime folder (`runtimeDirectory()` at the first call).
    static DistributedNotificationCenter& defaultCenter();

    /// A centre of another folder, which need not be there yet.
    explicit DistributedNotificationCenter(std::string folder,
                                           const NotificationLogWriter::Options& options = {});
    DistributedNotificationCenter(const DistributedNotificationCenter&) = delete;
    DistributedNotificationCenter& operator=(const DistributedNotificationCenter&) = delete;
    ~DistributedNotificationCenter();

    /// Calls `handler` for the notices of this name (none: of any) from this sender (nil: from
    /// any). Throws std::invalid_argument for a handler that is empty, std::system_error when the
    /// thread has no run loop and none can be made. Without a folder to watch, or anything left to
    /// watch it with, the run loop looks once a second.
    void addObserver(const Object& observer, Handler handler, std::optional<std::string_view> name,
                     const Value& object = {}, MissedHandler missed = {});
    /// The same with operations of the observer.
    template <class T>
    void addObserver(T& observer, void (T::*handler)(const Notification&),
                     std::optional<std::string_view> name, const Value& object = {},
                     void (T::*missed)(std::uint64_t count) = nullptr) {
        MissedHandler told;
        if (missed != nullptr)
            told = [&observer, missed](std::uint64_t count) { (observer.*missed)(count); };
        addObserver(observer, Handler([&observer, handler](const Notification& notice) {
                        (observer.*handler)(notice);
                    }),
                    name, object, std::move(told));
    }

    /// Takes away every registration of the observer for this name and sender (none, nil: for
    /// any). It is not called any more; a call that is under way on another thread is not waited
    /// for.
    void removeObserver(const Object& observer, std::optional<std::string_view> name = {},
                        const Value& object = {});

    /// Posts a notice. The sender is a string or nil. When it returns, every observer will hear of
    /// it. Throws NotificationError when it cannot be posted: this account may not, it is too
    /// large, the runtime folder is missing; std::invalid_argument for another kind of sender.
    /// Never waits for an observer; for other posters at most the time set.
    void post(std::string_view name, const Value& object = {}, const Value& userInfo = {});

private:
    class State;

    State& state();

    const std::string folder_;
    const NotificationLogWriter::Options options_;
    std::atomic<State*> state_;
};

}  // namespace okv
