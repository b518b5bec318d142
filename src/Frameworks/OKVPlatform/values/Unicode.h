#pragma once

#include <OKVPlatform/Export.h>

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

/// The controls of ASCII, its delete, and those from U+0080 on.
constexpr bool isControl(char32_t codePoint) noexcept {
    return codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0);
}

/// How many bytes the UTF-8 of a character has that begins with this one; 0 where it begins none.
constexpr std::size_t utf8Length(char first) noexcept {
    const auto byte = static_cast<unsigned char>(first);
    if (byte < 0x80) return 1;
    if (byte >= 0xC2 && byte <= 0xDF) return 2;
    if (byte >= 0xE0 && byte <= 0xEF) return 3;
    return byte >= 0xF0 && byte <= 0xF4 ? 4 : 0;
}
/// Whether the byte stands behind the first one of a character.
constexpr bool isUtf8Continuation(char byte) noexcept {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// Whether the UTF-8 of a character begins at `at`, which lies inside of the text: in its shortest
/// form, no surrogate, at most U+10FFFF.
OKV_EXPORT bool isUtf8At(std::string_view text, std::size_t at);
/// Where `text` stops being UTF-8: the offset of the first bad byte, none when all of it is good.
OKV_EXPORT std::optional<std::size_t> findInvalidUtf8(std::string_view text);

/// The code point that begins at `at` of a text known to be UTF-8; `at` moves past it.
constexpr char32_t nextCodePoint(std::string_view text, std::size_t& at) noexcept {
    const auto first = static_cast<unsigned char>(text[at]);
    const auto length = utf8Length(text[at]);
    char32_t codePoint = length == 1 ? first : first & (0x7FU >> length);
    for (const char next : text.substr(at + 1, length - 1))
        codePoint = (codePoint << 6) | (static_cast<unsigned char>(next) & 0x3FU);
    at += length;
    return codePoint;
}

/// Whether all of it is UTF-8, of characters that `accepts`.
template <class Accepts>
bool isUtf8Of(std::string_view text, Accepts accepts) {
    for (std::size_t at = 0; at < text.size();) {
        const bool isAscii = static_cast<unsigned char>(text[at]) < 0x80;
        if ((!isAscii && !isUtf8At(text, at)) || !accepts(nextCodePoint(text, at))) return false;
    }
    return true;
}

/// UTF-16 bytes as UTF-8, or none when a surrogate stands alone or a byte is left over; `badAt` is
/// then the offset of the offender.
std::optional<std::string> utf8FromUtf16(std::string_view bytes, ByteOrder order,
                                         std::size_t& badAt);

}  // namespace okv
