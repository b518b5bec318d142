#pragma once

#include <OKVPlatform/Export.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace okv {

/// Longest command name a process record carries, in bytes.
inline constexpr std::size_t kMaxCommandLength = 16;

/// One process as the kernel's process table hands it out: a record of fixed size.
struct ProcessRecord {
    std::int32_t pid = 0;
    std::int32_t parentPid = 0;
    std::uint32_t realUid = 0;
    std::uint32_t realGid = 0;
    /// The command name as the kernel keeps it: any bytes but NUL, not always UTF-8; ended by NUL.
    char command[kMaxCommandLength + 1] = {};
};

/// What `/proc/PID/status` says about one process.
struct ProcessStatus {
    ProcessRecord record;
    /// The id of the thread group; differs from `record.pid` for a thread that is not its first.
    std::int32_t threadGroup = 0;
    /// The kernel's letter: 'R', 'S', ... 'Z' (ended, not yet reaped), 'X' (dead).
    char state = '?';
    /// Whether it runs no more, reaped or not.
    bool hasEnded() const noexcept { return state == 'Z' || state == 'X'; }
};

/// Reads the text of a `/proc/PID/status` file; the file may be cut anywhere after its "Gid:" line.
/// Answers none unless process id, parent, real user and real group are all there and well-formed.
OKV_EXPORT std::optional<ProcessStatus> parseProcessStatus(std::string_view text) noexcept;

/// The first argument in the content of a `/proc/PID/cmdline` file when it is an absolute path,
/// else an empty text.
OKV_EXPORT std::string_view absoluteFirstArgument(std::string_view commandLine) noexcept;

}  // namespace okv
