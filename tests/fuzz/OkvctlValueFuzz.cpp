#include "Require.h"

#include <ValueText.h>

#include <cstddef>
#include <cstdint>

namespace {

constexpr std::size_t kTypes = static_cast<std::size_t>(okvctl::ValueType::null) + 1;

using fuzz::require;

}  // namespace

// The first byte chooses the type. Whatever is read has a JSON form that reads back as itself, and
// a cell that a terminal can show.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) return 0;
    const auto type = static_cast<okvctl::ValueType>(bytes[0] % kTypes);
    const std::string_view text(reinterpret_cast<const char*>(bytes) + 1, size - 1);
    const auto parsed = okvctl::parseValue(type, text);
    if (!parsed) {
        require(!parsed.error.empty());
        return 0;
    }
    const auto again = okvctl::parseJson(okvctl::jsonText(*parsed.value));
    require(again && *again.value == *parsed.value);
    require(okvctl::isPrintable(okvctl::cellText(*parsed.value)));
    return 0;
}
