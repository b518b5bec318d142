#pragma once

#include <dirent.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace okv {

/// Of a process's "status", all that is wanted stands in its first lines, and so in this many
/// bytes: the longest name is 64 bytes, each of which may be escaped.
inline constexpr std::size_t kStatusHead = 1024;

/// A folder shaped like "/proc", held open: one walk over the process ids, and single files of a
/// process, named relative to the folder. For one thread. Not installed: the process room's own.
class ProcFolder {
public:
    explicit ProcFolder(const std::string& path) noexcept;

    /// False when the folder could not be opened; `errno` of the constructor says why.
    bool isOpen() const noexcept { return folder_ != nullptr; }

    /// At least the number of processes as far as the folder itself tells it; 0 when it does not.
    std::size_t countHint() const noexcept;

    /// The next process id, in the folder's order; 0 at the end (`errno` 0) or on an error.
    int nextPid() noexcept;

    /// The start of a file of a process, as far as it fits into `buffer`; none with `errno` set.
    std::optional<std::string_view> read(int pid, std::string_view file,
                                         std::span<char> buffer) const noexcept;
    /// Where a link of a process leads, in `buffer`; none with `errno` set, also when it is too
    /// long for the buffer.
    std::optional<std::string_view> readLink(int pid, std::string_view file,
                                             std::span<char> buffer) const noexcept;

private:
    struct Close {
        void operator()(DIR* folder) const noexcept { closedir(folder); }
    };
    std::unique_ptr<DIR, Close> folder_;
};

}  // namespace okv
