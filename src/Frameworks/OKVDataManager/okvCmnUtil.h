#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/process/ProcessManager.h>
#include <OKVPlatform/values/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The suite's toolbox: class operations only, no state. Every operation may be called from any
/// thread.
class OKV_EXPORT okvCmnUtil final {
public:
    okvCmnUtil() = delete;

    // ---- Maintenance settings and log switches ----

    // ---- Date and time ----

    // ---- Process inspection ----

    /// This process's id.
    static std::int32_t processID();

    /// This process's name: the last component of the path it was started under.
    static std::string processName();

    /// The login name of the account that runs this process (its real user id); empty when that
    /// account has none.
    static std::string processUserName();

    /// Whether a process of `processList` has both this "CFBundleName" and this
    /// "CFBundleIdentifier"; the calling process counts too. An empty `name` stands for
    /// `processName`. An empty identifier answers false.
    static bool launchMutexCheck_BundleIdentifer(std::string_view name,
                                                 std::string_view bundleIdentifier);

    /// The first record of `processListBSD` with this "pid"; none when there is none. (Process id 0
    /// finds the record past the last, see there.)
    static std::optional<okv::Dictionary> processInfoBSD(std::int32_t pid);

    /// One record for each process of the kernel's table, and one more, zero-filled, at the end:
    /// "pid", "uid", "gid" (the real ones, as 32-bit numbers with a sign), "CFBundleName" (the
    /// command name, at most 16 bytes as the kernel keeps them, not always UTF-8), "parentpid" and
    /// "BundlePath" (what `getPathName` answers, formatted). Only the zero-filled record when the
    /// table cannot be read.
    static okv::Array processListBSD();

    /// One dictionary for each running application, as `okv::ProcessManager` makes it: the keys of
    /// its Info.plist, "pid" and "BundlePath". Applications without a readable Info.plist are left
    /// out.
    static okv::Array processList();

    // ---- Launching and quitting applications ----

    /// `sendQuitAppleEvent` to the process with this id. 0 also when no such process runs.
    static std::int32_t sendQuitAppleEventForPid(std::int32_t pid);

    /// Asks an application to quit and waits for its answer, at most 500/60 of a second.
    /// Answers 0 when it accepted (or `psn` is null), the error number it replied, -600 when the
    /// process does not listen for the request, or the negative status of a failed sending.
    static std::int32_t sendQuitAppleEvent(const okv::ProcessSerialNumber* psn);

    /// Sends SIGTERM to the process, up to 5 times until the sending succeeds, then SIGKILL when it
    /// never did. Answers whether a signal was sent; does not wait for the process to end. Process
    /// id 0 answers true and signals nothing; a process that does not exist or may not be signalled
    /// answers false, as does a negative id.
    static bool quitProcesss(std::int32_t pid);

    /// Runs the executable at `path` with `arguments` (strings) in the folder `workPath`; where
    /// nothing exists there, in `appBinPath`; where nothing exists there either, in "/tmp". With
    /// `sync`, waits until it ends. Puts its process id into `*processId`, which must be valid.
    ///
    /// Answers false, `*processId` untouched, when `path` is empty or nothing exists there. Throws
    /// `okv::TaskError` when the system refuses the launch, `*processId` untouched.
    ///
    /// The process's standard error goes into a pipe that nobody reads: intended; a process that
    /// writes more than 64 KiB there blocks.
    static bool launchApp_argument_sync_workPath_processId(std::string_view path,
                                                           const okv::Array& arguments, bool sync,
                                                           std::string_view workPath,
                                                           std::int32_t* processId);

    // ---- Category data and byte buffers ----

    // ---- Identifier prefixes and localisation ----

    // ---- Installation layout, file information and user agent ----

    static std::string appBinPath();

    // ---- Published connections and bulk release ----
};

/// The path of a process's executable by the kernel's process table, allocated with `malloc` for
/// the caller to free; null when there is none. The request it makes is one that the table refuses
/// (a name of 16 components), so it answers null for every process: intended, and relied on by
/// `okvCmnUtil::processListBSD`.
extern "C" OKV_EXPORT char* getPathName(int pid);
