#pragma once

#include <OKVPlatform/process/ProcessManager.h>
#include <OKVPlatform/process/ProcessTable.h>
#include <OKVPlatform/process/QuitEvent.h>
#include <OKVPlatform/process/Task.h>
#include <OKVPlatform/system/FileAttributes.h>
#include <OKVPlatform/values/Value.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What the process operations of `okvCmnUtil` do, apart from whom they ask: the operations call
/// these with the real system, tests with doubles. Not installed, and no part of the interface.
namespace okvCmnUtilSeams {

// ---- The kernel's process list ----

struct FreeBuffer {
    void operator()(char* buffer) const noexcept { std::free(buffer); }
};

/// What the fetch left behind: maybe no buffer, maybe a length that no buffer stands for.
struct FetchedTable {
    std::unique_ptr<char, FreeBuffer> buffer;
    std::size_t capacity = 0;
    std::size_t length = 0;

    /// Records that are really there, whatever the length says.
    std::size_t count() const noexcept {
        return buffer ? std::min(length, capacity) / sizeof(okv::ProcessRecord) : 0;
    }
    /// The record at `index`; a zero-filled one past the last.
    okv::ProcessRecord record(std::size_t index) const noexcept {
        okv::ProcessRecord record;
        if (index < count())
            std::memcpy(&record, buffer.get() + index * sizeof record, sizeof record);
        return record;
    }
};

using Allocate = std::function<void*(std::size_t)>;

/// Replaces the table's buffer by a zero-filled one of the table's length; false when there is no
/// memory. (The buffer of an earlier round, which the loop below does not free, is freed here.)
inline bool allocateBuffer(FetchedTable& table, const Allocate& allocate) {
    table.buffer.reset(static_cast<char*>(allocate(table.length)));
    table.capacity = table.buffer ? table.length : 0;
    if (table.buffer) std::memset(table.buffer.get(), 0, table.length);
    return table.buffer != nullptr;
}

/// One round of the fetch; answers whether another one follows.
inline bool fetchRound(okv::ProcessTable& kernel, const Allocate& allocate, FetchedTable& table) {
    static constexpr std::int32_t kName[] = {okv::kCtlKern, okv::kKernProc, okv::kKernProcAll, 0};
    table.length = 0;
    int result = kernel.sysctl(kName, 3, nullptr, &table.length, nullptr, 0);
    if (result == -1) {
        // Intended: a failure without a reason goes on with the buffer as it stands.
        if (errno != 0) return false;
    } else if (result != 0 || !allocateBuffer(table, allocate)) {
        return false;
    }
    result = kernel.sysctl(kName, 3, table.buffer.get(), &table.length, nullptr, 0);
    if (result == -1) return errno == 0;
    // Intended: the call's own result is compared, not errno.
    if (result != ENOMEM) return false;
    table.buffer.reset();
    table.capacity = 0;
    return true;
}

inline FetchedTable fetchTable(okv::ProcessTable& kernel, const Allocate& allocate) {
    FetchedTable table;
    while (fetchRound(kernel, allocate, table)) {
    }
    return table;
}

/// What "%s" formatting writes, for a null text too.
inline std::string formatted(const char* text) {
    return text != nullptr ? text : "(null)";
}

/// See `getPathName`.
inline char* pathName(okv::ProcessTable& kernel, int pid) {
    constexpr std::uint32_t kNameBytes = 16;
    const std::int32_t name[] = {okv::kCtlKern, okv::kKernProc, okv::kKernProcAll, pid};
    char buffer[1024];
    std::size_t length = sizeof buffer;
    // Intended: the name's size in bytes is passed as its count, which the table refuses.
    const int result = kernel.sysctl(name, kNameBytes, buffer, &length, nullptr, 0);
    if (result != 0 || length == 0 || buffer[0] == '\0') return nullptr;
    return strndup(buffer, sizeof buffer);
}

inline okv::Dictionary recordOf(const okv::ProcessRecord& process, const char* path) {
    okv::Dictionary record;
    record.reserve(6);
    record.insert("pid", process.pid);
    // Ids are 32-bit numbers with a sign here: the highest ones read negative.
    record.insert("uid", static_cast<std::int32_t>(process.realUid));
    record.insert("gid", static_cast<std::int32_t>(process.realGid));
    // Intended: the command name under the key that the other list uses for the bundle's name.
    record.insert("CFBundleName", formatted(process.command));
    record.insert("parentpid", process.parentPid);
    record.insert("BundlePath", formatted(path));
    return record;
}

inline okv::Array processListBSD(okv::ProcessTable& kernel, const Allocate& allocate) {
    const auto table = fetchTable(kernel, allocate);
    const auto count = static_cast<int>(std::min<std::size_t>(table.count(), INT32_MAX - 1));
    okv::Array list;
    list.reserve(static_cast<std::size_t>(count) + 1);
    // Intended: the bound is inclusive, one zero-filled record follows the kernel's last.
    for (int i = 0; i <= count; ++i) {
        const auto process = table.record(static_cast<std::size_t>(i));
        const std::unique_ptr<char, FreeBuffer> path(pathName(kernel, process.pid));
        list.emplace_back(recordOf(process, path.get()));
    }
    return list;
}

inline std::optional<okv::Dictionary> processInfoBSD(const okv::Array& list, int pid) {
    for (const auto& record : list) {
        const auto& fields = record.as<okv::Dictionary>();
        if (fields["pid"].intValue() == pid) return fields;
    }
    return std::nullopt;
}

// ---- The Process Manager's list ----

template <class Manager>
okv::Array processList(Manager& manager) {
    okv::Array list;
    okv::ProcessSerialNumber psn{0, okv::kNoProcess};
    okv::ProcessInfoRec info;
    info.processInfoLength = sizeof(okv::ProcessInfoRec);
    while (manager.GetNextProcess(&psn) != okv::procNotFound) {
        if (psn == okv::ProcessSerialNumber{0, okv::kNoProcess}) break;
        if (manager.GetProcessInformation(&psn, &info) != okv::noErr) continue;
        auto dictionary = manager.ProcessInformationCopyDictionary(
            &psn, okv::kProcessDictionaryIncludeAllInformationMask);
        if (dictionary) list.emplace_back(std::move(*dictionary));
    }
    return list;
}

inline bool equals(const okv::Value& value, std::string_view text) {
    const auto* held = value.getIf<std::string>();
    return held != nullptr && *held == text;
}

/// Whether a record of the list is the application of this name and identifier.
inline bool isApplication(const okv::Value& process, std::string_view name,
                          std::string_view identifier) {
    const auto* record = process.getIf<okv::Dictionary>();
    return record != nullptr && equals((*record)["CFBundleName"], name) &&
           equals((*record)["CFBundleIdentifier"], identifier);
}

inline bool listHolds(const okv::Array& list, std::string_view name, std::string_view identifier) {
    return std::any_of(list.begin(), list.end(), [&](const okv::Value& process) {
        return isApplication(process, name, identifier);
    });
}

inline bool launchMutexCheck(std::string_view name, std::string_view identifier,
                             const std::function<okv::Array()>& processList,
                             const std::function<std::string()>& ownName) {
    // The list is fetched whatever the arguments are.
    const auto list = processList();
    const std::string wanted = name.empty() ? ownName() : std::string(name);
    if (identifier.empty()) return false;
    return listHolds(list, wanted, identifier);
}

// ---- Quitting ----

struct QuitSteps {
    std::function<std::optional<okv::QuitTarget>(const okv::ProcessSerialNumber*)> makeTarget;
    std::function<std::optional<okv::QuitEvent>(const okv::QuitTarget&)> makeEvent;
    std::function<okv::QuitReply(const okv::QuitEvent&, std::int32_t ticks)> send;
};

inline std::int32_t sendQuit(const okv::ProcessSerialNumber* psn, const QuitSteps& steps) {
    constexpr std::int32_t kTicks = 500;
    const auto target = steps.makeTarget(psn);
    // Intended: a target that cannot be made answers 0, an event that cannot be made 1.
    if (!target) return 0;
    const auto event = steps.makeEvent(*target);
    if (!event) return 1;
    const auto reply = steps.send(*event, kTicks);
    if (reply.status != okv::noErr) return reply.status;
    return reply.errorNumber.value_or(0);
}

struct Signals {
    std::function<int(pid_t, int)> kill;
    std::function<void(useconds_t)> usleep;
};

inline bool quitProcess(int pid, const Signals& signals) {
    constexpr int kAttempts = 5;
    constexpr useconds_t kPause = 500;
    if (pid == 0) return true;
    // No process has a negative id; the system would take it for a whole group, or for everybody.
    if (pid < 0 || signals.kill(pid, 0) != 0) return false;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        // Intended: sending is enough, a process that ignores the signal is left alone.
        if (signals.kill(pid, SIGTERM) == 0) return true;
        signals.usleep(kPause);
    }
    return signals.kill(pid, SIGKILL) == 0;
}

// ---- Launching ----

inline std::vector<std::string> argumentTexts(const okv::Array& arguments) {
    std::vector<std::string> texts;
    texts.reserve(arguments.size());
    for (const auto& argument : arguments) {
        const auto* text = argument.getIf<std::string>();
        if (text == nullptr) throw okv::TaskError("okv::Task: an argument is no string", EINVAL);
        texts.push_back(*text);
    }
    return texts;
}

inline std::string chosenFolder(std::string_view workPath, const std::string& programFolder) {
    if (okv::fileExistsAtPath(workPath)) return std::string(workPath);
    return okv::fileExistsAtPath(programFolder) ? programFolder : "/tmp";
}

}  // namespace okvCmnUtilSeams
