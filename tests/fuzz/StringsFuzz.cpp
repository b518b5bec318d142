#include "PropertyListFuzz.h"

#include <OKVPlatform/values/StringsTable.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto bytes = fuzz::textOf(data, size);
    const auto result = okv::StringsTable::parse(bytes);
    fuzz::require(result.table.has_value() == result.error.empty());
    if (!result) return 0;
    if (bytes.empty()) return 0;
    const auto entries = okv::readPropertyList(bytes);
    fuzz::require(entries.value->as<okv::Dictionary>().size() == result.table->size());
    fuzz::check(entries);
    return 0;
}
