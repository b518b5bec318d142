#include <OKVPlatform/ipc/Crc32c.h>

#include <array>
#include <cstddef>

namespace okv {

namespace {

constexpr std::uint32_t kPolynomial = 0x82F63B78;  // Castagnoli's, its bits reversed
constexpr std::size_t kSlices = 8;
using Tables = std::array<std::array<std::uint32_t, 256>, kSlices>;

constexpr Tables makeTables() {
    Tables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        auto value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = (value >> 1) ^ ((value & 1) != 0 ? kPolynomial : 0);
        tables[0][byte] = value;
    }
    for (std::size_t slice = 1; slice < kSlices; ++slice) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const auto before = tables[slice - 1][byte];
            tables[slice][byte] = (before >> 8) ^ tables[0][before & 0xFF];
        }
    }
    return tables;
}

constexpr Tables kTables = makeTables();

std::uint8_t byteAt(std::string_view bytes, std::size_t index) {
    return static_cast<std::uint8_t>(bytes[index]);
}

// Eight bytes at a time: what byte i adds, seven to none bytes later, is in table 7 - i.
std::uint32_t addEight(std::uint32_t sum, std::string_view bytes) {
    std::uint32_t result = 0;
    for (std::size_t i = 0; i < kSlices; ++i) {
        const auto mixed = i < 4 ? (sum >> (8 * i)) & 0xFF : 0;
        result ^= kTables[kSlices - 1 - i][byteAt(bytes, i) ^ mixed];
    }
    return result;
}

}  // namespace

std::uint32_t crc32c(std::string_view bytes, std::uint32_t before) noexcept {
    auto sum = ~before;
    for (; bytes.size() >= kSlices; bytes.remove_prefix(kSlices)) sum = addEight(sum, bytes);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        sum = (sum >> 8) ^ kTables[0][(sum ^ byteAt(bytes, i)) & 0xFF];
    return ~sum;
}

}  // namespace okv
