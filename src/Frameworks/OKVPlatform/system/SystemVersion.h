#pragma once

#include <OKVPlatform/Export.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace okv {

/// The version code of a kernel release text such as "6.1.0-18-amd64":
/// (major << 16) + (minor << 8) + min(patch, 255). A missing minor or patch number counts as 0;
/// none when the text does not begin with a number. Any thread, as all here.
OKV_EXPORT std::optional<std::uint32_t> systemVersionOf(std::string_view release);

/// How the running system's version code is found; none is a failed query.
using SystemVersionQuery = std::optional<std::uint32_t> (*)();

/// The running kernel's version code, or none when the query fails.
OKV_EXPORT std::optional<std::uint32_t> systemVersion();

/// Puts another query in the place of the kernel's; null puts the kernel's back. For tests.
OKV_EXPORT void setSystemVersionQuery(SystemVersionQuery query) noexcept;

}  // namespace okv
