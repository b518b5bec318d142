#pragma once

#include <string_view>

namespace okv {

/// Takes a sign off the front of a number's text; answers whether it was a minus.
inline bool takeSign(std::string_view& text) noexcept {
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    return negative;
}

}  // namespace okv
