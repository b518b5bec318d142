#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace okv {

inline constexpr const char* kUtf8Mark = "\xEF\xBB\xBF";
inline constexpr const char* kUtf16BigMark = "\xFE\xFF";
inline constexpr const char* kUtf16LittleMark = "\xFF\xFE";

enum class ByteOrder { big, little };

/// Appends a code point (not a surrogate, at most U+10FFFF) as UTF-8.
void appendUtf8(std::string& text, char32_t codePoint);

constexpr bool isHighSurrogate(char32_t unit) noexcept {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
constexpr bool isLowSurrogate(char32_t unit) noexcept {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}
constexpr char32_t joinedSurrogates(char32_t high, char32_t low) noexcept {
    return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

/// Where `text` stops being UTF-8 (shortest forms, no surrogates, at most U+10FFFF): the offset of
/// the first bad byte, none when all of it is good.
std::optional<std::size_t> findInvalidUtf8(std::string_view text);

/// The code point that begins at `at` of a text known to be UTF-8; `at` moves past it.
char32_t nextCodePoint(std::string_view text, std::size_t& at);

/// UTF-16 bytes as UTF-8, or none when a surrogate stands alone or a byte is left over; `badAt` is
/// then the offset of the offender.
std::optional<std::string> utf8FromUtf16(std::string_view bytes, ByteOrder order,
                                         std::size_t& badAt);

}  // namespace okv
