#pragma once

#include <array>
#include <string_view>

/// What an export calls the lists that are of one kind; for the server, and for who reads exports.
namespace datacenter {

/// A user's four lists.
inline constexpr std::array<std::string_view, 4> kUserListNames{
    "user_setting", "contents_words", "hammer_list", "black_extension_list"};

/// The three process lists.
inline constexpr std::array<std::string_view, 3> kProcessListNames{
    "flt_proc_white", "flt_proc_black", "kill_web_proc"};

}  // namespace datacenter
