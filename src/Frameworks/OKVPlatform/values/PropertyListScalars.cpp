#include <OKVPlatform/values/NumberText.h>
#include <OKVPlatform/values/PropertyListScalars.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace okv {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool takeHexMark(std::string_view& text) {
    const bool marked = text.starts_with("0x") || text.starts_with("0X");
    if (marked) text.remove_prefix(2);
    return marked;
}

// The whole text as a T, in one go.
template <class T, class How>
std::optional<T> wholeNumber(std::string_view text, How how) {
    T number{};
    const auto* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, how);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}

std::optional<std::int64_t> withSign(std::uint64_t magnitude, bool negative) {
    constexpr auto limit = std::uint64_t{1} << 63;
    if (magnitude > limit || (magnitude == limit && !negative)) return std::nullopt;
    return static_cast<std::int64_t>(negative ? ~magnitude + 1 : magnitude);
}

// "2026-01-31T23:59:59Z" with a 9 for every digit.
bool isIsoShape(std::string_view text) {
    constexpr std::string_view shape = "9999-99-99T99:99:99Z";
    if (text.size() != shape.size()) return false;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (shape[i] == '9' ? !digit : text[i] != shape[i]) return false;
    }
    return true;
}

int numberAt(std::string_view text, std::size_t at, std::size_t digits) {
    return wholeNumber<int>(text.substr(at, digits), 10).value_or(-1);
}

std::chrono::year_month_day dayOf(std::string_view text) {
    using namespace std::chrono;
    return {year(numberAt(text, 0, 4)), month(static_cast<unsigned>(numberAt(text, 5, 2))),
            day(static_cast<unsigned>(numberAt(text, 8, 2)))};
}

int base64Value(char c) {
    const auto place = kBase64.find(c);
    return place == std::string_view::npos ? -1 : static_cast<int>(place);
}

// Four characters make three bytes; `padding` of them are "=".
void appendGroup(Data& data, std::uint32_t group, std::size_t padding) {
    for (std::size_t i = 0; i < 3 - padding; ++i)
        data.push_back(static_cast<std::uint8_t>(group >> (16 - 8 * i)));
}

std::uint32_t groupAt(const Data& data, std::size_t at) {
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i)
        group = (group << 8) | (at + i < data.size() ? data[at + i] : 0U);
    return group;
}

}  // namespace

bool isBlank(char c) noexcept {
    return kBlanks.find(c) != std::string_view::npos;
}

std::string_view withoutSurroundingBlanks(std::string_view text) noexcept {
    const auto start = text.find_first_not_of(kBlanks);
    if (start == std::string_view::npos) return {};
    return text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

int hexDigitValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
    const bool negative = takeSign(text);
    const int base = takeHexMark(text) ? 16 : 10;
    const auto magnitude = wholeNumber<std::uint64_t>(text, base);
    return magnitude ? withSign(*magnitude, negative) : std::nullopt;
}

std::optional<double> parseReal(std::string_view text) {
    const bool negative = takeSign(text);
    // A second sign would be taken by from_chars, and so would "nan(...)".
    if (text.starts_with('-') || text.ends_with(')')) return std::nullopt;
    const auto number = wholeNumber<double>(text, std::chars_format::general);
    return number && negative ? -*number : number;
}

std::optional<Date> parseIsoDate(std::string_view text) {
    using namespace std::chrono;
    if (!isIsoShape(text)) return std::nullopt;
    const auto day = dayOf(text);
    const auto hour = numberAt(text, 11, 2);
    const auto minute = numberAt(text, 14, 2);
    const auto second = numberAt(text, 17, 2);
    // There is no year 0.
    if (!day.ok() || day.year() < year(1)) return std::nullopt;
    if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
    const auto time = sys_days(day) + hours(hour) + minutes(minute) + seconds(second);
    return Date{static_cast<double>(time.time_since_epoch().count())};
}

std::optional<Data> decodeBase64(std::string_view text) {
    Data data;
    std::uint32_t group = 0;
    std::size_t count = 0;
    std::size_t padding = 0;
    for (const char c : text) {
        if (isBlank(c)) continue;
        const int value = c == '=' && count % 4 >= 2 ? 0 : base64Value(c);
        const bool afterPadding = padding > 0 && c != '=';
        // A group with padding is the last one.
        if (value < 0 || afterPadding || (padding > 0 && count % 4 == 0)) return std::nullopt;
        padding += c == '=' ? 1 : 0;
        group = (group << 6) | static_cast<std::uint32_t>(value);
        if (++count % 4 == 0) appendGroup(data, group, padding);
    }
    if (count % 4 != 0) return std::nullopt;
    return data;
}

std::string formatReal(double number) {
    std::array<char, 32> text{};
    const auto result = std::to_chars(text.data(), text.data() + text.size(), number);
    return {text.data(), result.ptr};
}

std::optional<std::string> formatIsoDate(Date date) {
    using namespace std::chrono;
    constexpr double firstSecond = -62135596800.0;  // 0001-01-01T00:00:00Z
    constexpr double pastLast = 253402300800.0;     // 10000-01-01T00:00:00Z
    const auto whole = std::floor(date.secondsSince1970);
    if (!(whole >= firstSecond && whole < pastLast)) return std::nullopt;
    const sys_seconds time{seconds(static_cast<std::int64_t>(whole))};
    const auto days = floor<std::chrono::days>(time);
    const year_month_day day(days);
    const hh_mm_ss clock(time - days);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", int(day.year()),
                  unsigned(day.month()), unsigned(day.day()), int(clock.hours().count()),
                  int(clock.minutes().count()), int(clock.seconds().count()));
    return std::string(text.data());
}

std::string encodeBase64(const Data& data) {
    std::string text;
    text.reserve((data.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < data.size(); at += 3) {
        const auto group = groupAt(data, at);
        const auto left = data.size() - at;
        text += kBase64[group >> 18];
        text += kBase64[(group >> 12) & 63U];
        text += left > 1 ? kBase64[(group >> 6) & 63U] : '=';
        text += left > 2 ? kBase64[group & 63U] : '=';
    }
    return text;
}

}  // namespace okv
