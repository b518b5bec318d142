#include <OKVPlatform/values/NumberText.h>
#include <OKVPlatform/values/Value.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

namespace okv {

namespace {

// A value compared with itself is equal, a NaN too: "it came back as it was" must be expressible.
bool sameReal(double a, double b) noexcept {
    return a == b || (std::isnan(a) && std::isnan(b));
}

std::string_view withoutBlanks(std::string_view text) noexcept {
    const auto start = text.find_first_not_of(" \t\n\v\f\r");
    return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

std::int64_t clampedDigits(std::string_view text, bool negative) noexcept {
    std::int64_t number = 0;
    for (const char c : text) {
        if (!isDigit(c)) break;
        const std::int64_t digit = negative ? '0' - c : c - '0';
        if (__builtin_mul_overflow(number, std::int64_t{10}, &number) ||
            __builtin_add_overflow(number, digit, &number))
            return negative ? INT64_MIN : INT64_MAX;
    }
    return number;
}

std::int64_t integerOf(std::string_view text) noexcept {
    text = withoutBlanks(text);
    const bool negative = takeSign(text);
    return clampedDigits(text, negative);
}

std::int64_t integerOf(double number) noexcept {
    constexpr double limit = 9223372036854775808.0;
    if (std::isnan(number)) return 0;
    if (number >= limit) return INT64_MAX;
    if (number < -limit) return INT64_MIN;
    return static_cast<std::int64_t>(number);
}

std::int32_t clampedToInt(std::int64_t number) noexcept {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(number, INT32_MIN, INT32_MAX));
}

}  // namespace

Date Date::now() {
    using std::chrono::duration;
    return {duration<double>(std::chrono::system_clock::now().time_since_epoch()).count()};
}

bool operator==(Date a, Date b) noexcept {
    return sameReal(a.secondsSince1970, b.secondsSince1970);
}

Value::Value(const Value&) = default;
Value::Value(Value&&) noexcept = default;
Value& Value::operator=(const Value&) = default;
Value& Value::operator=(Value&&) noexcept = default;
Value::~Value() = default;

void Value::throwTooLarge() {
    throw std::out_of_range("okv::Value: an integer above 2^63-1");
}

bool Value::isNumber() const noexcept {
    return type() == Type::boolean || type() == Type::integer || type() == Type::real;
}

std::int64_t Value::longLongValue() const noexcept {
    if (const auto* number = getIf<std::int64_t>()) return *number;
    if (const auto* flag = getIf<bool>()) return *flag ? 1 : 0;
    if (const auto* real = getIf<double>()) return integerOf(*real);
    if (const auto* text = getIf<std::string>()) return integerOf(*text);
    return 0;
}

std::int32_t Value::intValue() const noexcept {
    return clampedToInt(longLongValue());
}

bool Value::boolValue() const noexcept {
    if (const auto* flag = getIf<bool>()) return *flag;
    if (const auto* number = getIf<std::int64_t>()) return *number != 0;
    if (const auto* real = getIf<double>()) return *real != 0;
    if (const auto* text = getIf<std::string>()) return boolValueOf(*text);
    return false;
}

bool operator==(const Value& a, const Value& b) {
    if (a.type() != b.type()) return false;
    if (const auto* real = a.getIf<double>()) return sameReal(*real, b.as<double>());
    return a.storage_ == b.storage_;
}

std::int32_t intValueOf(std::string_view text) noexcept {
    return clampedToInt(integerOf(text));
}

bool boolValueOf(std::string_view text) noexcept {
    text = withoutBlanks(text);
    takeSign(text);
    const auto start = text.find_first_not_of('0');
    if (start == std::string_view::npos) return false;
    const char first = text[start];
    return first == 'Y' || first == 'y' || first == 'T' || first == 't' ||
           (first >= '1' && first <= '9');
}

}  // namespace okv
