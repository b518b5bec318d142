#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/process/ProcessStatus.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace okv {

/// Components of the one name that a process table answers.
inline constexpr std::int32_t kCtlKern = 1;
inline constexpr std::int32_t kKernProc = 14;
inline constexpr std::int32_t kKernProcAll = 0;
/// Most components a name may have; a longer one is refused unread.
inline constexpr std::uint32_t kMaxNameLength = 12;

/// The kernel's process table behind the call shape of the BSD `sysctl`. Tests put a double in its
/// place.
class OKV_EXPORT ProcessTable {
public:
    ProcessTable() = default;
    ProcessTable(const ProcessTable&) = delete;
    ProcessTable& operator=(const ProcessTable&) = delete;
    virtual ~ProcessTable();

    /// Asks for the records of all processes, named {kCtlKern, kKernProc, kKernProcAll} (a fourth
    /// component is allowed and not looked at).
    ///
    /// Without a `buffer`, puts into `*length` how many bytes the records take, with some room to
    /// spare for processes that start meanwhile. With one, `*length` says how large it is; as many
    /// whole ProcessRecords as fit are put there, and `*length` becomes the bytes filled.
    ///
    /// Answers 0, or -1 with `errno`: ENOMEM when not all records fitted, EINVAL for a name of more
    /// than kMaxNameLength components or a missing `length`, ENOENT for another name, EPERM for a
    /// new value (nothing here can be set), or the reason why the table could not be read.
    virtual int sysctl(const std::int32_t* name, std::uint32_t nameLength, void* buffer,
                       std::size_t* length, const void* newValue, std::size_t newLength) = 0;
};

/// The table read from "/proc", or from a folder of that shape. Processes that end during the walk
/// are left out. Any thread may call it; it keeps nothing between calls.
class OKV_EXPORT KernelProcessTable final : public ProcessTable {
public:
    /// `root`: opened anew by every call.
    explicit KernelProcessTable(std::string root = "/proc");

    /// As told above.
    int sysctl(const std::int32_t* name, std::uint32_t nameLength, void* buffer,
               std::size_t* length, const void* newValue, std::size_t newLength) override;

private:
    std::string root_;
};

}  // namespace okv
