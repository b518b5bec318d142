#include <OKVDataManager/okvCmnUtil.h>
#include <OKVDataManager/okvCmnUtilSeams.h>
#include <OKVPlatform/process/ProcessTable.h>
#include <OKVPlatform/process/QuitEvent.h>
#include <OKVPlatform/process/Task.h>

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

// ---- Maintenance settings and log switches ----

// ---- Date and time ----

// ---- Process inspection ----

std::int32_t okvCmnUtil::processID() {
    return getpid();
}

std::string okvCmnUtil::processName() {
    return program_invocation_short_name;
}

std::string okvCmnUtil::processUserName() {
    passwd account{};
    passwd* found = nullptr;
    std::vector<char> texts(1024);
    while (getpwuid_r(getuid(), &account, texts.data(), texts.size(), &found) == ERANGE)
        texts.resize(texts.size() * 2);
    return found != nullptr ? found->pw_name : "";
}

bool okvCmnUtil::launchMutexCheck_BundleIdentifer(std::string_view name,
                                                  std::string_view bundleIdentifier) {
    return okvCmnUtilSeams::launchMutexCheck(name, bundleIdentifier, processList, processName);
}

std::optional<okv::Dictionary> okvCmnUtil::processInfoBSD(std::int32_t pid) {
    return okvCmnUtilSeams::processInfoBSD(processListBSD(), pid);
}

okv::Array okvCmnUtil::processListBSD() {
    // Children that have ended are no processes to anybody but the kernel.
    okv::Task::reapFinished();
    okv::KernelProcessTable kernel;
    return okvCmnUtilSeams::processListBSD(kernel, std::malloc);
}

okv::Array okvCmnUtil::processList() {
    okv::Task::reapFinished();
    okv::ProcessManager manager;
    return okvCmnUtilSeams::processList(manager);
}

char* getPathName(int pid) {
    okv::KernelProcessTable kernel;
    return okvCmnUtilSeams::pathName(kernel, pid);
}

// ---- Launching and quitting applications ----

std::int32_t okvCmnUtil::sendQuitAppleEventForPid(std::int32_t pid) {
    okv::Task::reapFinished();
    okv::ProcessSerialNumber psn;
    // Intended: a process that is not there has quit, its look-up's own error is not passed on.
    if (okv::ProcessManager().GetProcessForPID(pid, &psn) != okv::noErr) return 0;
    return sendQuitAppleEvent(&psn);
}

std::int32_t okvCmnUtil::sendQuitAppleEvent(const okv::ProcessSerialNumber* psn) {
    return okvCmnUtilSeams::sendQuit(psn,
                                     {okv::makeQuitTarget, okv::makeQuitEvent, okv::sendQuitEvent});
}

bool okvCmnUtil::quitProcesss(std::int32_t pid) {
    okv::Task::reapFinished();
    return okvCmnUtilSeams::quitProcess(pid, {::kill, ::usleep});
}

bool okvCmnUtil::launchApp_argument_sync_workPath_processId(std::string_view path,
                                                            const okv::Array& arguments, bool sync,
                                                            std::string_view workPath,
                                                            std::int32_t* processId) {
    if (!okvCmnUtilSeams::existsAt(path)) return false;
    okv::Task task;
    task.pipeStandardError();
    task.setLaunchPath(std::string(path));
    task.setCurrentDirectoryPath(okvCmnUtilSeams::chosenFolder(workPath, appBinPath()));
    task.setArguments(okvCmnUtilSeams::argumentTexts(arguments));
    task.launch();
    if (sync) task.waitUntilExit();
    *processId = task.processIdentifier();
    return *processId > 0;
}

// ---- Category data and byte buffers ----

// ---- Identifier prefixes and localisation ----

// ---- Installation layout, file information and user agent ----

std::string okvCmnUtil::appBinPath() {
    return "/Library/Application Support/NRM/okv6/bin/";
}

// ---- Published connections and bulk release ----
