#include "Keys.h"

#include <OKVPlatform/values/NumberText.h>
#include <OKVPlatform/values/Unicode.h>

#include <algorithm>

namespace datacenter {

bool isKey(const okv::Value& value, const Limits& limits) {
    const auto* text = value.getIf<std::string>();
    return text != nullptr && !text->empty() && text->size() <= limits.keyBytes &&
           okv::isUtf8Of(*text, [](char32_t one) { return !okv::isControl(one); });
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
    return text != nullptr ? okv::decimalIn<std::int64_t>(*text) : std::nullopt;
}

}  // namespace datacenter
