#pragma once

#include <string_view>

namespace okvctl {

/// A user's four lists, by the names that they have in an export.
inline constexpr std::string_view kFamilyNames[] = {"user_setting", "contents_words", "hammer_list",
                                                    "black_extension_list"};

}  // namespace okvctl
