#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Value.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace okv {

struct StringsTableResult;

/// A table of translations: keys to texts. Unchanging, hence safe from any thread.
class OKV_EXPORT StringsTable {
public:
    StringsTable() = default;

    /// Reads a table in its own text form (`"key" = "text";`, with comments) or as any other form
    /// of property list whose outermost value is a dictionary. An empty table is good.
    static StringsTableResult parse(std::string_view bytes);
    /// As `parse`, from a file, with the limits and precautions of readPropertyListFile.
    static StringsTableResult load(const std::string& path);

    /// The text under `key`, or null when there is none; a value that is not a text counts as none.
    /// Owned by the table.
    const std::string* find(std::string_view key) const;
    /// The number of keys.
    std::size_t size() const noexcept { return entries_.size(); }

private:
    explicit StringsTable(Dictionary entries) : entries_(std::move(entries)) {}

    Dictionary entries_;
};

/// A table, or why there is none: exactly one of the two is set.
struct StringsTableResult {
    std::optional<StringsTable> table;
    /// What is wrong and where.
    std::string error;
    /// Whether there is a table.
    explicit operator bool() const noexcept { return table.has_value(); }
};

}  // namespace okv
