#pragma once

#include <atomic>
#include <cstdint>

/// What a process that preloads fail_nth.cpp, or is linked with it, does with one of its calls. For
/// a preloaded one it stands in a file that the process and whoever tests it have mapped.
struct FailPlan {
    enum class Function : std::uint32_t {
        read,      ///< read, pread, and of sockets recv, recvmsg
        write,     ///< write, pwrite, and of sockets send, sendmsg
        open,      ///< open, openat
        sync,      ///< fsync, fdatasync
        rename,    ///< rename, renameat, renameat2
        truncate,  ///< ftruncate
        epollCtl,
        accept,    ///< accept, accept4
        allocate,  ///< malloc, calloc, realloc
        lock,      ///< flock
    };
    /// A count smaller than asked for, in `error`'s place.
    static constexpr std::int32_t kShort = -1;
    /// Which descriptors a failing read or write concerns: disks have other errors than sockets.
    enum class Kind : std::uint32_t { any, file, socket };

    Function function{};
    Kind kind{};
    std::int32_t error = 0;
    std::uint32_t nth = 0;  ///< 1 is the first call since `armed`; 0: all are only counted
    std::atomic<bool> armed{false};
    std::atomic<std::uint32_t> calls{0};
    std::atomic<bool> failed{false};
};

/// The plan in force; null while nothing is to fail.
extern "C" FailPlan* okvFailPlan;

/// The variable of the environment that names the file.
inline constexpr char kFailPlanVariable[] = "OKV_FAIL_PLAN";
