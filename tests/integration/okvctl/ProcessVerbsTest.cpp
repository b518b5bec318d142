// What the tool does with processes, and with what needs no data server.

#include "ToolRun.h"

#include "support/Processes.h"
#include "support/Sanitizers.h"

#include <OKVPlatform/ipc/RunLoop.h>
#include <OKVPlatform/process/QuitEvent.h>
#include <OKVTesting/RuntimeFolder.h>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

namespace okvctl_test::process_verbs {

using nlohmann::json;
using okv::testing::RuntimeFolder;
using support::Child;
using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

constexpr uid_t kNobody = 65533;

std::string idOf(const Child& child) {
    return std::to_string(child.pid());
}

void sleepForEver(const std::function<void()>& ready) {
    ready();
    for (;;) pause();
}

/// Serves quit events; ends with 7 once it has accepted one.
[[noreturn]] void listenFor(okv::OSStatus answer, const std::function<void()>& ready) {
    const auto listener = okv::QuitEventListener::start([&](const okv::PeerIdentity&) {
        if (answer == okv::noErr) okv::RunLoop::current()->stop();
        return answer;
    });
    if (!listener) _exit(1);
    ready();
    okv::RunLoop::current()->run();
    _exit(7);
}

/// The exit code of a tool that may have no descriptor from `limit` on.
int codeWithDescriptors(int limit, const std::vector<std::string>& arguments) {
    std::vector<std::string> words{"-c", "ulimit -n \"$0\"; exec \"$@\"", std::to_string(limit),
                                   OKVCTL_PROGRAM};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return okvctl_test::Child("/bin/sh", words).wait();
}

const json* withPid(const json& records, pid_t pid) {
    for (const auto& record : records) {
        if (record["pid"] == pid) return &record;
    }
    return nullptr;
}

}  // namespace

TEST(Ps, ListsEveryProcessWithItsIds) {
    const Child child(sleepForEver);
    const auto ran = run({"--json", "ps"});
    ASSERT_EQ(ran.code, 0) << ran.error;
    const auto records = json::parse(ran.out)["processes"];
    const auto* found = withPid(records, child.pid());
    ASSERT_NE(found, nullptr);
    EXPECT_EQ((*found)["parentpid"], getpid());
    EXPECT_EQ((*found)["uid"], getuid());
    EXPECT_EQ((*found)["CFBundleName"], "okvctl_test");
    EXPECT_EQ((*found)["BundlePath"], "(null)") << "as for every process";
    EXPECT_EQ(withPid(records, 0), nullptr) << "the zero-filled record is no process";
}

TEST(Ps, ManagedShowsTheDataServerAsTheApplicationThatItIs) {
    const DataCenter server;
    const auto ran = run({"ps", "--managed", "--no-legend"});
    ASSERT_EQ(ran.code, 0) << ran.error;
    // Another application of this machine may have a longer name, and make the column wider.
    EXPECT_THAT(ran.out, ContainsRegex("OKVDataCenter +jp[.]nrm[.]okv6[.]OKVDataCenter"));
    EXPECT_THAT(ran.out, Not(HasSubstr("okvctl_test")));
}

TEST(Ps, OnlyPsTakesManaged) {
    const auto ran = run({"quit", "--managed", "2"});
    EXPECT_EQ(ran.code, 2);
    EXPECT_THAT(ran.error, HasSubstr("--managed"));
}

TEST(Quit, AsksAnApplicationThatListens) {
    const RuntimeFolder folder;
    Child application([](const auto& ready) { listenFor(okv::noErr, ready); });
    ASSERT_TRUE(application.isReady());
    const auto ran = run({"--json", "quit", idOf(application)});
    EXPECT_EQ(ran.code, 0) << ran.error;
    EXPECT_EQ(json::parse(ran.out)["quit"]["by"], "event");
    EXPECT_EQ(application.wait(), 7);
}

TEST(Quit, TellsOfAnApplicationThatRefuses) {
    const RuntimeFolder folder;
    const Child application([](const auto& ready) { listenFor(-128, ready); });
    ASSERT_TRUE(application.isReady());
    const auto ran = run({"quit", idOf(application)});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("process " + idOf(application) + " does not quit"));
    EXPECT_THAT(ran.error, HasSubstr("-128"));
    EXPECT_EQ(kill(application.pid(), 0), 0);
}

TEST(Quit, SignalsAProcessThatDoesNotListen) {
    const RuntimeFolder folder;
    Child application(sleepForEver);
    const auto ran = run({"--json", "quit", idOf(application)});
    EXPECT_EQ(ran.code, 0) << ran.error;
    EXPECT_EQ(json::parse(ran.out)["quit"]["by"], "signal");
    EXPECT_EQ(application.wait(), -SIGTERM);
}

TEST(Quit, WithoutDescriptorsToAskFailsAndSignalsNobody) {
    if (support::kIsSanitized) GTEST_SKIP() << "sanitizers need descriptors of their own";
    const RuntimeFolder folder;
    Child application([](const auto& ready) { listenFor(okv::noErr, ready); });
    ASSERT_TRUE(application.isReady());
    int refusals = 0;
    int code = 1;
    // With the smallest limits the tool's libraries are not even loaded.
    for (int limit = 3; limit < 20 && (code == 1 || code == 127); ++limit) {
        code = codeWithDescriptors(limit, {"quit", idOf(application)});
        if (code == 1) ++refusals;
    }
    EXPECT_EQ(code, 0);
    EXPECT_GT(refusals, 0);
    EXPECT_EQ(application.wait(), 7) << "it was asked, not signalled";
}

TEST(Quit, OfAnotherAccountsProcessIsRefused) {
    if (getuid() != 0) GTEST_SKIP() << "only root can run the tool as another account";
    const RuntimeFolder folder;
    const Child application(sleepForEver);
    const auto ran = run({"quit", idOf(application)}, {}, kNobody);
    EXPECT_EQ(ran.code, 4) << ran.error;
    EXPECT_EQ(kill(application.pid(), 0), 0);
}

TEST(Quit, OfAProcessThatIsGoneFails) {
    Child application([](const auto& ready) { ready(); });
    const auto pid = idOf(application);
    application.wait();
    const auto ran = run({"quit", pid});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("there is no process " + pid));
}

TEST(Quit, TakesNoIdThatMeansSeveralProcessesOrTheSystem) {
    for (const auto* pid : {"0", "1", "-1", "x", "", "99999999999"}) {
        const auto ran = run({"quit", "--", pid});
        EXPECT_EQ(ran.code, 2) << pid;
        EXPECT_THAT(ran.error, HasSubstr("a PID is a number from 2 on")) << pid;
    }
}

TEST(Category, IsEncodedAndDecodedBack) {
    const auto text = "1" + std::string(126, '0') + "1";
    const auto encoded = run({"category", "encode", text});
    EXPECT_EQ(encoded.out, "gAAAAAAAAAAAAAAAAAAAAQ==\n");
    const auto decoded = run({"category", "decode", encoded.out.substr(0, 24)});
    EXPECT_EQ(decoded.out, text + "\n");
    const auto raw = run({"--format", "raw", "category", "encode", text});
    EXPECT_EQ(raw.out, "\x80" + std::string(14, '\0') + "\x01");
}

TEST(Category, OfTheWrongLengthIsAUsageError) {
    EXPECT_EQ(run({"category", "encode", std::string(127, '1')}).code, 2);
    EXPECT_EQ(run({"category", "decode", "AAAA"}).code, 2);
    EXPECT_EQ(run({"category", "decode", "!"}).code, 2);
    EXPECT_EQ(run({"category", "pack", "1"}).code, 2);
}

}  // namespace okvctl_test::process_verbs
