#include <OKVPlatform/process/Task.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Support.h"
#include "support/ForkedChild.h"

using okv::Task;
using okv::TaskError;
using support::bytesOf;
using support::TempFolder;

namespace {

Task shell(const std::string& script, const TempFolder& folder) {
    Task task;
    task.setLaunchPath("/bin/sh");
    task.setArguments({"-c", script});
    task.setCurrentDirectoryPath(folder.path());
    return task;
}

void runShell(const std::string& script, const TempFolder& folder) {
    auto task = shell(script, folder);
    task.launch();
    task.waitUntilExit();
}

// The error of a launch that fails; 0 when it does not.
int launchError(Task& task) {
    try {
        task.launch();
    } catch (const TaskError& error) {
        return error.error();
    }
    return 0;
}

int launchError(const std::string& path) {
    Task task;
    task.setLaunchPath(path);
    return launchError(task);
}

bool isChildOfOurs(pid_t pid) {
    return waitpid(pid, nullptr, WNOHANG) == 0 || errno != ECHILD;
}

// Our descriptor for the other end of a child's standard error; -1 when there is none.
int otherEndOfErrors(pid_t child) {
    namespace fs = std::filesystem;
    const auto pipe = fs::read_symlink("/proc/" + std::to_string(child) + "/fd/2");
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd"))
        if (fs::read_symlink(entry, ignored) == pipe) return std::stoi(entry.path().filename());
    return -1;
}

// The signals 1 to 31 of a line of /proc/PID/status.
unsigned long signalsIn(const std::string& status, const std::string& key) {
    return std::stoul(status.substr(status.find(key) + key.size()), nullptr, 16) & 0x7FFFFFFFU;
}

// Waits until the process is found inside a write.
bool comesToBlockInAWrite(pid_t pid) {
    const auto wanted = std::to_string(SYS_write) + " ";
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
        if (bytesOf("/proc/" + std::to_string(pid) + "/syscall").starts_with(wanted)) return true;
        std::this_thread::yield();
    }
    return false;
}

}  // namespace

TEST(Task, RunsAnExecutableWithItsArgumentsInItsFolder) {
    const TempFolder folder;
    Task task;
    task.setLaunchPath("/bin/sh");
    task.setArguments({"-c", R"(printf '%s|' "$0" "$@" > out; pwd >> out)", "a b", "", "c'\n\xff"});
    task.setCurrentDirectoryPath(folder.path());
    task.launch();
    EXPECT_GT(task.processIdentifier(), 0);
    task.waitUntilExit();
    EXPECT_EQ(bytesOf(folder / "out"), "a b||c'\n\xff|" + folder.path() + "\n");
}

TEST(Task, WritesItsLaunchPathAsTheFirstArgument) {
    const TempFolder folder;
    runShell("tr '\\0' '\\n' < /proc/$$/cmdline > out", folder);
    EXPECT_TRUE(bytesOf(folder / "out").starts_with("/bin/sh\n-c\n"));
}

TEST(Task, ARelativePathIsRelativeToTheLauncherNotToTheChild) {
    const TempFolder folder;
    folder.copyExecutable("/bin/sh", "here/tool");
    folder.makeFolder("there");
    const int outcome = support::outcomeInAChild([&] {
        if (chdir((folder / "here").c_str()) != 0) return 1;
        Task task;
        task.setLaunchPath("tool");
        task.setArguments({"-c", "pwd > out"});
        task.setCurrentDirectoryPath(folder / "there");
        task.launch();
        task.waitUntilExit();
        return 0;
    });
    EXPECT_EQ(outcome, 0);
    EXPECT_EQ(bytesOf(folder / "there/out"), folder / "there\n");
}

TEST(Task, HasNoProcessBeforeItIsLaunched) {
    Task task;
    EXPECT_EQ(task.processIdentifier(), 0);
    task.waitUntilExit();
}

TEST(Task, WhatCannotBeExecutedThrows) {
    const TempFolder folder;
    EXPECT_EQ(launchError(folder.path()), EACCES);
    EXPECT_EQ(launchError(folder.write("text", "hello")), EACCES);
    EXPECT_EQ(launchError(folder / "missing"), ENOENT);
    EXPECT_EQ(launchError(""), ENOENT);
    const auto garbage = folder.copyExecutable(folder.write("garbage", "no program"), "program");
    EXPECT_EQ(launchError(garbage), ENOEXEC);
}

TEST(Task, AFolderThatCannotBeEnteredThrows) {
    const TempFolder folder;
    auto task = shell("true", folder);
    task.setCurrentDirectoryPath(folder / "missing");
    EXPECT_EQ(launchError(task), ENOENT);
    task.setCurrentDirectoryPath(folder.write("file", ""));
    EXPECT_EQ(launchError(task), ENOTDIR);
    EXPECT_EQ(task.processIdentifier(), 0);
}

TEST(Task, ANulByteIsRefusedNotCut) {
    using std::string_literals::operator""s;
    EXPECT_EQ(launchError("/bin/sh\0x"s), EINVAL);
    const TempFolder folder;
    Task task;
    task.setLaunchPath("/bin/sh");
    task.setArguments({"-c", "true\0x"s});
    EXPECT_EQ(launchError(task), EINVAL);
    task.setArguments({});
    task.setCurrentDirectoryPath("/tmp\0x"s);
    EXPECT_EQ(launchError(task), EINVAL);
}

TEST(Task, CanBeLaunchedOnce) {
    const TempFolder folder;
    auto task = shell("true", folder);
    task.launch();
    EXPECT_EQ(launchError(task), EALREADY);
    task.waitUntilExit();
}

TEST(Task, TooManyArgumentsThrow) {
    const TempFolder folder;
    auto task = shell("true", folder);
    task.setArguments(std::vector<std::string>(40, std::string(100000, 'x')));
    EXPECT_EQ(launchError(task), E2BIG);
}

TEST(Task, WaitsUntilTheChildHasEndedAndReapsIt) {
    const TempFolder folder;
    mkfifo((folder / "gate").c_str(), 0600);
    auto task = shell("read x < gate; echo $x > out", folder);
    task.launch();
    std::thread gate([&] { std::ofstream(folder / "gate") << "done\n"; });
    task.waitUntilExit();
    EXPECT_EQ(bytesOf(folder / "out"), "done\n");
    EXPECT_FALSE(isChildOfOurs(task.processIdentifier()));
    gate.join();
    task.waitUntilExit();
}

TEST(Task, AChildThatNobodyWaitsForIsReapedByALaterLaunch) {
    const TempFolder folder;
    pid_t pid = 0;
    {
        auto task = shell("true", folder);
        task.launch();
        pid = task.processIdentifier();
    }
    processtest::waitForEnd(pid);
    runShell("true", folder);
    EXPECT_FALSE(isChildOfOurs(pid));
}

TEST(Task, AChildThatNobodyWaitsForIsReapedOnRequest) {
    const TempFolder folder;
    auto task = shell("true", folder);
    task.launch();
    processtest::waitForEnd(task.processIdentifier());
    Task::reapFinished();
    EXPECT_FALSE(isChildOfOurs(task.processIdentifier()));
    task.waitUntilExit();
}

TEST(Task, CanBeLaunchedByAForkedChildWhateverOtherThreadsWereLaunching) {
    const TempFolder folder;
    support::expectChildrenSucceedWhile([&] { runShell("true", folder); },
                                        [&] { runShell("true", folder); });
}

TEST(Task, OfItsParentDoesNotConcernAForkedChild) {
    const TempFolder folder;
    const auto before = processtest::openDescriptors();
    auto task = shell("exec sleep 600", folder);
    task.pipeStandardError();
    task.launch();
    EXPECT_TRUE(support::succeedsInAChild([&] {
        EXPECT_EQ(processtest::openDescriptors(), before) << "the pipe is the parent's";
        task.waitUntilExit();
    }));
    kill(task.processIdentifier(), SIGKILL);
    task.waitUntilExit();
    EXPECT_EQ(processtest::openDescriptors(), before);
}

TEST(Task, ReapsNoChildOfAnothers) {
    const TempFolder folder;
    const pid_t other = fork();
    if (other == 0) _exit(0);
    processtest::waitForEnd(other);
    runShell("true", folder);
    Task::reapFinished();
    EXPECT_EQ(waitpid(other, nullptr, WNOHANG), other);
}

TEST(Task, ForgetsAChildThatTheApplicationReaped) {
    const TempFolder folder;
    const auto before = processtest::openDescriptors();
    auto task = shell("true", folder);
    task.pipeStandardError();
    task.launch();
    EXPECT_EQ(waitpid(task.processIdentifier(), nullptr, 0), task.processIdentifier());
    task.waitUntilExit();
    EXPECT_EQ(processtest::openDescriptors(), before);
}

TEST(Task, ManyThreadsLaunchAndWaitAtOnce) {
    const TempFolder folder;
    const auto before = processtest::openDescriptors();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 10; ++j) {
                auto task = shell("echo x >&2", folder);
                task.pipeStandardError();
                task.launch();
                Task::reapFinished();
                if (j % 2 == 0) task.waitUntilExit();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    // A wait of its own sweeps whatever has ended; what has not ended keeps its pipe.
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    Task::reapFinished();
    EXPECT_EQ(processtest::openDescriptors(), before);
}

TEST(Task, GivesTheChildNoOtherDescriptor) {
    const TempFolder folder;
    constexpr int kLeaking = 77;
    ASSERT_EQ(dup2(STDIN_FILENO, kLeaking), kLeaking);
    runShell("[ -e /proc/$$/fd/77 ] && echo leaked > out || echo clean > out", folder);
    close(kLeaking);
    EXPECT_EQ(bytesOf(folder / "out"), "clean\n");
}

TEST(Task, KeepsItsPipeFromProgramsThatOthersExecute) {
    const TempFolder folder;
    mkfifo((folder / "gate").c_str(), 0600);
    auto task = shell("read x < gate", folder);
    task.pipeStandardError();
    task.launch();
    const int end = otherEndOfErrors(task.processIdentifier());
    EXPECT_EQ(fcntl(end, F_GETFD), FD_CLOEXEC);
    std::ofstream(folder / "gate") << "go\n";
    task.waitUntilExit();
}

TEST(Task, TheChildStartsWithCleanSignals) {
    const TempFolder folder;
    const int outcome = support::outcomeInAChild([&] {
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGTERM);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);
        std::signal(SIGPIPE, SIG_IGN);
        std::signal(SIGTERM, SIG_IGN);
        std::signal(SIGHUP, SIG_IGN);
        Task task;
        task.setLaunchPath("/bin/grep");
        task.setArguments({"-E", "^Sig(Blk|Ign)", "/proc/self/status"});
        const int out = open((folder / "out").c_str(), O_CREAT | O_WRONLY, 0600);
        dup2(out, STDOUT_FILENO);
        task.launch();
        task.waitUntilExit();
        return 0;
    });
    EXPECT_EQ(outcome, 0);
    // The C library keeps two signals (32 and 33) for itself: they stand above these bits.
    EXPECT_EQ(signalsIn(bytesOf(folder / "out"), "SigBlk:"), 0U);
    EXPECT_EQ(signalsIn(bytesOf(folder / "out"), "SigIgn:"), 1U << (SIGHUP - 1));
}

TEST(Task, AnUnreadErrorPipeHolds64KiBAndThenBlocksTheChild) {
    const TempFolder folder;
    auto task = shell("exec head -c 65537 /dev/zero >&2", folder);
    task.pipeStandardError();
    task.launch();
    if (access("/proc/self/syscall", R_OK) != 0) GTEST_SKIP() << "the kernel hides system calls";
    ASSERT_TRUE(comesToBlockInAWrite(task.processIdentifier()));
    const int end = otherEndOfErrors(task.processIdentifier());
    ASSERT_GE(end, 0);
    std::array<char, 4096> drained{};
    std::size_t total = 0;
    while (total < 65537) {
        const auto count = read(end, drained.data(), drained.size());
        ASSERT_GT(count, 0);
        total += static_cast<std::size_t>(count);
    }
    task.waitUntilExit();
    EXPECT_EQ(total, 65537U);
}

TEST(Task, TheErrorPipeStaysOpenWhileAGrandchildMayWriteToIt) {
    const TempFolder folder;
    mkfifo((folder / "gate").c_str(), 0600);
    mkfifo((folder / "out").c_str(), 0600);
    const auto before = processtest::openDescriptors();
    auto task = shell("(read x < gate; echo hi >&2 && echo alive > out) & exit 0", folder);
    task.pipeStandardError();
    task.launch();
    task.waitUntilExit();
    Task::reapFinished();
    std::ofstream(folder / "gate") << "go\n";
    EXPECT_EQ(bytesOf(folder / "out"), "alive\n");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (processtest::openDescriptors() != before && std::chrono::steady_clock::now() < end)
        Task::reapFinished();
    EXPECT_EQ(processtest::openDescriptors(), before);
}

TEST(Task, APipeDoesNotTakeThePlaceOfAClosedStandardDescriptor) {
    const TempFolder folder;
    mkfifo((folder / "gate").c_str(), 0600);
    const int outcome = support::outcomeInAChild([&] {
        for (const int standard : {0, 1, 2}) close(standard);
        auto task = shell("echo x >&2; [ -e /proc/$$/fd/1 ] || : > closed; read x < gate", folder);
        task.pipeStandardError();
        task.launch();
        const int end = otherEndOfErrors(task.processIdentifier());
        std::ofstream(folder / "gate") << "go\n";
        task.waitUntilExit();
        return end > 2 ? 0 : 1;
    });
    EXPECT_EQ(outcome, 0);
    EXPECT_TRUE(std::filesystem::exists(folder / "closed"));
}
