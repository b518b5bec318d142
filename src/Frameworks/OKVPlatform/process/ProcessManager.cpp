#include <OKVPlatform/process/ProcFolder.h>
#include <OKVPlatform/process/ProcessManager.h>
#include <OKVPlatform/process/ProcessStatus.h>
#include <OKVPlatform/system/Bundle.h>
#include <OKVPlatform/values/PropertyListFile.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

namespace okv {

namespace {

// An executable may be started through a link that lies outside its bundle; the kernel would have
// told where the link leads.
std::string resolved(std::string path) {
    struct Free {
        void operator()(char* text) const noexcept { std::free(text); }
    };
    const std::unique_ptr<char, Free> target(realpath(path.c_str(), nullptr));
    return target ? std::string(target.get()) : std::move(path);
}

std::string claimedExecutable(const ProcFolder& folder, int pid) {
    char buffer[PATH_MAX];
    const auto commandLine = folder.read(pid, "cmdline", buffer);
    if (!commandLine) return {};
    const auto argument = absoluteFirstArgument(*commandLine);
    // A path that fills the buffer was cut: what it would lead to is not known.
    if (argument.size() == sizeof buffer) return {};
    return argument.empty() ? std::string() : resolved(std::string(argument));
}

std::string executableOf(const ProcFolder& folder, int pid) {
    char buffer[PATH_MAX + 16];
    if (const auto target = folder.readLink(pid, "exe", buffer)) return std::string(*target);
    const bool isHidden = errno == EACCES || errno == EPERM;
    return isHidden ? claimedExecutable(folder, pid) : std::string();
}

struct Application {
    std::int32_t pid = 0;
    std::string executable;
    std::string bundle;
};

std::optional<Application> applicationOf(const ProcFolder& folder, int pid) {
    auto executable = executableOf(folder, pid);
    const auto bundle = bundlePathOf(executable);
    if (bundle.empty()) return std::nullopt;
    return Application{pid, executable, std::string(bundle)};
}

bool canName(const ProcessSerialNumber* psn) noexcept {
    return psn != nullptr && psn->highLongOfPSN == 0 && psn->lowLongOfPSN != kNoProcess &&
           psn->lowLongOfPSN <= INT32_MAX;
}

std::optional<Application> applicationOf(const std::string& procRoot,
                                         const ProcessSerialNumber* psn) {
    if (!canName(psn)) return std::nullopt;
    const ProcFolder folder(procRoot);
    if (!folder.isOpen()) return std::nullopt;
    return applicationOf(folder, static_cast<int>(psn->lowLongOfPSN));
}

std::string lastComponent(std::string_view path) {
    return std::string(path.substr(path.rfind('/') + 1));
}

}  // namespace

ProcessManager::ProcessManager(std::string procRoot, PropertyListReader reader)
    : procRoot_(std::move(procRoot)), reader_(std::move(reader)) {}

void ProcessManager::takeSnapshot() {
    pids_.clear();
    ProcFolder folder(procRoot_);
    if (!folder.isOpen()) return;
    pids_.reserve(folder.countHint());
    while (const int pid = folder.nextPid()) pids_.push_back(pid);
    std::sort(pids_.begin(), pids_.end());
}

OSStatus ProcessManager::GetNextProcess(ProcessSerialNumber* psn) {
    if (psn == nullptr) return paramErr;
    if (*psn == ProcessSerialNumber{}) takeSnapshot();
    const std::int64_t last = psn->lowLongOfPSN;
    *psn = {};
    const ProcFolder folder(procRoot_);
    if (!folder.isOpen()) return procNotFound;
    for (auto next = std::upper_bound(pids_.begin(), pids_.end(), last); next != pids_.end();
         ++next) {
        if (!applicationOf(folder, *next)) continue;
        *psn = {0, static_cast<std::uint32_t>(*next)};
        return noErr;
    }
    return procNotFound;
}

OSStatus ProcessManager::GetProcessInformation(const ProcessSerialNumber* psn,
                                               ProcessInfoRec* info) const {
    if (info == nullptr || info->processInfoLength != sizeof(ProcessInfoRec)) return paramErr;
    const auto application = applicationOf(procRoot_, psn);
    if (!application) return procNotFound;
    if (info->processName != nullptr) *info->processName = lastComponent(application->executable);
    if (info->processAppRef != nullptr) *info->processAppRef = application->bundle;
    info->processNumber = *psn;
    return noErr;
}

std::optional<Dictionary> ProcessManager::ProcessInformationCopyDictionary(
    const ProcessSerialNumber* psn, std::uint32_t infoToReturn) const {
    if (infoToReturn != kProcessDictionaryIncludeAllInformationMask) return std::nullopt;
    const auto application = applicationOf(procRoot_, psn);
    if (!application || !reader_) return std::nullopt;
    auto information = reader_(application->bundle + "/Contents/Info.plist");
    auto* dictionary = information.getIf<Dictionary>();
    if (dictionary == nullptr) return std::nullopt;
    dictionary->set("pid", application->pid);
    dictionary->set("BundlePath", application->bundle);
    return std::move(*dictionary);
}

OSStatus ProcessManager::GetProcessForPID(std::int32_t pid, ProcessSerialNumber* psn) const {
    if (pid <= 0 || psn == nullptr) return procNotFound;
    const ProcFolder folder(procRoot_);
    if (!folder.isOpen()) return procNotFound;
    char buffer[kStatusHead];
    const auto text = folder.read(pid, "status", buffer);
    const auto status = text ? parseProcessStatus(*text) : std::nullopt;
    // The kernel also answers under the id of any thread; only the process itself counts.
    if (!status || status->threadGroup != pid || status->hasEnded()) return procNotFound;
    *psn = {0, static_cast<std::uint32_t>(pid)};
    return noErr;
}

PropertyListReader ProcessManager::defaultReader() {
    return [](const std::string& path) {
        return readPropertyListFile(path, kInformationAtMost).value.value_or(Value());
    };
}

}  // namespace okv
