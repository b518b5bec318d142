#include <OKVPlatform/ipc/NotificationCenter.h>
#include <OKVPlatform/values/Lasting.h>

#include <algorithm>
#include <mutex>

namespace okv {

NotificationCenter& NotificationCenter::defaultCenter() {
    static constinit OnDemand<NotificationCenter> center;
    return center.get();
}

void NotificationCenter::add(const Object& observer, std::string_view name, const Object* object,
                             Handler handler) {
    const std::lock_guard lock(mutex_);
    registrations_.push_back({++lastId_, &observer, std::string(name), object, std::move(handler)});
}

void NotificationCenter::removeObserver(const Object& observer, std::string_view name,
                                        const Object* object) {
    const std::lock_guard lock(mutex_);
    std::erase_if(registrations_, [&](const Registration& held) {
        return held.observer == &observer && held.name == name &&
               (object == nullptr || held.object == object);
    });
}

std::vector<std::uint64_t> NotificationCenter::matching(const LocalNotification& notice) {
    const std::lock_guard lock(mutex_);
    std::vector<std::uint64_t> ids;
    for (const auto& held : registrations_) {
        if (held.name == notice.name && (held.object == nullptr || held.object == notice.object))
            ids.push_back(held.id);
    }
    return ids;
}

void NotificationCenter::deliver(std::uint64_t id, const LocalNotification& notice) {
    Handler handler;
    Ref<const Object> observer;
    {
        const std::lock_guard lock(mutex_);
        const auto at = std::find_if(registrations_.begin(), registrations_.end(),
                                     [&](const Registration& held) { return held.id == id; });
        if (at == registrations_.end()) return;
        observer = Ref<const Object>::unlessDying(at->observer);
        if (!observer) return;
        handler = at->handler;
    }
    handler(notice);
}

void NotificationCenter::post(const LocalNotification& notice) {
    for (const auto id : matching(notice)) deliver(id, notice);
}

}  // namespace okv
