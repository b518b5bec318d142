#include <OKVPlatform/values/StringsTable.h>

#include <OKVPlatform/values/BoundedFile.h>
#include <OKVPlatform/values/PropertyListFile.h>

namespace okv {

StringsTableResult StringsTable::parse(std::string_view bytes) {
    // A file without a byte is no property list, but a table without entries.
    if (bytes.empty()) return {StringsTable(), {}};
    auto list = readPropertyList(bytes);
    if (!list) return {std::nullopt, std::move(list.error)};
    auto* entries = list.value->getIf<Dictionary>();
    if (entries == nullptr) return {std::nullopt, "byte 0: a table must be a dictionary"};
    return {StringsTable(std::move(*entries)), {}};
}

StringsTableResult StringsTable::load(const std::string& path) {
    const auto file = readBoundedFile(path, kPropertyListFileLimit);
    if (!file) return {std::nullopt, file.error};
    auto result = parse(*file.bytes);
    if (!result) result.error.insert(0, path + ": ");
    return result;
}

const std::string* StringsTable::find(std::string_view key) const {
    const auto* value = entries_.find(key);
    return value == nullptr ? nullptr : value->getIf<std::string>();
}

}  // namespace okv
