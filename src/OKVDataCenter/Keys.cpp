#include "Keys.h"

#include <algorithm>
#include <charconv>

namespace datacenter {

namespace {

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

// The length of the character that begins the text; 0 when it is none or a control character.
std::size_t characterLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x20 || first == 0x7F) return 0;
    if (first < 0x80) return 1;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
    if (!std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length),
                     isContinuation))
        return 0;
    const auto second = static_cast<unsigned char>(text[1]);
    const bool tooLong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool noCharacter = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
    const bool control = first == 0xC2 && second < 0xA0;
    return tooLong || noCharacter || control ? 0 : length;
}

bool isPlainText(std::string_view text) {
    while (!text.empty()) {
        const auto length = characterLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

}  // namespace

bool isKey(const okv::Value& value, const Limits& limits) {
    const auto* text = value.getIf<std::string>();
    return text != nullptr && !text->empty() && text->size() <= limits.keyBytes &&
           isPlainText(*text);
}

bool isSystemKey(std::string_view key) {
    return key.starts_with("dc-syscmnf-");
}

bool isCommonKey(std::string_view key) {
    return key.starts_with("dc-cmnset-");
}

std::optional<std::int32_t> userIdOf(const okv::Value& value) {
    const auto* number = value.getIf<std::int64_t>();
    if (number == nullptr || *number < INT32_MIN || *number > INT32_MAX) return std::nullopt;
    return static_cast<std::int32_t>(*number);
}

// The depth ends the recursion.
bool isStorable(const okv::Value& value, std::size_t nesting) {
    if (value.isNil()) return false;
    const auto inside = [&](const okv::Value& element) { return isStorable(element, nesting - 1); };
    if (const auto* array = value.getIf<okv::Array>())
        return nesting > 0 && std::all_of(array->begin(), array->end(), inside);
    if (const auto* dictionary = value.getIf<okv::Dictionary>())
        return nesting > 0 && std::all_of(dictionary->begin(), dictionary->end(),
                                          [&](const auto& entry) { return inside(entry.value); });
    return true;
}

std::optional<std::int64_t> decimalOf(const okv::Value& value) {
    if (const auto* number = value.getIf<std::int64_t>()) return *number;
    const auto* text = value.getIf<std::string>();
    if (text == nullptr) return std::nullopt;
    std::int64_t number = 0;
    const auto* end = text->data() + text->size();
    const auto read = std::from_chars(text->data(), end, number);
    return read.ec == std::errc() && read.ptr == end ? std::optional(number) : std::nullopt;
}

}  // namespace datacenter
