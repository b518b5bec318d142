// What the tool does with processes, and with what needs no data server.

#include "ToolRun.h"

#include <OKVPlatform/ipc/RunLoop.h>
#include <OKVPlatform/process/QuitEvent.h>
#include <OKVTesting/RuntimeFolder.h>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

using nlohmann::json;
using okv::testing::RuntimeFolder;
using okvctl_test::DataCenter;
using okvctl_test::run;
using testing::HasSubstr;

namespace {

constexpr uid_t kNobody = 65533;

/// A child of this process; it calls its argument once it is ready.
class Application {
public:
    explicit Application(const std::function<int(const std::function<void()>& ready)>& main) {
        int ends[2];
        if (pipe(ends) != 0) throw std::runtime_error("pipe");
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            _exit(main([&] { (void)!write(ends[1], "r", 1); }));
        }
        char byte = 0;
        isReady_ = read(ends[0], &byte, 1) == 1;
        close(ends[0]);
        close(ends[1]);
    }
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;
    ~Application() {
        if (pid_ <= 1) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    bool isReady() const { return isReady_; }
    std::string pid() const { return std::to_string(pid_); }
    /// Its exit code, or minus the signal that ended it.
    int wait() {
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    bool isReady_ = false;
};

int sleepForEver(const std::function<void()>& ready) {
    ready();
    for (;;) pause();
}

/// Serves quit events; ends with 7 once it has accepted one.
int listenFor(okv::OSStatus answer, const std::function<void()>& ready) {
    const auto listener = okv::QuitEventListener::start([&](const okv::PeerIdentity&) {
        if (answer == okv::noErr) okv::RunLoop::current()->stop();
        return answer;
    });
    if (!listener) return 1;
    ready();
    okv::RunLoop::current()->run();
    return 7;
}

const json* withPid(const json& records, pid_t pid) {
    for (const auto& record : records) {
        if (record["pid"] == pid) return &record;
    }
    return nullptr;
}

}  // namespace

TEST(Ps, ListsEveryProcessWithItsIds) {
    const Application child(sleepForEver);
    const auto ran = run({"--json", "ps"});
    ASSERT_EQ(ran.code, 0) << ran.error;
    const auto records = json::parse(ran.out)["processes"];
    const auto* found = withPid(records, std::stoi(child.pid()));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ((*found)["parentpid"], getpid());
    EXPECT_EQ((*found)["uid"], getuid());
    EXPECT_EQ((*found)["CFBundleName"], "okvctl_test");
    EXPECT_EQ(withPid(records, 0), nullptr) << "the zero-filled record is no process";
}

TEST(Ps, ManagedShowsTheDataServerAsTheApplicationThatItIs) {
    const DataCenter server;
    const auto ran = run({"ps", "--managed", "--no-legend"});
    ASSERT_EQ(ran.code, 0) << ran.error;
    EXPECT_THAT(ran.out, HasSubstr("OKVDataCenter  jp.nrm.okv6.OKVDataCenter"));
    EXPECT_THAT(ran.out, Not(HasSubstr("okvctl_test")));
}

TEST(Ps, OnlyPsTakesManaged) {
    const auto ran = run({"quit", "--managed", "2"});
    EXPECT_EQ(ran.code, 2);
    EXPECT_THAT(ran.error, HasSubstr("--managed"));
}

TEST(Quit, AsksAnApplicationThatListens) {
    const RuntimeFolder folder;
    Application application([](const auto& ready) { return listenFor(okv::noErr, ready); });
    ASSERT_TRUE(application.isReady());
    const auto ran = run({"--json", "quit", application.pid()});
    EXPECT_EQ(ran.code, 0) << ran.error;
    EXPECT_EQ(json::parse(ran.out)["quit"]["by"], "event");
    EXPECT_EQ(application.wait(), 7);
}

TEST(Quit, TellsOfAnApplicationThatRefuses) {
    const RuntimeFolder folder;
    const Application application([](const auto& ready) { return listenFor(-128, ready); });
    ASSERT_TRUE(application.isReady());
    const auto ran = run({"quit", application.pid()});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("process " + application.pid() + " does not quit"));
    EXPECT_THAT(ran.error, HasSubstr("-128"));
    EXPECT_EQ(kill(std::stoi(application.pid()), 0), 0);
}

TEST(Quit, SignalsAProcessThatDoesNotListen) {
    const RuntimeFolder folder;
    Application application(sleepForEver);
    const auto ran = run({"--json", "quit", application.pid()});
    EXPECT_EQ(ran.code, 0) << ran.error;
    EXPECT_EQ(json::parse(ran.out)["quit"]["by"], "signal");
    EXPECT_EQ(application.wait(), -SIGTERM);
}

TEST(Quit, OfAnotherAccountsProcessIsRefused) {
    if (getuid() != 0) GTEST_SKIP() << "only root can run the tool as another account";
    const RuntimeFolder folder;
    const Application application(sleepForEver);
    const auto ran = run({"quit", application.pid()}, {}, kNobody);
    EXPECT_EQ(ran.code, 4) << ran.error;
    EXPECT_EQ(kill(std::stoi(application.pid()), 0), 0);
}

TEST(Quit, OfAProcessThatIsGoneFails) {
    Application application([](const auto& ready) {
        ready();
        return 0;
    });
    const auto pid = application.pid();
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
