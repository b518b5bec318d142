#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/system/TimeZone.h>
#include <OKVPlatform/values/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace okv {

/// An instant as the calendar and the clocks of one zone show it, with a format for its text.
///
/// The calendar is the Gregorian one, also before its introduction. A value; any thread.
class OKV_EXPORT CalendarDate {
public:
    /// The format of dates that were given none: "2010-02-01 00:30:00 +0900".
    static constexpr std::string_view kDefaultFormat = "%Y-%m-%d %H:%M:%S %z";

    /// The calendar date of an instant, whose fraction of a second is dropped towards the past.
    /// None when the instant is not a finite number or not in the years 1 to 9999 of the zone.
    static std::optional<CalendarDate> of(Date instant, const TimeZone& zone,
                                          std::string_view format = kDefaultFormat);

    /// The instant as it was given, its fraction of a second included.
    Date instant() const noexcept { return instant_; }
    /// The zone that shows it.
    const TimeZone& timeZone() const noexcept { return zone_; }
    /// 1 to 9999.
    int year() const noexcept { return year_; }
    /// 1 to 12.
    int month() const noexcept { return month_; }
    /// 1 to 31.
    int day() const noexcept { return day_; }
    /// 0 to 23.
    int hour() const noexcept { return hour_; }
    /// 0 to 59.
    int minute() const noexcept { return minute_; }
    /// 0 to 59.
    int second() const noexcept { return second_; }
    /// Seconds east of Greenwich.
    std::int64_t offset() const noexcept { return offset_; }

    /// The text by the format: %Y has four digits, %m %d %H %M %S two, %z is "+0900", %% is "%";
    /// everything else stands as it is.
    std::string description() const;

private:
    CalendarDate(Date instant, const TimeZone& zone, std::string_view format)
        : instant_(instant), zone_(zone), format_(format) {}
    bool setFields(std::int64_t localTime);
    void append(std::string& text, char directive) const;

    Date instant_;
    TimeZone zone_;
    std::string format_;
    std::int64_t offset_ = 0;
    int year_ = 0;
    int month_ = 0;
    int day_ = 0;
    int hour_ = 0;
    int minute_ = 0;
    int second_ = 0;
};

/// A day by its numbers. What is not set takes the calendar's default, the first.
struct DateComponents {
    std::int32_t year = 1;
    std::int32_t month = 1;
    std::int32_t day = 1;
};

/// The Gregorian calendar in one zone. A value: changing one changes no other. Any thread.
class OKV_EXPORT Calendar {
public:
    /// The user's calendar: the Gregorian one in the local zone.
    static Calendar current() { return Calendar(TimeZone::local()); }

    /// In this zone.
    explicit Calendar(TimeZone zone) : zone_(std::move(zone)) {}
    /// The zone in which days begin and end.
    const TimeZone& timeZone() const noexcept { return zone_; }
    /// Days begin and end in this zone from now on.
    void setTimeZone(TimeZone zone) { zone_ = std::move(zone); }

    /// The first instant of a day: its midnight, or the moment of the jump where the zone's clocks
    /// jump over that midnight. Numbers out of their range roll over: month 13 is the next
    /// January, month 0 the December before, day 0 the last day of the month before. None when
    /// the day so found is not within the years -9999 to 9999.
    std::optional<Date> dateFromComponents(const DateComponents& components) const;

private:
    TimeZone zone_;
};

}  // namespace okv
