#include <OKVPlatform/system/Calendar.h>

#include <date/date.h>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace okv {

namespace {

constexpr std::int64_t kDay = 86400;
constexpr double kEarliest = -62135596800.0 - 2 * kDay;  // Two days before the year 1 ...
constexpr double kLatest = 253402300800.0 + 2 * kDay;    // ... and two after 9999: any zone's.
constexpr std::int32_t kWidestYear = 9999;

std::int64_t floorDivided(std::int64_t number, std::int64_t divisor) {
    return number / divisor - (number % divisor < 0 ? 1 : 0);
}

void appendPadded(std::string& text, int number, int width) {
    std::array<char, 16> digits{};
    std::snprintf(digits.data(), digits.size(), "%0*d", width, number);
    text += digits.data();
}

void appendOffset(std::string& text, std::int64_t offset) {
    text += offset < 0 ? '-' : '+';
    const int minutes = static_cast<int>(std::abs(offset) / 60);
    appendPadded(text, minutes / 60 * 100 + minutes % 60, 4);
}

// Days since 1970-01-01 of a day whose month and day need not be in range.
std::int64_t dayNumber(const DateComponents& components) {
    const std::int64_t month = std::int64_t{components.month} - 1;
    const std::int64_t year = components.year + floorDivided(month, 12);
    if (std::abs(year) > kWidestYear + 1) return INT64_MAX;
    const date::year_month_day first{date::year{static_cast<int>(year)},
                                     date::month{static_cast<unsigned>((month % 12 + 12) % 12) + 1},
                                     date::day{1}};
    return date::sys_days{first}.time_since_epoch().count() + std::int64_t{components.day} - 1;
}

bool isWithinTheYears(std::int64_t day) {
    constexpr date::sys_days first{date::year{-kWidestYear} / 1 / 1};
    constexpr date::sys_days last{date::year{kWidestYear} / 12 / 31};
    return day >= first.time_since_epoch().count() && day <= last.time_since_epoch().count();
}

}  // namespace

std::optional<CalendarDate> CalendarDate::of(Date instant, const TimeZone& zone,
                                             std::string_view format) {
    const double seconds = instant.secondsSince1970;
    if (!(seconds >= kEarliest && seconds <= kLatest)) return std::nullopt;  // NaN fails too.
    CalendarDate date(instant, zone, format);
    const auto whole = static_cast<std::int64_t>(std::floor(seconds));
    date.offset_ = zone.offsetAt(whole);
    if (!date.setFields(whole + date.offset_)) return std::nullopt;
    return date;
}

bool CalendarDate::setFields(std::int64_t localTime) {
    const std::int64_t days = floorDivided(localTime, kDay);
    const int time = static_cast<int>(localTime - days * kDay);
    const date::year_month_day day{date::sys_days{date::days{static_cast<int>(days)}}};
    year_ = int{day.year()};
    month_ = static_cast<int>(unsigned{day.month()});
    day_ = static_cast<int>(unsigned{day.day()});
    hour_ = time / 3600;
    minute_ = time / 60 % 60;
    second_ = time % 60;
    return year_ >= 1 && year_ <= kWidestYear;
}

std::string CalendarDate::description() const {
    std::string text;
    for (std::size_t i = 0; i < format_.size(); ++i) {
        if (format_[i] == '%' && i + 1 < format_.size()) {
            append(text, format_[++i]);
        } else {
            text += format_[i];
        }
    }
    return text;
}

void CalendarDate::append(std::string& text, char directive) const {
    switch (directive) {
        case 'Y':
            return appendPadded(text, year_, 4);
        case 'm':
            return appendPadded(text, month_, 2);
        case 'd':
            return appendPadded(text, day_, 2);
        case 'H':
            return appendPadded(text, hour_, 2);
        case 'M':
            return appendPadded(text, minute_, 2);
        case 'S':
            return appendPadded(text, second_, 2);
        case 'z':
            return appendOffset(text, offset_);
        case '%':
            text += '%';
            return;
        default:
            text += {'%', directive};
    }
}

std::optional<Date> Calendar::dateFromComponents(const DateComponents& components) const {
    const std::int64_t day = dayNumber(components);
    if (!isWithinTheYears(day)) return std::nullopt;
    return Date{static_cast<double>(zone_.instantOf(day * kDay))};
}

}  // namespace okv
