#include <OKVPlatform/process/ProcessManager.h>

#include "support/ForkedChild.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "Support.h"

using okv::Dictionary;
using okv::ProcessInfoRec;
using okv::ProcessManager;
using okv::ProcessSerialNumber;
using okv::Value;
using processtest::Child;
using support::TempFolder;

namespace {

constexpr auto kEverything = okv::kProcessDictionaryIncludeAllInformationMask;

// Stands for a bundle whose Info.plist names nothing but its own path.
Value pathReader(const std::string& path) {
    return Dictionary{{"path", path}};
}

void addProcess(const TempFolder& root, int pid, const std::string& executable) {
    const auto folder = root.makeFolder(std::to_string(pid));
    std::filesystem::create_symlink(executable, folder + "/exe");
}

std::vector<std::uint32_t> walk(ProcessManager& manager) {
    std::vector<std::uint32_t> pids;
    ProcessSerialNumber psn{0, okv::kNoProcess};
    while (manager.GetNextProcess(&psn) != okv::procNotFound) pids.push_back(psn.lowLongOfPSN);
    EXPECT_EQ(psn, ProcessSerialNumber{});
    return pids;
}

ProcessSerialNumber psnOf(int pid) {
    return {0, static_cast<std::uint32_t>(pid)};
}

Dictionary dictionaryOf(int pid, const okv::PropertyListReader& reader = pathReader) {
    const auto psn = psnOf(pid);
    return ProcessManager("/proc", reader)
        .ProcessInformationCopyDictionary(&psn, kEverything)
        .value_or(Dictionary{});
}

// The bundle's path as an account without rights sees the process; empty when it sees none.
std::string bundleSeenByNobody(int pid) {
    const TempFolder answers;
    std::filesystem::permissions(answers.path(), std::filesystem::perms::all);
    support::outcomeInAChild([&] {
        if (setgid(processtest::kNobody) != 0 || setuid(processtest::kNobody) != 0) return 1;
        const auto dictionary = dictionaryOf(pid);
        if (!dictionary.empty())
            answers.write("bundle", dictionary["BundlePath"].as<std::string>());
        return 0;
    });
    return support::bytesOf(answers / "bundle");
}

}  // namespace

TEST(ProcessManager, WalksTheApplicationsAlone) {
    const TempFolder root;
    addProcess(root, 30, "/x/C.app/Contents/Linux/C");
    addProcess(root, 4, "/x/A.app/Contents/Linux/A");
    addProcess(root, 5, "/usr/bin/tool");
    addProcess(root, 200, "/x/A.app/Contents/Linux/A");
    root.makeFolder("6");
    ProcessManager manager(root.path(), pathReader);
    EXPECT_EQ(walk(manager), (std::vector<std::uint32_t>{4, 30, 200}));
}

TEST(ProcessManager, AWalkFromTheStartSeesWhatCameMeanwhile) {
    const TempFolder root;
    ProcessManager manager(root.path(), pathReader);
    EXPECT_TRUE(walk(manager).empty());
    addProcess(root, 4, "/x/A.app/Contents/Linux/A");
    EXPECT_EQ(walk(manager), (std::vector<std::uint32_t>{4}));
}

TEST(ProcessManager, AProcessThatVanishesDuringTheWalkIsPassedOver) {
    const TempFolder root;
    for (int pid : {4, 5, 6}) addProcess(root, pid, "/x/A.app/Contents/Linux/A");
    ProcessManager manager(root.path(), pathReader);
    ProcessSerialNumber psn;
    EXPECT_EQ(manager.GetNextProcess(&psn), okv::noErr);
    std::filesystem::remove_all(root / "4");
    std::filesystem::remove_all(root / "5");
    ProcessInfoRec info;
    EXPECT_EQ(manager.GetProcessInformation(&psn, &info), okv::procNotFound);
    EXPECT_FALSE(manager.ProcessInformationCopyDictionary(&psn, kEverything));
    EXPECT_EQ(manager.GetNextProcess(&psn), okv::noErr);
    EXPECT_EQ(psn, psnOf(6));
}

TEST(ProcessManager, AMissingFolderHasNoProcesses) {
    const TempFolder root;
    ProcessManager manager(root / "missing", pathReader);
    EXPECT_TRUE(walk(manager).empty());
}

TEST(ProcessManager, TellsNameAndBundleOfAProcess) {
    const TempFolder root;
    addProcess(root, 4, "/x/A.app/Contents/Linux/tool");
    const ProcessManager manager(root.path(), pathReader);
    std::string name;
    std::string bundle;
    ProcessInfoRec info{sizeof(ProcessInfoRec), &name, &bundle, {}};
    const auto psn = psnOf(4);
    EXPECT_EQ(manager.GetProcessInformation(&psn, &info), okv::noErr);
    EXPECT_EQ(name, "tool");
    EXPECT_EQ(bundle, "/x/A.app");
    EXPECT_EQ(info.processNumber, psn);
}

TEST(ProcessManager, BadArgumentsAreRefused) {
    const TempFolder root;
    addProcess(root, 4, "/x/A.app/Contents/Linux/A");
    ProcessManager manager(root.path(), pathReader);
    const auto psn = psnOf(4);
    ProcessInfoRec shortRecord;
    shortRecord.processInfoLength = 4;
    EXPECT_EQ(manager.GetProcessInformation(&psn, &shortRecord), okv::paramErr);
    EXPECT_EQ(manager.GetProcessInformation(&psn, nullptr), okv::paramErr);
    EXPECT_EQ(manager.GetNextProcess(nullptr), okv::paramErr);
    EXPECT_FALSE(manager.ProcessInformationCopyDictionary(nullptr, kEverything));
    EXPECT_FALSE(manager.ProcessInformationCopyDictionary(&psn, 1));
    const ProcessSerialNumber high{1, 4};
    const ProcessSerialNumber beyond{0, 0x80000004U};
    EXPECT_FALSE(manager.ProcessInformationCopyDictionary(&high, kEverything));
    EXPECT_FALSE(manager.ProcessInformationCopyDictionary(&beyond, kEverything));
}

TEST(ProcessManager, GivesTheBundlesKeysThenPidAndBundlePath) {
    const TempFolder root;
    addProcess(root, 4, "/x/A.app/Contents/Linux/A");
    const auto psn = psnOf(4);
    const ProcessManager manager(root.path(), pathReader);
    EXPECT_EQ(
        manager.ProcessInformationCopyDictionary(&psn, kEverything),
        (Dictionary{
            {"path", "/x/A.app/Contents/Info.plist"}, {"pid", 4}, {"BundlePath", "/x/A.app"}}));
}

TEST(ProcessManager, ABundleCannotChooseItsPidOrPath) {
    const TempFolder root;
    addProcess(root, 4, "/x/A.app/Contents/Linux/A");
    const auto psn = psnOf(4);
    const ProcessManager manager(root.path(), [](const std::string&) {
        return Dictionary{{"pid", 1}, {"BundlePath", "/sbin"}};
    });
    EXPECT_EQ(manager.ProcessInformationCopyDictionary(&psn, kEverything),
              (Dictionary{{"pid", 4}, {"BundlePath", "/x/A.app"}}));
}

TEST(ProcessManager, ABundleWithoutADictionaryHasNoInformation) {
    const TempFolder root;
    addProcess(root, 4, "/x/A.app/Contents/Linux/A");
    const auto psn = psnOf(4);
    for (const Value& read : {Value(), Value("text"), Value(okv::Array{1})}) {
        const ProcessManager manager(root.path(), [&](const std::string&) { return read; });
        EXPECT_FALSE(manager.ProcessInformationCopyDictionary(&psn, kEverything));
    }
}

TEST(ProcessManager, FindsARunningApplicationByItsExecutable) {
    const TempFolder folder;
    const Child child(
        folder.copyExecutable(processtest::sleeperPath(), "My App.app/Contents/Linux/My App"));
    EXPECT_EQ(dictionaryOf(child.pid())["BundlePath"], Value(folder / "My App.app"));
    ProcessManager manager("/proc", pathReader);
    const auto pids = walk(manager);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), static_cast<std::uint32_t>(child.pid())), 1);
}

TEST(ProcessManager, StillFindsAnApplicationWhoseExecutableWasReplaced) {
    const TempFolder folder;
    const auto path = folder.copyExecutable(processtest::sleeperPath(), "A.app/Contents/Linux/A");
    const Child child(path);
    std::filesystem::remove(path);
    EXPECT_EQ(dictionaryOf(child.pid())["BundlePath"], Value(folder / "A.app"));
}

TEST(ProcessManager, BelievesTheKernelBeforeTheFirstArgument) {
    const TempFolder folder;
    const auto path = folder.copyExecutable(processtest::sleeperPath(), "plain");
    const Child child(path, {{folder / "A.app/Contents/Linux/A"}});
    EXPECT_TRUE(dictionaryOf(child.pid()).empty());
}

TEST(ProcessManager, FindsAnotherUsersApplicationByItsFirstArgument) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const TempFolder folder;
    const auto path = folder.copyExecutable(processtest::sleeperPath(), "A.app/Contents/Linux/A");
    const Child child(path);
    EXPECT_EQ(bundleSeenByNobody(child.pid()), folder / "A.app");
}

TEST(ProcessManager, FollowsTheFirstArgumentThroughALink) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const TempFolder folder;
    const auto path = folder.copyExecutable(processtest::sleeperPath(), "A.app/Contents/Linux/A");
    std::filesystem::create_symlink(path, folder / "A");
    const Child child(folder / "A");
    EXPECT_EQ(bundleSeenByNobody(child.pid()), folder / "A.app");
}

TEST(ProcessManager, ARelativeFirstArgumentOfAnotherUserTellsNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const TempFolder folder;
    const auto path = folder.copyExecutable(processtest::sleeperPath(), "A.app/Contents/Linux/A");
    const Child child(path, {{"A.app/Contents/Linux/A"}});
    EXPECT_EQ(bundleSeenByNobody(child.pid()), "");
}

TEST(ProcessManager, FindsAnApplicationOfAnUnprivilegedUser) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const TempFolder folder;
    const auto path = folder.copyExecutable(processtest::sleeperPath(), "A.app/Contents/Linux/A");
    const Child child(path, {{path}, processtest::kNobody});
    ASSERT_TRUE(child.isReady());
    EXPECT_EQ(dictionaryOf(child.pid())["BundlePath"], Value(folder / "A.app"));
}

TEST(ProcessManager, NamesAnyRunningProcess) {
    ProcessSerialNumber psn;
    EXPECT_EQ(ProcessManager().GetProcessForPID(getpid(), &psn), okv::noErr);
    EXPECT_EQ(psn, psnOf(getpid()));
}

TEST(ProcessManager, AnIdWithoutAProcessIsNotFound) {
    const ProcessManager manager;
    ProcessSerialNumber psn{7, 7};
    for (const int pid : {0, -1, INT32_MIN, INT32_MAX})
        EXPECT_EQ(manager.GetProcessForPID(pid, &psn), okv::procNotFound);
    EXPECT_EQ(manager.GetProcessForPID(getpid(), nullptr), okv::procNotFound);
    EXPECT_EQ(psn, (ProcessSerialNumber{7, 7}));
}

TEST(ProcessManager, AZombieDoesNotRun) {
    const Child child(processtest::sleeperPath());
    ProcessSerialNumber psn;
    EXPECT_EQ(ProcessManager().GetProcessForPID(child.pid(), &psn), okv::noErr);
    child.end();
    EXPECT_EQ(ProcessManager().GetProcessForPID(child.pid(), &psn), okv::procNotFound);
}

TEST(ProcessManager, AThreadIsNoProcess) {
    okv::OSStatus outcome = okv::noErr;
    std::thread([&] {
        ProcessSerialNumber psn;
        const auto id = static_cast<int>(syscall(SYS_gettid));
        outcome = ProcessManager().GetProcessForPID(id, &psn);
    }).join();
    EXPECT_EQ(outcome, okv::procNotFound);
}
