#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/ForkGuard.h>
#include <OKVPlatform/values/Object.h>
#include <OKVPlatform/values/Value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace okv {

/// Posted once when a connection has ended, with the connection as its object.
inline constexpr char NSConnectionDidDieNotification[] = "NSConnectionDidDieNotification";

/// A notice inside this process.
struct LocalNotification {
    std::string name;
    Object* object = nullptr;  ///< who it is about; valid during the delivery
};

/// The process-local notification centre.
///
/// Observers are not retained: `removeObserver` belongs in their `dealloc`. A delivery takes a
/// reference first and skips an observer that is being deallocated or that was removed meanwhile,
/// by an earlier callback too. Callbacks run on the posting thread, in order of registration, under
/// no lock. An observer added twice is called twice.
class OKV_EXPORT NotificationCenter {
public:
    /// The process's one centre; never destroyed.
    static NotificationCenter& defaultCenter();

    /// Calls `handler` of the observer for notices of this name about `object` (null: about any).
    template <class T>
    void addObserver(T& observer, void (T::*handler)(const LocalNotification&),
                     std::string_view name, const Object* object = nullptr) {
        add(observer, name, object,
            [&observer, handler](const LocalNotification& notice) { (observer.*handler)(notice); });
    }
    /// Takes away every registration of the observer for this name and object (null: any).
    void removeObserver(const Object& observer, std::string_view name,
                        const Object* object = nullptr);
    /// Calls everybody who observes it, here and now, one after the other. What a callback throws
    /// reaches the poster, and the rest are not called. Any thread.
    void post(const LocalNotification& notice);

private:
    friend struct NotificationCenterInspector;  // the tests' view of the registrations
    using Handler = std::function<void(const LocalNotification&)>;
    struct Registration {
        std::uint64_t id;
        const Object* observer;
        std::string name;
        const Object* object;
        Handler handler;
    };

    void add(const Object& observer, std::string_view name, const Object* object, Handler handler);
    std::vector<std::uint64_t> matching(const LocalNotification& notice);
    void deliver(std::uint64_t id, const LocalNotification& notice);

    ForkMutex mutex_;
    std::uint64_t lastId_ = 0;
    std::vector<Registration> registrations_;
};

}  // namespace okv
