#include <StoreCheck.h>
#include <StoreDifference.h>
#include <StoreFile.h>
#include <ToolError.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

// A file that is to be imported. What is refused is told; what is taken differs in nothing from
// itself, and reads back from its JSON.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const auto parsed = okvctl::parseStore({reinterpret_cast<const char*>(bytes), size});
    if (!parsed) {
        require(!parsed.error.empty());
        return 0;
    }
    try {
        okvctl::checkStore(*parsed.value);
    } catch (const okvctl::ToolError& error) {
        require(error.what()[0] != '\0');
        return 0;
    }
    const auto& store = parsed.value->as<okv::Dictionary>();
    require(okvctl::differencesBetween(store, store).empty());
    okvctl::differencesBetween({}, store);
    const auto again = okvctl::parseStore(okvctl::storeText(*parsed.value, okvctl::kJson));
    require(again && *again.value == *parsed.value);
    return 0;
}
