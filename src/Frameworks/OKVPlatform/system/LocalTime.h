#pragma once

#include <ctime>

namespace okv {

/// Held while a library works with time zones that it keeps. A fork waits for it: the library's own
/// lock would stay taken in the child for ever. Not to be taken twice. Any thread.
class ZoneLock {
public:
    ZoneLock() noexcept;
    ZoneLock(const ZoneLock&) = delete;
    ZoneLock& operator=(const ZoneLock&) = delete;
    ~ZoneLock();
};

/// What `localtime_r` answers; false where there is no such local time. Takes the lock. Any thread.
bool localTime(std::time_t instant, std::tm& fields) noexcept;
/// As `tzset`: the local zone is the one that TZ names now.
void readLocalZone() noexcept;

}  // namespace okv
