#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

/// The process's local zone for the life of the object; none takes TZ away.
class LocalZone {
public:
    explicit LocalZone(const char* zone) {
        if (const char* const before = std::getenv("TZ")) saved_ = before;
        set(zone);
    }
    ~LocalZone() { set(saved_ ? saved_->c_str() : nullptr); }
    LocalZone(const LocalZone&) = delete;
    LocalZone& operator=(const LocalZone&) = delete;

private:
    static void set(const char* zone) {
        if (zone != nullptr) {
            setenv("TZ", zone, 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

    std::optional<std::string> saved_;
};
