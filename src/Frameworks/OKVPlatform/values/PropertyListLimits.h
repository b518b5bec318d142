#pragma once

#include <cstddef>

namespace okv {

/// How deep containers may nest, the outermost counted.
inline constexpr std::size_t kMaxPropertyListDepth = 64;
/// How many values one list may expand to, keys of the binary form included.
inline constexpr std::size_t kMaxPropertyListValues = std::size_t{1} << 20;
/// How many bytes of text and data a list with shared pieces may expand to.
inline constexpr std::size_t kMaxPropertyListBytes = std::size_t{64} << 20;

inline constexpr const char* kTooDeep = "nested deeper than 64";
inline constexpr const char* kTooManyValues = "more than 1048576 values";

}  // namespace okv
