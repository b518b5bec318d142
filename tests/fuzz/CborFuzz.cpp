// Wire bytes to a value and back: the same value, no longer than told, in no more memory than the
// bytes can ask for.
#include "Require.h"

#include <OKVPlatform/values/Cbor.h>

#include <sanitizer/allocator_interface.h>

#include <algorithm>
#include <cstdint>

namespace {

using fuzz::require;

// What this process has allocated, and the most of it since `watchMemory`.
std::size_t allocated = 0;
std::size_t allocatedAtMost = 0;

void noteAllocation(const volatile void*, std::size_t size) {
    allocated += size;
    allocatedAtMost = std::max(allocatedAtMost, allocated);
}

void noteRelease(const volatile void* memory) {
    const auto size = __sanitizer_get_allocated_size(const_cast<const void*>(memory));
    allocated -= std::min(allocated, size);
}

void watchMemory() {
    static const int installed =
        __sanitizer_install_malloc_and_free_hooks(noteAllocation, noteRelease);
    require(installed != 0);
    allocated = allocatedAtMost = 0;
}

// Each byte may be an item; each level of containers may have room made for what it announces, as
// far as bytes for it are left.
std::size_t memoryFor(std::size_t bytes) {
    constexpr std::size_t perItem = 512;
    constexpr std::size_t reserved = 1024;
    return 4096 + bytes * perItem +
           okv::kMaxValueDepth * std::min(bytes, reserved) * sizeof(okv::Dictionary::Entry);
}

void readAsValue(std::string_view bytes) {
    watchMemory();
    okv::Value value;
    try {
        value = okv::decodeCbor(bytes);
    } catch (const okv::CborError& error) {
        require(error.offset() <= bytes.size());
        return require(allocatedAtMost <= memoryFor(bytes.size()));
    }
    require(allocatedAtMost <= memoryFor(bytes.size()));
    const auto encoded = okv::encodeCbor(value);
    // The least that grows most: a date of a one-byte number becomes one of a real.
    require(encoded.size() <= 5 * bytes.size());
    const auto again = okv::decodeCbor(encoded);
    require(okv::encodeCbor(again) == encoded);
    // A number that is none does not equal itself.
    require(again == value || !(value == okv::Value(value)));
}

template <class Read>
void readAs(std::string_view bytes, Read read) {
    okv::CborReader reader(bytes);
    try {
        while (!reader.atEnd()) read(reader);
    } catch (const okv::CborError&) {
        require(reader.offset() <= bytes.size());
    }
}

void readAsItems(std::string_view bytes) {
    readAs(bytes, [](okv::CborReader& reader) { reader.integer(); });
    readAs(bytes, [](okv::CborReader& reader) { reader.boolean(); });
    readAs(bytes, [](okv::CborReader& reader) { reader.reference(); });
    readAs(bytes, [&](okv::CborReader& reader) { require(reader.text().size() < bytes.size()); });
    readAs(bytes, [&](okv::CborReader& reader) { require(reader.arrayHeader() < bytes.size()); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    readAsValue(bytes);
    readAsItems(bytes);
    return 0;
}
