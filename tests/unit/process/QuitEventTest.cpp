#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Publication.h>
#include <OKVPlatform/process/QuitEvent.h>
#include <OKVTesting/RuntimeFolder.h>

#include "support/ForkedChild.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "Support.h"

using okv::ProcessSerialNumber;
using okv::QuitEventListener;

using processtest::Child;
using processtest::ChildOptions;

namespace {

// What comes between the making of a folder and the next step; once.
std::function<void()> whenMade;

int makeFolder(int at, const char* path, mode_t mode) {
    const auto result = static_cast<int>(syscall(SYS_mkdirat, at, path, mode));
    if (result == 0 && whenMade) std::exchange(whenMade, nullptr)();
    return result;
}

}  // namespace

// These stand before the system's own.
#pragma GCC visibility push(default)
extern "C" {
int mkdir(const char* path, mode_t mode) noexcept {
    return makeFolder(AT_FDCWD, path, mode);
}
int mkdirat(int at, const char* path, mode_t mode) noexcept {
    return makeFolder(at, path, mode);
}
}
#pragma GCC visibility pop

namespace {

constexpr std::int32_t kSeconds = okv::kTicksPerSecond;

struct Outcome {
    okv::OSStatus status;
    std::optional<std::int32_t> error;
    friend bool operator==(const Outcome&, const Outcome&) = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << outcome.status << " / " << (outcome.error ? std::to_string(*outcome.error) : "none");
}

Outcome sendQuit(int pid, std::int32_t ticks = 20 * kSeconds) {
    const auto reply = okv::sendQuitEvent({{pid}}, ticks);
    return {reply.status, reply.errorNumber};
}

std::string applicationPath() {
    return OKV_TEST_QUITTING_APPLICATION;
}

ChildOptions with(std::vector<std::string> options, uid_t uid = 0) {
    options.insert(options.begin(), applicationPath());
    return {options, uid};
}

int exitCodeOf(const Child& child) {
    processtest::waitForEnd(child.pid());
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT);
    return info.si_code == CLD_EXITED ? info.si_status : -1;
}

bool isRunning(const Child& child) {
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT | WNOHANG);
    return info.si_pid == 0;
}

std::unique_ptr<QuitEventListener> startAccepting(std::string* why = nullptr) {
    return QuitEventListener::start([](const okv::PeerIdentity&) { return okv::noErr; },
                                    QuitEventListener::isRootOrOwnUser, why);
}

class QuitEvent : public testing::Test {
protected:
    std::string appsFolder() const { return runtime_.path() / "apps"; }

    okv::testing::RuntimeFolder runtime_;
};

}  // namespace

TEST_F(QuitEvent, AnApplicationThatAcceptsEndsByItself) {
    const Child application(applicationPath());
    ASSERT_TRUE(application.isReady());
    EXPECT_EQ(sendQuit(application.pid()), (Outcome{okv::noErr, std::nullopt}));
    EXPECT_EQ(exitCodeOf(application), 5);
}

TEST_F(QuitEvent, TheErrorNumberOfAnApplicationThatDeclinesIsPassedOn) {
    const Child application(applicationPath(), with({"--reply", "-128"}));
    ASSERT_TRUE(application.isReady());
    EXPECT_EQ(sendQuit(application.pid()), (Outcome{okv::noErr, -128}));
    EXPECT_EQ(sendQuit(application.pid()), (Outcome{okv::noErr, -128}));
    EXPECT_TRUE(isRunning(application));
}

TEST_F(QuitEvent, AProcessThatDoesNotListenIsNotFound) {
    const Child child(processtest::sleeperPath());
    EXPECT_EQ(sendQuit(child.pid()), (Outcome{okv::procNotFound, std::nullopt}));
    for (const int pid : {0, -1, INT32_MAX})
        EXPECT_EQ(sendQuit(pid), (Outcome{okv::procNotFound, std::nullopt}));
}

TEST_F(QuitEvent, AnApplicationThatHasEndedIsNotFoundThoughItsNameIsLeft) {
    const Child application(applicationPath());
    ASSERT_TRUE(application.isReady());
    application.end();
    ASSERT_TRUE(std::filesystem::exists(appsFolder() + "/" + std::to_string(application.pid())));
    EXPECT_EQ(sendQuit(application.pid()), (Outcome{okv::procNotFound, std::nullopt}));
}

TEST_F(QuitEvent, AnApplicationThatDoesNotReplyInTimeTimesOut) {
    const Child application(applicationPath(), with({"--silent"}));
    ASSERT_TRUE(application.isReady());
    EXPECT_EQ(sendQuit(application.pid(), 6), (Outcome{okv::errAETimeout, std::nullopt}));
    EXPECT_EQ(sendQuit(application.pid(), 0), (Outcome{okv::errAETimeout, std::nullopt}));
}

TEST_F(QuitEvent, AnApplicationThatEndsWithoutAReplyIsAnInvalidConnection) {
    const Child application(applicationPath(), with({"--die"}));
    ASSERT_TRUE(application.isReady());
    EXPECT_EQ(sendQuit(application.pid()), (Outcome{okv::connectionInvalid, std::nullopt}));
}

TEST_F(QuitEvent, OnlyTheTargetItselfIsAsked) {
    const Child target(processtest::sleeperPath());
    mkdir(appsFolder().c_str(), 01777);
    bool wasAsked = false;
    okv::RootObject root;
    root.target = &wasAsked;
    root.handler = [](void* asked, okv::IncomingRequest&) { *static_cast<bool*>(asked) = true; };
    okv::PublicationOptions options;
    options.name.subfolder = "apps";
    std::string why;
    const auto impostor =
        okv::Publication::publish(std::to_string(target.pid()), root, options, why);
    ASSERT_TRUE(impostor) << why;
    EXPECT_EQ(sendQuit(target.pid()), (Outcome{okv::procNotFound, std::nullopt}));
    okv::RunLoop::current()->dispatch();
    EXPECT_FALSE(wasAsked);
}

TEST_F(QuitEvent, RootMayAskAnotherUsersApplication) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    mkdir(appsFolder().c_str(), 0);
    chmod(appsFolder().c_str(), 01777);
    const Child application(applicationPath(), with({}, processtest::kNobody));
    if (!application.isReady()) GTEST_SKIP() << "another account cannot run the program here";
    EXPECT_EQ(sendQuit(application.pid()), (Outcome{okv::noErr, std::nullopt}));
    EXPECT_EQ(exitCodeOf(application), 5);
}

TEST_F(QuitEvent, AnotherUserMayNotAsk) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const Child application(applicationPath());
    ASSERT_TRUE(application.isReady());
    const int outcome = support::outcomeInAChild([&] {
        if (setgid(1234) != 0 || setuid(1234) != 0) return 2;
        const auto expected = Outcome{okv::noErr, okv::errAEEventNotPermitted};
        return sendQuit(application.pid()) == expected ? 0 : 1;
    });
    EXPECT_EQ(outcome, 0);
    EXPECT_TRUE(isRunning(application));
}

TEST_F(QuitEvent, ANameThatAnotherAccountsProcessLeftDoesNotKeepOneFromBeingAsked) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    startAccepting();  // makes the folder
    const int outcome = support::outcomeInAChild([&] {
        const auto left = appsFolder() + "/" + std::to_string(getpid());
        std::ofstream(left) << "";
        if (chown(left.c_str(), processtest::kNobody, processtest::kNobody) != 0) return 2;
        if (setgid(1234) != 0 || setuid(1234) != 0) return 2;
        const auto listener = startAccepting();
        if (!listener) return 3;
        Outcome asked{};
        const auto loop = okv::RunLoop::current();
        std::thread sender([&] {
            asked = sendQuit(getpid());
            loop->stop();
        });
        loop->run();
        sender.join();
        return asked == Outcome{okv::noErr, std::nullopt} ? 0 : 1;
    });
    EXPECT_EQ(outcome, 0);
    const std::filesystem::directory_iterator names(appsFolder());
    EXPECT_EQ(std::distance(begin(names), end(names)), 1) << "only what another account left";
}

TEST_F(QuitEvent, AListenerThatGoesAwayTakesItsNameAlong) {
    const auto name = [&] { return appsFolder() + "/" + std::to_string(getpid()); };
    {
        const auto listener = startAccepting();
        ASSERT_TRUE(listener);
        EXPECT_TRUE(std::filesystem::exists(name()));
    }
    EXPECT_FALSE(std::filesystem::exists(name()));
}

TEST_F(QuitEvent, TheFolderOfNamesIsOpenToAllAndSticky) {
    const auto listener = startAccepting();
    struct stat status {};
    ASSERT_EQ(stat(appsFolder().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 01777U);
}

TEST_F(QuitEvent, WhatIsPutInTheNewFoldersPlaceIsNotOpenedToAll) {
    const auto victim = runtime_.path() / "victim";
    ASSERT_EQ(mkdir(victim.c_str(), 0755), 0);
    const auto away = appsFolder() + ".away";
    whenMade = [&] {
        std::filesystem::rename(appsFolder(), away);
        std::filesystem::create_directory_symlink(victim, appsFolder());
    };
    const auto listener = startAccepting();
    EXPECT_FALSE(whenMade) << "no folder was made";
    struct stat status {};
    ASSERT_EQ(stat(victim.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0755U);
}

TEST_F(QuitEvent, AnOwnFolderThatNobodyCouldOpenIsOpenedToAll) {
    ASSERT_EQ(mkdir(appsFolder().c_str(), 0700), 0);
    EXPECT_TRUE(startAccepting());
    struct stat status {};
    ASSERT_EQ(stat(appsFolder().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 01777U);
}

TEST_F(QuitEvent, AListenerThatCannotBeReachedSaysWhy) {
    std::ofstream(appsFolder()) << "no folder";
    std::string why;
    const auto listener = startAccepting(&why);
    EXPECT_FALSE(listener);
    EXPECT_NE(why.find("apps"), std::string::npos) << why;
}

TEST_F(QuitEvent, ASenderWithoutDescriptorsSaysSoAndTakesNobodyForDeaf) {
    if (support::kIsAddressSanitized) GTEST_SKIP() << "its checks of types take descriptors, too";
    const Child application(applicationPath(), with({"--reply", "-128"}));
    ASSERT_TRUE(application.isReady());
    const int refusals = support::outcomeInAChild([&] {
        for (unsigned left = 0; left < 20; ++left) {
            processtest::leaveDescriptors(left);
            const auto outcome = sendQuit(application.pid());
            if (outcome == Outcome{okv::noErr, -128}) return static_cast<int>(left);
            if (outcome != Outcome{okv::tmfoErr, std::nullopt}) return 100;
        }
        return 101;
    });
    // The folder, the socket, the three of a run loop.
    EXPECT_GE(refusals, 4);
    EXPECT_LT(refusals, 20);
}

TEST_F(QuitEvent, AListenerWithoutDescriptorsIsNoneAndSaysWhyAndLeavesNoName) {
    if (support::kIsAddressSanitized) GTEST_SKIP() << "its checks of types take descriptors, too";
    ASSERT_TRUE(startAccepting());
    const int refusals = support::outcomeInAChild([&] {
        for (unsigned left = 0; left < 20; ++left) {
            std::string why;
            processtest::leaveDescriptors(left);
            const auto listener = startAccepting(&why);
            processtest::leaveDescriptors(20);
            if (listener) return static_cast<int>(left);
            if (why.empty() || !std::filesystem::is_empty(appsFolder())) return 100;
        }
        return 101;
    });
    EXPECT_GE(refusals, 4);
    EXPECT_LT(refusals, 20);
}

TEST_F(QuitEvent, ASerialNumberMakesATargetAndNullNone) {
    const ProcessSerialNumber process{0, 42};
    const ProcessSerialNumber high{1, 42};
    const ProcessSerialNumber beyond{0, 0x80000000U};
    EXPECT_EQ(okv::makeQuitTarget(&process)->pid, 42);
    EXPECT_EQ(okv::makeQuitTarget(&high)->pid, 0);
    EXPECT_EQ(okv::makeQuitTarget(&beyond)->pid, 0);
    EXPECT_FALSE(okv::makeQuitTarget(nullptr));
}

TEST_F(QuitEvent, ATickIsASixtiethOfASecond) {
    const Child application(applicationPath(), with({"--silent"}));
    ASSERT_TRUE(application.isReady());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sendQuit(application.pid(), 30), (Outcome{okv::errAETimeout, std::nullopt}));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(490));
    EXPECT_LT(waited, std::chrono::seconds(15));
}

TEST_F(QuitEvent, IsTheRequestThatApplicationsOfEveryReleaseKnow) {
    mkdir(appsFolder().c_str(), 01777);
    std::string asked;
    okv::RootObject root;
    root.target = &asked;
    root.handler = [](void* target, okv::IncomingRequest& request) {
        auto& text = *static_cast<std::string*>(target);
        text = std::string(request.selector()) + "|" + std::string(request.types());
        request.fail("not understood");
    };
    okv::PublicationOptions options;
    options.name.subfolder = "apps";
    std::string why;
    const auto self = okv::Publication::publish(std::to_string(getpid()), root, options, why);
    ASSERT_TRUE(self) << why;
    Outcome outcome{};
    const auto loop = okv::RunLoop::current();
    std::thread sender([&] {
        outcome = sendQuit(getpid());
        loop->stop();
    });
    loop->run();
    sender.join();
    EXPECT_EQ(asked, "quitApplication|");
    EXPECT_EQ(outcome, (Outcome{okv::errAEEventNotHandled, std::nullopt}));
}
