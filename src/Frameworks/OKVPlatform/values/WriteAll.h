#pragma once

#include <OKVPlatform/Export.h>

#include <string_view>

namespace okv {

/// Writes all of the bytes to a descriptor, however many writes that takes; a write that a signal
/// interrupts is begun anew. Answers false, with the reason in errno, where the system refuses one:
/// ENOSPC for one that takes nothing. Any thread.
OKV_EXPORT bool writeAll(int descriptor, std::string_view bytes) noexcept;

}  // namespace okv
