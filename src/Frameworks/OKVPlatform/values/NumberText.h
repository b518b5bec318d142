#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace okv {

/// Takes a sign off the front of a number's text; answers whether it was a minus.
inline bool takeSign(std::string_view& text) noexcept {
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    return negative;
}

/// The decimal number that all of the text is; none for any other text, or one beyond T's range.
template <class T>
std::optional<T> decimalIn(std::string_view text) noexcept {
    T number{};
    const auto* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

}  // namespace okv
