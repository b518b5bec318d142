#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Value.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace okv {

/// Results of the Process Manager's operations, under their platform names.
using OSStatus = std::int32_t;
inline constexpr OSStatus noErr = 0;
inline constexpr OSStatus paramErr = -50;
inline constexpr OSStatus procNotFound = -600;

/// The one mask of `ProcessInformationCopyDictionary`.
inline constexpr std::uint32_t kProcessDictionaryIncludeAllInformationMask = 0xFFFFFFFFU;
/// The low word of "no process", which also starts a walk.
inline constexpr std::uint32_t kNoProcess = 0;

/// A process as the Process Manager names it: {0, process id}; {0, 0} is no process.
struct ProcessSerialNumber {
    std::uint32_t highLongOfPSN = 0;
    std::uint32_t lowLongOfPSN = kNoProcess;
    friend bool operator==(const ProcessSerialNumber&, const ProcessSerialNumber&) = default;
};

/// What `GetProcessInformation` fills in. The caller sets the length to the record's size, and the
/// two pointers to texts of its own, or to null where it does not want them.
struct ProcessInfoRec {
    std::uint32_t processInfoLength = sizeof(ProcessInfoRec);
    std::string* processName = nullptr;    ///< the executable's own name
    std::string* processAppRef = nullptr;  ///< the path of the application bundle
    ProcessSerialNumber processNumber;
};

/// Reads a property-list file; nil when it cannot be read, whatever the reason. It meets files that
/// strangers chose: it must neither block on them nor read without a limit.
using PropertyListReader = std::function<Value(const std::string& path)>;

/// The list of running applications: the processes whose executable lies in an application bundle
/// (`X.app/Contents/...`). The executable is what the kernel says it is; where the kernel does not
/// say (another user's process) the first argument, when it is an absolute path, is believed.
///
/// An object keeps one snapshot for the walk in progress, so each walk needs its own object or its
/// own turn; the other operations may be called from any thread.
class OKV_EXPORT ProcessManager {
public:
    /// Reads processes from `procRoot`, a folder shaped like "/proc", and the bundles' information
    /// through `reader`.
    explicit ProcessManager(std::string procRoot = "/proc",
                            PropertyListReader reader = defaultReader());

    /// Moves `*psn` to the application with the next higher process id; from {0, 0} to the first,
    /// which also takes a new snapshot of the process ids. Answers noErr; or procNotFound at the
    /// end, `*psn` being {0, 0} then.
    OSStatus GetNextProcess(ProcessSerialNumber* psn);

    /// Fills in `*info`. Answers noErr, procNotFound when `psn` names no running application, or
    /// paramErr when the record's length is not right.
    OSStatus GetProcessInformation(const ProcessSerialNumber* psn, ProcessInfoRec* info) const;

    /// The keys of the bundle's Info.plist, with "pid" (number) and "BundlePath" (text) set on top
    /// of them. None when `psn` names no running application, its Info.plist cannot be read, or the
    /// mask is not the one above.
    std::optional<Dictionary> ProcessInformationCopyDictionary(const ProcessSerialNumber* psn,
                                                               std::uint32_t infoToReturn) const;

    /// Puts {0, pid} into `*psn` when a process of that id runs, application or not; a process that
    /// has ended and was not reaped yet does not run. Answers noErr or procNotFound.
    OSStatus GetProcessForPID(std::int32_t pid, ProcessSerialNumber* psn) const;

    /// readPropertyListFile for at most 1 MiB; nil for a file that it refuses.
    static PropertyListReader defaultReader();

private:
    void takeSnapshot();

    std::string procRoot_;
    PropertyListReader reader_;
    std::vector<std::int32_t> pids_;
};

}  // namespace okv
