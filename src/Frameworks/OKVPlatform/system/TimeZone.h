#pragma once

#include <OKVPlatform/Export.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace date {
class time_zone;
}

namespace okv {

/// A time zone of the system's database with its history, or the process's local zone.
///
/// A small value, freely copied. Threads: every operation may be called from any thread; a process
/// that changes its TZ variable does so while no other thread reads the local zone, as always.
class OKV_EXPORT TimeZone {
public:
    /// The local zone: what the environment's TZ says in any of its forms, else /etc/localtime,
    /// read anew by every call; Universal Time where neither is readable.
    static TimeZone local();

    /// The zone that an abbreviation stands for ("JST" is Asia/Tokyo with all its history; letter
    /// case matters), or none when the table does not know it or the system has no such zone.
    static std::optional<TimeZone> withAbbreviation(std::string_view abbreviation);

    /// The zone of the system's database with this name ("America/Sao_Paulo"), or none.
    static std::optional<TimeZone> named(std::string_view name);

    /// The database's name; "" for the local zone, which need not have one.
    const std::string& name() const noexcept { return name_; }

    /// Seconds east of Greenwich in force at an instant, given in seconds since 1970 UTC. After
    /// 2037 by the zone's rule; a zone whose rule names hours outside of the day (Greenland's,
    /// Gaza's) is then off by an hour for up to a season, unless it is the local one.
    std::int64_t offsetAt(std::int64_t instant) const;

    /// The first instant at which the zone's clocks show `localTime` (seconds since 1970-01-01
    /// 00:00:00 on those clocks) or, where they jump over it, the instant of the jump.
    std::int64_t instantOf(std::int64_t localTime) const;

private:
    TimeZone() noexcept = default;

    std::string name_;
    const date::time_zone* zone_ = nullptr;  // Null: the local zone. Zones are never destroyed.
};

}  // namespace okv
