#include <OKVDataManager/okvCmnUtil.h>
#include <OKVDataManager/okvCmnUtilSeams.h>
#include <OKVTesting/RuntimeFolder.h>

#include "support/ForkedChild.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "PrivateRoot.h"
#include "unit/process/Support.h"

using okv::OSStatus;
using okv::ProcessSerialNumber;
using processtest::Child;
using support::TempFolder;

namespace {

// ---- Quitting by signals ----

using Sent = std::vector<std::pair<int, int>>;

// A system that refuses as many signals as told, and remembers what it was asked.
struct FakeSignals {
    int refusedTerms = 0;
    bool refusesProbe = false;
    bool refusesKill = false;
    Sent sent = {};
    std::vector<useconds_t> pauses = {};

    bool quit(int pid) {
        return okvCmnUtilSeams::quitProcess(
            pid, {[this](pid_t target, int signal) { return answer(target, signal); },
                  [this](useconds_t pause) { pauses.push_back(pause); }});
    }

private:
    int answer(int pid, int signal) {
        sent.emplace_back(pid, signal);
        if (signal == 0) return refusesProbe ? -1 : 0;
        if (signal == SIGKILL) return refusesKill ? -1 : 0;
        return refusedTerms-- > 0 ? -1 : 0;
    }
};

bool isRunning(pid_t pid) {
    siginfo_t info{};
    const int result = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | WNOHANG);
    return result == 0 && info.si_pid == 0;
}

pid_t reapedProcess() {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

}  // namespace

TEST(QuitProcess, ZeroAnswersYesAndSignalsNothing) {
    FakeSignals signals;
    EXPECT_TRUE(signals.quit(0));
    EXPECT_EQ(signals.sent, Sent());
    EXPECT_TRUE(okvCmnUtil::quitProcesss(0));
}

TEST(QuitProcess, TheFirstSendThatSucceedsEndsIt) {
    FakeSignals signals;
    EXPECT_TRUE(signals.quit(7));
    EXPECT_EQ(signals.sent, (Sent{{7, 0}, {7, SIGTERM}}));
    EXPECT_TRUE(signals.pauses.empty());
}

TEST(QuitProcess, AFailedProbeAnswersNo) {
    FakeSignals signals;
    signals.refusesProbe = true;
    EXPECT_FALSE(signals.quit(7));
    EXPECT_EQ(signals.sent, (Sent{{7, 0}}));
}

TEST(QuitProcess, AFailedSendIsRepeatedAfterAPause) {
    FakeSignals signals;
    signals.refusedTerms = 4;
    EXPECT_TRUE(signals.quit(7));
    EXPECT_EQ(signals.sent,
              (Sent{{7, 0}, {7, SIGTERM}, {7, SIGTERM}, {7, SIGTERM}, {7, SIGTERM}, {7, SIGTERM}}));
    EXPECT_EQ(signals.pauses, std::vector<useconds_t>(4, 500));
}

TEST(QuitProcess, FiveFailedSendsLeadToAKillWhoseOutcomeCounts) {
    for (const bool refused : {false, true}) {
        FakeSignals signals;
        signals.refusedTerms = 5;
        signals.refusesKill = refused;
        EXPECT_EQ(signals.quit(7), !refused);
        EXPECT_EQ(signals.sent.size(), 7U);
        EXPECT_EQ(signals.sent.back(), (std::pair{7, SIGKILL}));
        EXPECT_EQ(signals.pauses.size(), 5U);
    }
}

TEST(QuitProcess, ANegativeIdIsNoProcessAndNeverAGroup) {
    for (const int pid : {-1, -2, INT32_MIN}) {
        FakeSignals signals;
        EXPECT_FALSE(signals.quit(pid));
        EXPECT_EQ(signals.sent, Sent());
    }
}

TEST(QuitProcess, EndsARunningProcess) {
    const Child child(processtest::sleeperPath());
    EXPECT_TRUE(okvCmnUtil::quitProcesss(child.pid()));
    processtest::waitForEnd(child.pid());
}

TEST(QuitProcess, AProcessThatIgnoresTheSignalIsLeftAlone) {
    const auto path = processtest::sleeperPath();
    const Child child(path, {{path, "--ignore-term"}});
    EXPECT_TRUE(okvCmnUtil::quitProcesss(child.pid()));
    kill(child.pid(), SIGUSR1);  // a kill that was under way would come first
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT);
    EXPECT_EQ(info.si_status, SIGUSR1);
}

TEST(QuitProcess, AProcessThatDoesNotExistAnswersNo) {
    EXPECT_FALSE(okvCmnUtil::quitProcesss(reapedProcess()));
}

TEST(QuitProcess, AnotherUsersProcessAnswersNo) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const Child child(processtest::sleeperPath());
    const int outcome = support::outcomeInAChild([&] {
        if (setuid(processtest::kNobody) != 0) return 2;
        return okvCmnUtil::quitProcesss(child.pid()) ? 1 : 0;
    });
    EXPECT_EQ(outcome, 0);
    EXPECT_TRUE(isRunning(child.pid()));
}

TEST(QuitProcess, RootEndsAnotherUsersProcess) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const TempFolder folder;
    const auto path = folder.copyExecutable(processtest::sleeperPath(), "sleeper");
    const Child child(path, {{path}, processtest::kNobody});
    ASSERT_TRUE(child.isReady());
    EXPECT_TRUE(okvCmnUtil::quitProcesss(child.pid()));
    processtest::waitForEnd(child.pid());
}

// ---- Quitting by request ----

namespace {

struct FakeEvents {
    bool refusesTarget = false;
    bool refusesEvent = false;
    okv::QuitReply reply = {};
    int sent = 0;
    std::int32_t ticks = 0;

    std::int32_t quit() {
        const ProcessSerialNumber psn{0, 42};
        return okvCmnUtilSeams::sendQuit(
            &psn, {[this](const ProcessSerialNumber* target) {
                       return refusesTarget ? std::nullopt : okv::makeQuitTarget(target);
                   },
                   [this](const okv::QuitTarget& target) {
                       return refusesEvent ? std::nullopt : okv::makeQuitEvent(target);
                   },
                   [this](const okv::QuitEvent& event, std::int32_t timeOut) {
                       EXPECT_EQ(event.target.pid, 42);
                       ++sent;
                       ticks = timeOut;
                       return reply;
                   }});
    }
};

}  // namespace

TEST(SendQuit, ATargetThatCannotBeMadeAnswersZeroAndAnEventOne) {
    FakeEvents noTarget;
    noTarget.refusesTarget = true;
    EXPECT_EQ(noTarget.quit(), 0);
    FakeEvents noEvent;
    noEvent.refusesEvent = true;
    EXPECT_EQ(noEvent.quit(), 1);
    EXPECT_EQ(noTarget.sent + noEvent.sent, 0);
}

TEST(SendQuit, WaitsFiveHundredTicks) {
    FakeEvents events;
    EXPECT_EQ(events.quit(), 0);
    EXPECT_EQ(events.ticks, 500);
}

TEST(SendQuit, AFailedSendingAnswersItsStatus) {
    for (const OSStatus status : {-600, -1712, 5}) {
        FakeEvents events;
        events.reply = {status, 9};
        EXPECT_EQ(events.quit(), status);
    }
}

TEST(SendQuit, TheRepliedErrorNumberIsPassedOn) {
    for (const std::int32_t error : {-128, 1, INT32_MIN, INT32_MAX, 0}) {
        FakeEvents events;
        events.reply.errorNumber = error;
        EXPECT_EQ(events.quit(), error);
    }
}

TEST(SendQuit, AMissingSerialNumberAnswersZero) {
    EXPECT_EQ(okvCmnUtil::sendQuitAppleEvent(nullptr), 0);
}

TEST(SendQuit, AProcessIdWithoutAProcessAnswersZero) {
    for (const int pid : {reapedProcess(), 0, -1, INT32_MAX})
        EXPECT_EQ(okvCmnUtil::sendQuitAppleEventForPid(pid), 0);
}

TEST(SendQuit, AProcessThatHasEndedAnswersZero) {
    const Child child(processtest::sleeperPath());
    child.end();
    EXPECT_EQ(okvCmnUtil::sendQuitAppleEventForPid(child.pid()), 0);
}

TEST(SendQuit, AProcessThatDoesNotListenIsNotFound) {
    const Child child(processtest::sleeperPath());
    EXPECT_EQ(okvCmnUtil::sendQuitAppleEventForPid(child.pid()), okv::procNotFound);
    const ProcessSerialNumber nobody{};
    EXPECT_EQ(okvCmnUtil::sendQuitAppleEvent(&nobody), okv::procNotFound);
    EXPECT_TRUE(isRunning(child.pid()));
}

TEST(SendQuit, ReachesAnApplicationThatListens) {
    const okv::testing::RuntimeFolder runtime;
    const std::string path = OKV_TEST_QUITTING_APPLICATION;
    const Child accepting(path);
    const Child declining(path, {{path, "--reply", "-128"}});
    EXPECT_EQ(okvCmnUtil::sendQuitAppleEventForPid(accepting.pid()), 0);
    processtest::waitForEnd(accepting.pid());
    EXPECT_EQ(okvCmnUtil::sendQuitAppleEventForPid(declining.pid()), -128);
    const ProcessSerialNumber psn{0, static_cast<std::uint32_t>(declining.pid())};
    EXPECT_EQ(okvCmnUtil::sendQuitAppleEvent(&psn), -128);
    EXPECT_TRUE(isRunning(declining.pid()));
}

TEST(SendQuit, ASenderWithoutDescriptorsAnswersAStatusOfItsOwn) {
    if (support::kIsAddressSanitized) GTEST_SKIP() << "its checks of types take descriptors, too";
    const okv::testing::RuntimeFolder runtime;
    const Child listening(OKV_TEST_QUITTING_APPLICATION);
    const ProcessSerialNumber psn{0, static_cast<std::uint32_t>(listening.pid())};
    const int outcome = support::outcomeInAChild([&] {
        for (unsigned left = 0; left < 4; ++left) {
            processtest::leaveDescriptors(left);
            if (okvCmnUtil::sendQuitAppleEvent(&psn) != okv::tmfoErr) return 1;
        }
        return 0;
    });
    EXPECT_EQ(outcome, 0);
    EXPECT_TRUE(isRunning(listening.pid()));
}

// ---- Launching ----

namespace {

constexpr std::int32_t kUntouched = -77;

// Runs a shell script to its end; answers the result and checks the id.
bool runScript(const std::string& script, const std::string& workPath) {
    std::int32_t pid = kUntouched;
    const bool result = okvCmnUtil::launchApp_argument_sync_workPath_processId(
        "/bin/sh", {"-c", script}, true, workPath, &pid);
    EXPECT_EQ(result, pid > 0);
    return result;
}

struct Launch {
    bool result;
    std::int32_t pid;
    friend bool operator==(const Launch&, const Launch&) = default;
};

Launch launch(std::string_view path) {
    std::int32_t pid = kUntouched;
    const bool result =
        okvCmnUtil::launchApp_argument_sync_workPath_processId(path, {}, true, "/", &pid);
    return {result, pid};
}

// The folder that a process is run in when the given one is missing, as a process of a private
// root sees it; "skip" when there is no right to make one.
std::string folderChosenInPrivateRoot(bool hasProgramFolder) {
    const TempFolder answers;
    const auto outcome = support::outcomeInAChild([&] {
        if (!privateroot::enter()) return 77;
        if (hasProgramFolder) std::filesystem::create_directories(okvCmnUtil::appBinPath());
        return runScript("pwd > '" + answers.path() + "/pwd'", "/missing") ? 0 : 1;
    });
    if (outcome == 77) return "skip";
    EXPECT_EQ(outcome, 0);
    return support::bytesOf(answers / "pwd");
}

}  // namespace

TEST(LaunchApp, RunsTheExecutableWithItsArgumentsInTheFolder) {
    const TempFolder folder;
    std::int32_t pid = kUntouched;
    EXPECT_TRUE(okvCmnUtil::launchApp_argument_sync_workPath_processId(
        "/bin/sh", {"-c", "pwd > out; echo \"$0|$1\" >> out; echo $$ >> out", "a b", ""}, true,
        folder.path(), &pid));
    EXPECT_EQ(support::bytesOf(folder / "out"),
              folder.path() + "\na b|\n" + std::to_string(pid) + "\n");
}

TEST(LaunchApp, NoPathOrNothingThereAnswersNoAndLeavesTheIdUntouched) {
    const TempFolder folder;
    EXPECT_EQ(launch(""), (Launch{false, kUntouched}));
    EXPECT_EQ(launch(folder / "missing"), (Launch{false, kUntouched}));
    EXPECT_EQ(launch(std::string_view("/bin/sh\0x", 9)), (Launch{false, kUntouched}));
    // No folder is put in front of the path.
    EXPECT_EQ(launch("sh"), (Launch{false, kUntouched}));
}

TEST(LaunchApp, WhatExistsButCannotBeExecutedThrowsAndLeavesTheIdUntouched) {
    const TempFolder folder;
    for (const auto& path : {folder.path(), folder.write("text", "hello")}) {
        std::int32_t pid = kUntouched;
        EXPECT_THROW(
            okvCmnUtil::launchApp_argument_sync_workPath_processId(path, {}, true, "/tmp", &pid),
            okv::TaskError);
        EXPECT_EQ(pid, kUntouched);
    }
}

TEST(LaunchApp, AFolderThatIsAFileIsTakenAndThrows) {
    const TempFolder folder;
    EXPECT_THROW(runScript("true", folder.write("file", "")), okv::TaskError);
}

TEST(LaunchApp, AnArgumentThatIsNoTextThrows) {
    std::int32_t pid = kUntouched;
    EXPECT_THROW(okvCmnUtil::launchApp_argument_sync_workPath_processId("/bin/sh", {"-c", 1}, true,
                                                                        "/tmp", &pid),
                 okv::TaskError);
    EXPECT_EQ(pid, kUntouched);
}

TEST(LaunchApp, WithoutTheFlagReturnsWhileTheProcessRuns) {
    std::int32_t pid = kUntouched;
    EXPECT_TRUE(okvCmnUtil::launchApp_argument_sync_workPath_processId(processtest::sleeperPath(),
                                                                       {}, false, "/", &pid));
    EXPECT_TRUE(isRunning(pid));
    EXPECT_TRUE(okvCmnUtil::processInfoBSD(pid));
    EXPECT_TRUE(okvCmnUtil::quitProcesss(pid));
    processtest::waitForEnd(pid);
    // It has ended and nobody waits for it: whoever looks next does not find it.
    EXPECT_FALSE(okvCmnUtil::quitProcesss(pid));
    EXPECT_FALSE(okvCmnUtil::processInfoBSD(pid));
}

TEST(LaunchApp, StandardErrorIsAPipeThatNobodyReadsAndTheOthersAreInherited) {
    std::int32_t pid = kUntouched;
    ASSERT_TRUE(okvCmnUtil::launchApp_argument_sync_workPath_processId(processtest::sleeperPath(),
                                                                       {}, false, "/", &pid));
    const auto folder = "/proc/" + std::to_string(pid) + "/fd/";
    const auto target = [&](int fd) {
        return std::filesystem::read_symlink(folder + std::to_string(fd)).string();
    };
    EXPECT_TRUE(target(2).starts_with("pipe:"));
    EXPECT_EQ(target(0), std::filesystem::read_symlink("/proc/self/fd/0"));
    EXPECT_EQ(target(1), std::filesystem::read_symlink("/proc/self/fd/1"));
    EXPECT_TRUE(okvCmnUtil::quitProcesss(pid));
    processtest::waitForEnd(pid);
}

TEST(LaunchApp, AMissingFolderGivesWayToTheProgramFolder) {
    const auto chosen = folderChosenInPrivateRoot(true);
    if (chosen == "skip") GTEST_SKIP() << "no right to make a mount namespace";
    EXPECT_EQ(chosen, "/Library/Application Support/NRM/okv6/bin\n");
}

TEST(LaunchApp, AMissingProgramFolderGivesWayToTmp) {
    const auto chosen = folderChosenInPrivateRoot(false);
    if (chosen == "skip") GTEST_SKIP() << "no right to make a mount namespace";
    EXPECT_EQ(chosen, "/tmp\n");
}

TEST(LaunchApp, ChoosesTheFolderByWhatExists) {
    const TempFolder folder;
    const auto missing = folder / "missing";
    const auto file = folder.write("file", "");
    using okvCmnUtilSeams::chosenFolder;
    EXPECT_EQ(chosenFolder(folder.path(), file), folder.path());
    EXPECT_EQ(chosenFolder(file, folder.path()), file);
    EXPECT_EQ(chosenFolder(missing, folder.path()), folder.path());
    EXPECT_EQ(chosenFolder("", folder.path()), folder.path());
    EXPECT_EQ(chosenFolder(missing, missing), "/tmp");
}

TEST(LaunchApp, WithTheFlagWaitsForTheEndAndAnswersYesHoweverItEnds) {
    std::int32_t pid = kUntouched;
    EXPECT_TRUE(okvCmnUtil::launchApp_argument_sync_workPath_processId("/bin/sh", {"-c", "exit 3"},
                                                                       true, "/", &pid));
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "it runs, or was not reaped";
}
