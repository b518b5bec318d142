#include "DateText.h"

#include <OKVPlatform/values/PropertyListScalars.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace okvctl {

namespace {

constexpr std::size_t kSecondsLength = 19;   // of "2026-01-31T23:59:59"
constexpr std::size_t kDecimalsAtMost = 30;  // with their point

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The decimals of the shortest text that is this number, with their point; "" for whole seconds,
// none where there are too many.
std::optional<std::string> decimalsOf(double seconds) {
    std::array<char, 64> text{};
    const auto result =
        std::to_chars(text.data(), text.data() + text.size(), seconds, std::chars_format::fixed);
    if (result.ec != std::errc()) return std::nullopt;
    const std::string_view fixed(text.data(), static_cast<std::size_t>(result.ptr - text.data()));
    const auto decimals = fixed.substr(std::min(fixed.find('.'), fixed.size()));
    return decimals.size() <= kDecimalsAtMost ? std::optional<std::string>(decimals) : std::nullopt;
}

// Cuts ".25" off the front: the point with at least one digit. None where it is malformed.
std::optional<std::string_view> takeDecimals(std::string_view& text) {
    if (!text.starts_with('.')) return std::string_view();
    const auto end = std::find_if_not(text.begin() + 1, text.end(), isDigit);
    const auto length = static_cast<std::size_t>(end - text.begin());
    if (length < 2 || length > kDecimalsAtMost) return std::nullopt;
    const auto decimals = text.substr(0, length);
    text.remove_prefix(length);
    return decimals;
}

int twoDigits(std::string_view text) {
    return (text[0] - '0') * 10 + (text[1] - '0');
}

// The seconds that a text such as "+09:00" lies ahead of UTC.
std::optional<int> distanceFromUtc(std::string_view text) {
    if (text == "Z") return 0;
    const bool shaped = text.size() == 6 && (text[0] == '+' || text[0] == '-') &&
                        isDigit(text[1]) && isDigit(text[2]) && text[3] == ':' &&
                        isDigit(text[4]) && isDigit(text[5]);
    if (!shaped) return std::nullopt;
    const int hours = twoDigits(text.substr(1));
    const int minutes = twoDigits(text.substr(4));
    if (hours > 23 || minutes > 59) return std::nullopt;
    return (text[0] == '-' ? -1 : 1) * (hours * 60 + minutes) * 60;
}

// Read as one number, so that the nearest one is found; before 1970 the decimals count upwards.
double withDecimals(double whole, std::string_view decimals) {
    if (decimals.empty()) return whole;
    if (whole < 0) return whole + okv::parseReal("0" + std::string(decimals)).value_or(0);
    const auto text = std::to_string(static_cast<std::int64_t>(whole)) + std::string(decimals);
    return okv::parseReal(text).value_or(whole);
}

}  // namespace

std::optional<std::string> isoText(okv::Date date) {
    const auto seconds = date.secondsSince1970;
    auto text = okv::formatIsoDate(date);
    const auto decimals = decimalsOf(seconds);
    if (!text || !decimals || (seconds < 0 && !decimals->empty())) return std::nullopt;
    text->insert(kSecondsLength, *decimals);
    return text;
}

std::string dateText(okv::Date date) {
    if (auto text = isoText(date)) return *text;
    return "@" + okv::formatReal(date.secondsSince1970);
}

std::optional<okv::Date> parseDate(std::string_view text) {
    if (text.starts_with('@')) {
        const auto seconds = okv::parseReal(text.substr(1));
        return seconds ? std::optional(okv::Date{*seconds}) : std::nullopt;
    }
    if (text.size() <= kSecondsLength) return std::nullopt;
    const auto whole = okv::parseIsoDate(std::string(text.substr(0, kSecondsLength)) + "Z");
    auto rest = text.substr(kSecondsLength);
    const auto decimals = takeDecimals(rest);
    const auto distance = distanceFromUtc(rest);
    if (!whole || !decimals || !distance) return std::nullopt;
    return okv::Date{withDecimals(whole->secondsSince1970 - *distance, *decimals)};
}

}  // namespace okvctl
