#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Value.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace okv {

/// What a property list holds, or why it was refused: exactly one of the two is set.
struct PropertyListResult {
    /// Never nil and never the null object, at any depth: neither has a form in property lists.
    std::optional<Value> value;
    /// What is wrong and where: "line 3, column 7: ..." in texts, "byte 42: ..." in bytes.
    std::string error;
    /// Whether there is a value.
    explicit operator bool() const noexcept { return value.has_value(); }
};

/// The readers take any bytes, a hostile stranger's too, and hold to these limits: containers nest
/// at most 64 deep, a list expands to at most 1048576 values and, where pieces are shared, to at
/// most 64 MiB of text and data. Integers beyond int64, sets and unique ids are refused. Of two
/// entries under one key the later one counts. All are safe from any thread.

/// Reads a property list in whichever of the three forms it has: binary, XML or old-style text.
OKV_EXPORT PropertyListResult readPropertyList(std::string_view bytes);

/// Reads the XML form. Entities other than the five built-in ones and declarations inside the
/// DOCTYPE are refused; nothing outside `bytes` is ever looked at.
OKV_EXPORT PropertyListResult readPropertyListXml(std::string_view bytes);

/// Reads the binary form, version 00. A file smaller than 16 KiB may not expand to as many values
/// as a large one: at most to 64 for each byte, though to 65536 in any case.
OKV_EXPORT PropertyListResult readPropertyListBinary(std::string_view bytes);

/// Reads the old-style text form, UTF-8 or, with a byte order mark, UTF-16: texts, data, arrays and
/// dictionaries. A dictionary may go without its braces, as in tables of strings, and `key;` stands
/// for `key = key;`; a list of nothing but blanks and comments is such a dictionary, empty.
OKV_EXPORT PropertyListResult readPropertyListText(std::string_view bytes);

/// The largest property-list file that is read unless the caller says otherwise, in bytes.
inline constexpr std::size_t kPropertyListFileLimit = std::size_t{16} << 20;

/// Reads a property-list file of at most `limit` bytes, safely even when a stranger made it: see
/// readBoundedFile. The error begins with the path.
OKV_EXPORT PropertyListResult readPropertyListFile(const std::string& path,
                                                   std::size_t limit = kPropertyListFileLimit);

/// The XML form of `value`, with a final newline. Dates lose their fraction of a second, which the
/// form cannot carry; everything else comes back equal. Throws std::invalid_argument, naming the
/// place, for what the form cannot say: nil, the null object, keys that are not texts, texts that
/// are not UTF-8 or hold control characters, dates outside the years 1 to 9999, and containers
/// nested deeper than 64.
OKV_EXPORT std::string writePropertyListXml(const Value& value);

}  // namespace okv
