#pragma once

#include <string_view>

namespace okvctl {

// The only keys of the objects that stand for what JSON has no form of its own for.
inline constexpr std::string_view kNilTag = "$nil";
inline constexpr std::string_view kRealTag = "$real";
inline constexpr std::string_view kDateTag = "$date";
inline constexpr std::string_view kDataTag = "$data";
inline constexpr std::string_view kBytesTag = "$bytes";
inline constexpr std::string_view kDictionaryTag = "$dictionary";

}  // namespace okvctl
