#include <OKVPlatform/values/Unicode.h>

namespace okv {

namespace {

unsigned byteAt(std::string_view bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]);
}

char32_t unitAt(std::string_view bytes, std::size_t at, ByteOrder order) {
    const auto first = byteAt(bytes, at);
    const auto second = byteAt(bytes, at + 1);
    return order == ByteOrder::big ? (first << 8) | second : (second << 8) | first;
}

// The code point at `at`, which moves past it; none when its surrogate has no partner.
std::optional<char32_t> takeCodePoint(std::string_view bytes, std::size_t& at, ByteOrder order) {
    const auto unit = unitAt(bytes, at, order);
    at += 2;
    if (isLowSurrogate(unit)) return std::nullopt;
    if (!isHighSurrogate(unit)) return unit;
    if (at + 1 >= bytes.size()) return std::nullopt;
    const auto low = unitAt(bytes, at, order);
    if (!isLowSurrogate(low)) return std::nullopt;
    at += 2;
    return joinedSurrogates(unit, low);
}

}  // namespace

void appendUtf8(std::string& text, char32_t codePoint) {
    const auto put = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (codePoint < 0x80) return put(codePoint);
    if (codePoint < 0x800) {
        put(0xC0 | (codePoint >> 6));
    } else if (codePoint < 0x10000) {
        put(0xE0 | (codePoint >> 12));
        put(0x80 | ((codePoint >> 6) & 0x3F));
    } else {
        put(0xF0 | (codePoint >> 18));
        put(0x80 | ((codePoint >> 12) & 0x3F));
        put(0x80 | ((codePoint >> 6) & 0x3F));
    }
    put(0x80 | (codePoint & 0x3F));
}

namespace {

bool isAllowed(char32_t codePoint, std::size_t length) {
    if (length == 3) return codePoint >= 0x800 && (codePoint < 0xD800 || codePoint > 0xDFFF);
    if (length == 4) return codePoint >= 0x10000 && codePoint <= 0x10FFFF;
    return true;
}

}  // namespace

bool isUtf8At(std::string_view text, std::size_t at) {
    const auto length = utf8Length(text[at]);
    if (length == 0 || text.size() - at < length) return false;
    for (std::size_t i = 1; i < length; ++i)
        if (!isUtf8Continuation(text[at + i])) return false;
    return isAllowed(nextCodePoint(text, at), length);
}

std::optional<std::size_t> findInvalidUtf8(std::string_view text) {
    for (std::size_t at = 0; at < text.size(); at += utf8Length(text[at]))
        if (!isUtf8At(text, at)) return at;
    return std::nullopt;
}

std::optional<std::string> utf8FromUtf16(std::string_view bytes, ByteOrder order,
                                         std::size_t& badAt) {
    std::string text;
    text.reserve(bytes.size() / 2);
    std::size_t at = 0;
    while (at + 1 < bytes.size()) {
        badAt = at;
        const auto codePoint = takeCodePoint(bytes, at, order);
        if (!codePoint) return std::nullopt;
        appendUtf8(text, *codePoint);
    }
    badAt = at;
    if (at != bytes.size()) return std::nullopt;
    return text;
}

}  // namespace okv
