#include <OKVPlatform/system/LaterRule.h>
#include <OKVPlatform/system/LocalTime.h>
#include <OKVPlatform/system/TimeZone.h>

#include <date/tz.h>
#include <algorithm>
#include <array>
#include <ctime>
#include <exception>
#include <fstream>
#include <utility>

namespace okv {

namespace {

constexpr std::int64_t kHour = 3600;
// No offset in the database is wider, summer time and local mean time included.
constexpr std::int64_t kWidestOffset = 26 * kHour;
// A listed change lies before it.
constexpr date::sys_days kNoChange{date::year{10000} / 1 / 1};

using Abbreviation = std::pair<std::string_view, std::string_view>;

// Sorted. Where several zones share an abbreviation, the one that most people mean.
constexpr auto kAbbreviations = std::to_array<Abbreviation>({
    {"ADT", "America/Halifax"},
    {"AEDT", "Australia/Sydney"},
    {"AEST", "Australia/Sydney"},
    {"AKDT", "America/Juneau"},
    {"AKST", "America/Juneau"},
    {"ART", "America/Argentina/Buenos_Aires"},
    {"AST", "America/Halifax"},
    {"AWST", "Australia/Perth"},
    {"BDT", "Asia/Dhaka"},
    {"BRST", "America/Sao_Paulo"},
    {"BRT", "America/Sao_Paulo"},
    {"BST", "Europe/London"},
    {"CAT", "Africa/Harare"},
    {"CDT", "America/Chicago"},
    {"CEST", "Europe/Paris"},
    {"CET", "Europe/Paris"},
    {"CLST", "America/Santiago"},
    {"CLT", "America/Santiago"},
    {"COT", "America/Bogota"},
    {"CST", "America/Chicago"},
    {"EAT", "Africa/Addis_Ababa"},
    {"EDT", "America/New_York"},
    {"EEST", "Europe/Athens"},
    {"EET", "Europe/Athens"},
    {"EST", "America/New_York"},
    {"GMT", "Etc/GMT"},
    {"GST", "Asia/Dubai"},
    {"HKT", "Asia/Hong_Kong"},
    {"HST", "Pacific/Honolulu"},
    {"ICT", "Asia/Bangkok"},
    {"IRST", "Asia/Tehran"},
    {"IST", "Asia/Kolkata"},
    {"JST", "Asia/Tokyo"},
    {"KST", "Asia/Seoul"},
    {"MDT", "America/Denver"},
    {"MSK", "Europe/Moscow"},
    {"MST", "America/Denver"},
    {"NDT", "America/St_Johns"},
    {"NST", "America/St_Johns"},
    {"NZDT", "Pacific/Auckland"},
    {"NZST", "Pacific/Auckland"},
    {"PDT", "America/Los_Angeles"},
    {"PET", "America/Lima"},
    {"PHT", "Asia/Manila"},
    {"PKT", "Asia/Karachi"},
    {"PST", "America/Los_Angeles"},
    {"SGT", "Asia/Singapore"},
    {"TRT", "Europe/Istanbul"},
    {"UTC", "Etc/UTC"},
    {"WAT", "Africa/Lagos"},
    {"WEST", "Europe/Lisbon"},
    {"WET", "Europe/Lisbon"},
    {"WIB", "Asia/Jakarta"},
});
static_assert(std::is_sorted(kAbbreviations.begin(), kAbbreviations.end()));

const date::time_zone* zoneOfDatabase(const std::string& name) noexcept {
    try {
        const ZoneLock lock;
        return date::locate_zone(name);
    } catch (const std::exception&) {
        return nullptr;  // No such zone, or no database at all.
    }
}

date::sys_seconds sysSeconds(std::int64_t instant) {
    return date::sys_seconds{std::chrono::seconds{instant}};
}

// Reads the zone's file when it is asked for the first time.
date::sys_info listedAt(const date::time_zone& zone, std::int64_t instant) {
    const ZoneLock lock;
    return zone.get_info(sysSeconds(instant));
}

// The C library knows every form of TZ, and rules beyond the listed changes.
std::int64_t localOffset(std::int64_t instant) {
    tm fields{};
    return localTime(instant, fields) ? fields.tm_gmtoff : 0;
}

// The rule for all time after the listed changes stands, in TZ's form, in the last line of the
// zone's file: "fat" files list the changes up to 2037, "slim" ones only those that no rule gives.
std::string readLaterRule(const std::string& name) {
    std::ifstream file("/usr/share/zoneinfo/" + name, std::ios::binary);
    std::string line;
    std::string last;
    while (std::getline(file, line)) last = std::move(line);
    return last;
}

// Read once, for as long as the thread asks for one zone only.
const std::string& laterRuleOf(const date::time_zone* zone, const std::string& name) {
    thread_local std::pair<const date::time_zone*, std::string> last;
    if (last.first != zone) last = {zone, readLaterRule(name)};
    return last.second;
}

bool hasSummerTime(const std::string& rule) {
    return rule.find(',') != std::string::npos;
}

}  // namespace

TimeZone TimeZone::local() {
    readLocalZone();
    return TimeZone();
}

std::optional<TimeZone> TimeZone::named(std::string_view name) {
    TimeZone found;
    found.name_ = name;
    found.zone_ = zoneOfDatabase(found.name_);
    if (found.zone_ == nullptr) return std::nullopt;
    return found;
}

std::optional<TimeZone> TimeZone::withAbbreviation(std::string_view abbreviation) {
    const auto* const row = std::lower_bound(
        kAbbreviations.begin(), kAbbreviations.end(), abbreviation,
        [](const Abbreviation& entry, std::string_view wanted) { return entry.first < wanted; });
    if (row == kAbbreviations.end() || row->first != abbreviation) return std::nullopt;
    return named(row->second);
}

std::int64_t TimeZone::offsetAt(std::int64_t instant) const {
    if (zone_ == nullptr) return localOffset(instant);
    const auto listed = listedAt(*zone_, instant);
    if (listed.end < kNoChange) return listed.offset.count();
    const auto& rule = laterRuleOf(zone_, name_);
    // Without a readable rule, as at the last listed change.
    const auto later = hasSummerTime(rule) ? offsetByRule(rule, instant) : std::nullopt;
    return later.value_or(listed.offset.count());
}

std::int64_t TimeZone::instantOf(std::int64_t localTime) const {
    std::int64_t before = localTime - kWidestOffset;
    std::int64_t after = localTime + kWidestOffset;
    const std::int64_t oldOffset = offsetAt(before);
    const std::int64_t newOffset = offsetAt(after);
    if (oldOffset == newOffset) return localTime - oldOffset;
    while (after - before > 1) {
        const std::int64_t middle = before + (after - before) / 2;
        (offsetAt(middle) == oldOffset ? before : after) = middle;
    }
    // `after` is now the instant of the change.
    if (localTime - oldOffset < after) return localTime - oldOffset;
    return std::max(localTime - newOffset, after);
}

}  // namespace okv
