#pragma once

#include <ctime>

namespace okv {

/// What `localtime_r` answers; false where there is no such local time. A fork waits for it: the
/// C library's own lock on the time zone would stay taken in the child for ever. Any thread.
bool localTime(std::time_t instant, std::tm& fields) noexcept;
/// As `tzset`: the local zone is the one that TZ names now.
void readLocalZone() noexcept;

}  // namespace okv
