#pragma once

#include <OKVPlatform/Export.h>

#include <cstddef>
#include <optional>
#include <string>

namespace okv {

/// The bytes of a file, or why there are none: exactly one of the two is set.
struct FileBytes {
    std::optional<std::string> bytes;
    /// Begins with the file's path, unless a NUL byte in that is the reason.
    std::string error;
    /// Whether the file was read.
    explicit operator bool() const noexcept { return bytes.has_value(); }
};

/// Reads a whole file that a stranger may have made. Only a regular file of at most `limit` bytes
/// is read; anything else (a folder, a FIFO, a socket, a device, a loop of links, a file whose
/// size changes while it is read) is refused at once, without waiting for anybody.
/// Links are followed. Safe from any thread.
OKV_EXPORT FileBytes readBoundedFile(const std::string& path, std::size_t limit);

}  // namespace okv
