#pragma once

#include "Files.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/RunLoop.h>

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace notification_test {

/// A private runtime folder that every account may read.
class Folder {
public:
    Folder() { make(); }

    void make() const {
        std::filesystem::create_directory(path());
        chmod(path().c_str(), 0755);
    }
    void remove() const { std::filesystem::remove_all(path()); }
    std::string path() const { return outer_ / "run"; }
    std::string log() const { return path() + "/notifications"; }
    std::string lock() const { return path() + "/notifications.lock"; }

private:
    support::TempFolder outer_;
};

/// Remembers what it hears: names, and the numbers that the user information gives.
class Listener : public okv::Object {
public:
    explicit Listener(okv::DistributedNotificationCenter& center) : center_(center) {}

    void observe(std::optional<std::string_view> name, const okv::Value& object = {}) {
        center_.addObserver(*this, &Listener::heard, name, object, &Listener::missed);
    }
    void heard(const okv::Notification& notice) {
        names.push_back(notice.name);
        numbers.push_back(notice.userInfo.longLongValue());
        if (onNotice) onNotice(notice);
    }
    void missed(std::uint64_t count) { missing += count; }

    std::vector<std::string> names;
    std::vector<std::int64_t> numbers;
    std::uint64_t missing = 0;
    std::function<void(const okv::Notification&)> onNotice;

protected:
    void dealloc() override { center_.removeObserver(*this); }

private:
    okv::DistributedNotificationCenter& center_;
};

inline std::vector<std::int64_t> numbersTo(std::int64_t last) {
    std::vector<std::int64_t> numbers;
    for (std::int64_t number = 1; number <= last; ++number) numbers.push_back(number);
    return numbers;
}

}  // namespace notification_test
