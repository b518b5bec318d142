#pragma once

#include <OKVPlatform/Export.h>

#include <cstdint>
#include <string_view>

namespace okv {

/// The Castagnoli checksum (CRC-32C) of `bytes`; of several pieces when `before` is the checksum of
/// what came before.
OKV_EXPORT std::uint32_t crc32c(std::string_view bytes, std::uint32_t before = 0) noexcept;

}  // namespace okv
