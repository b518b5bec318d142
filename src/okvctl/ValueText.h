#pragma once

#include "JsonForm.h"

#include <OKVPlatform/values/Value.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace okvctl {

/// How the text of a VALUE is to be read.
enum class ValueType { string, integer, real, boolean, date, data, json, null };

/// The type of a --type option; none for an unknown name.
std::optional<ValueType> valueTypeNamed(std::string_view name);
/// The names of the types, in the order in which help tells them.
std::span<const std::string_view> valueTypeNames();

/// Reads the text of a VALUE. A string is any bytes as they stand. Bounded in depth and size, as
/// `parseJson`.
ParsedValue parseValue(ValueType type, std::string_view text);

/// The name of a value's type, as `valueTypeNamed` takes it, or "array", "dictionary", "nil".
std::string_view typeName(const okv::Value& value);

/// A value on one line, free of control characters. A string stands as it is where that leaves no
/// doubt, else as JSON; so do arrays and dictionaries. Dates and data stand as `parseValue` takes
/// them.
std::string cellText(const okv::Value& value);

/// Whether the text can be shown anywhere as it is: UTF-8 without any control characters.
bool isPrintable(std::string_view text);
/// The text for a message of one line: as it is where it is printable, else with all that is not
/// printable ASCII as "\\x1b". Of a very long one its beginning, and "...".
std::string messageText(std::string_view text);

}  // namespace okvctl
