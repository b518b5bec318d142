// Prefixes against the rules worked out on UTF-16, and with bytes that are no text at all. The
// first byte is the prefix's length.
#include "Require.h"

#include <OKVDataManager/okvCmnUtil.h>

#include <array>

namespace {

using fuzz::require;

struct Letter {
    std::u16string_view utf16;
    std::string_view utf8;
};

constexpr std::array<Letter, 5> kLetters{{{u"A", "A"},
                                          {u"B", "B"},
                                          {u"\u00E9", "\xC3\xA9"},
                                          {u"\u65E5", "\xE6\x97\xA5"},
                                          {u"\U0001F600", "\xF0\x9F\x98\x80"}}};

struct Text {
    std::u16string utf16;
    std::string utf8;
};

Text textOf(std::string_view bytes) {
    Text text;
    for (const char c : bytes) {
        const Letter& letter = kLetters[static_cast<unsigned char>(c) % kLetters.size()];
        text.utf16 += letter.utf16;
        text.utf8 += letter.utf8;
    }
    return text;
}

std::string utf8Of(std::u16string_view text) {
    std::string utf8;
    if (!text.empty() && text.front() == kLetters[4].utf16[1]) {
        utf8 = "\xEF\xBF\xBD";
        text.remove_prefix(1);
    }
    while (!text.empty())
        for (const Letter& letter : kLetters)
            if (text.starts_with(letter.utf16)) {
                utf8 += letter.utf8;
                text.remove_prefix(letter.utf16.size());
            }
    return utf8;
}

std::optional<std::string> removedByTheRules(const Text& text, const Text& prefix) {
    if (text.utf16.empty() || prefix.utf16.empty()) return text.utf8;
    const bool found = text.utf16.find(prefix.utf16) != std::u16string::npos;
    const std::size_t length = found ? prefix.utf16.size() : 0;
    if (length >= text.utf16.size()) return std::nullopt;
    return utf8Of(std::u16string_view(text.utf16).substr(length));
}

void checkTexts(const Text& text, const Text& prefix) {
    require(okvCmnUtil::removePrefix_forPrefix(text.utf8, prefix.utf8) ==
            removedByTheRules(text, prefix));
    const auto added = okvCmnUtil::addPrefix_forPrefix(text.utf8, prefix.utf8);
    require(added == prefix.utf8 + text.utf8);
    if (!text.utf8.empty() && !prefix.utf8.empty())
        require(okvCmnUtil::removePrefix_forPrefix(added, prefix.utf8) == text.utf8);
}

void checkBytes(std::string_view text, std::string_view prefix) {
    const auto rest = okvCmnUtil::removePrefix_forPrefix(text, prefix);
    if (text.find(prefix) == std::string_view::npos || prefix.empty()) require(rest == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) return 0;
    const std::string input(bytes + 1, bytes + size);
    const std::string_view all(input);
    const std::size_t length = std::min<std::size_t>(bytes[0] % 16, all.size());
    checkTexts(textOf(all.substr(length)), textOf(all.substr(0, length)));
    checkBytes(all.substr(length), all.substr(0, length));
    return 0;
}
