#pragma once

#include <OKVPlatform/values/Value.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace okvctl {

/// The one mapping between values and JSON. Every value has a form, and reads back as itself:
///
///   null object         null
///   bool, string        as in JSON
///   integer             a number without point and exponent
///   real                a number with one of them; {"$real": "nan" | "inf" | "-inf"}
///   array               as in JSON
///   dictionary          an object, in the same order
///   date                {"$date": "2026-01-31T23:59:59.25Z"}, or seconds since 1970 as a number or
///                       as one of the texts of a real, where that form does not reach
///   data                {"$data": "base64"}
///   string, not UTF-8   {"$bytes": "base64"}
///   nil                 {"$nil": true}
///   dictionary with keys that are no UTF-8 strings, or whose only key begins with "$"
///                       {"$dictionary": [[key, value], ...]}
///
/// So an object whose only key begins with "$" is never a plain dictionary.

/// The longest text that is read unless told otherwise, in bytes: a value as JSON takes up to
/// twenty times its text.
inline constexpr std::size_t kJsonTextAtMost = 4U << 20;

enum class JsonStyle {
    utf8,   ///< every character as it is but for JSON's own escapes
    ascii,  ///< beyond them, all that is not ASCII is escaped, too
};

/// On one line. A value that is nested deeper than kMaxValueDepth throws std::length_error.
std::string jsonText(const okv::Value& value, JsonStyle style = JsonStyle::utf8);

/// A value, or what is wrong with its text: exactly one of the two is set.
struct ParsedValue {
    std::optional<okv::Value> value;
    std::string error;
    explicit operator bool() const noexcept { return value.has_value(); }
};

/// Refuses, beside what is no JSON: text that is too long, values nested deeper than
/// kMaxValueDepth, integers beyond 64 bits, reals beyond double, keys that stand twice, and objects
/// that look like one of the forms above but are none. Inside of objects the error tells the keys
/// that lead there.
ParsedValue parseJson(std::string_view text, std::size_t atMost = kJsonTextAtMost);

}  // namespace okvctl
