#pragma once

#include "Limits.h"

#include <OKVPlatform/values/Value.h>

#include <optional>
#include <string_view>

namespace datacenter {

/// A key is a string of 1 to 255 bytes of valid UTF-8 without control characters: it stands in log
/// lines, in files and on terminals. Its form, "dc-" + group + "-" + name, is a habit and not asked
/// for.
bool isKey(const okv::Value& value, const Limits& limits);

/// Keys of the group "syscmnf" belong to everybody, whatever user a write names.
bool isSystemKey(std::string_view key);
/// Keys of the group "cmnset".
bool isCommonKey(std::string_view key);

/// A user's id as the lists carry it: a number object that holds a 32-bit integer.
std::optional<std::int32_t> userIdOf(const okv::Value& value);

/// Whether a value may be stored: a property-list value without nil in it, nested no deeper than
/// the limit. The null object may stand inside.
bool isStorable(const okv::Value& value, std::size_t nesting);

/// Texts of decimal digits with an optional "-", as exports carry ids; or an integer itself.
std::optional<std::int64_t> decimalOf(const okv::Value& value);

}  // namespace datacenter
