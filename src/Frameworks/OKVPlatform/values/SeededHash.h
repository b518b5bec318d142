#pragma once

#include <OKVPlatform/Export.h>

#include <cstdint>
#include <string_view>

namespace okv {

/// A hash whose seed is the process's own and drawn anew in each: for tables whose keys strangers
/// choose, so that they cannot choose keys that collide. Not to be stored or sent.
OKV_EXPORT std::uint64_t seededHash(std::string_view bytes) noexcept;

}  // namespace okv
