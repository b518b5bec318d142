#include "Support.h"

#include "unit/process/Support.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <list>

// Whether a data server runs, looked for among the running applications. Each case has a list of
// processes of its own: what else runs on this machine is not in it.

namespace dmtest {
namespace {

using processtest::Child;
using support::TempFolder;
using testing::ElementsAre;
using Entry = LoggedEntries::Entry;
using Inspector = okvDataManagerInspector;

constexpr char kServerIdentifier[] = "jp.nrm.okv6.OKVDataCenter";
const Entry kCalled{10, "call check DataServer()."};
const Entry kFound{10, "->already is server process!"};
const Entry kNotFound{10, "-> can not stated DataCenter. launch server.."};
const Entry kResult{10, "->bRet:0"};

bool ownProcesses() {
    return unshare(CLONE_NEWPID | CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// Runs the task as the first process of a list of processes of its own.
bool succeedsAmongOwnProcesses(const std::function<void()>& task) {
    return succeedsInAChild([&] {
        ASSERT_TRUE(ownProcesses());
        EXPECT_TRUE(succeedsInAChild([&] {
            ASSERT_EQ(mount("proc", "/proc", "proc", 0, nullptr), 0);
            task();
        }));
    });
}

std::string entry(const char* key, const std::optional<std::string>& text) {
    if (!text) return {};
    return std::string("<key>") + key + "</key><string>" + *text + "</string>";
}

/// A running application of this name and identifier, as its Info.plist gives them.
class Application {
public:
    Application(const std::optional<std::string>& name,
                const std::optional<std::string>& identifier)
        : program_(folder_.copyExecutable(processtest::sleeperPath(), "A.app/Contents/Linux/A")) {
        folder_.write("A.app/Contents/Info.plist",
                      "<plist version=\"1.0\"><dict>" + entry("CFBundleName", name) +
                          entry("CFBundleIdentifier", identifier) + "</dict></plist>");
        child_.emplace(program_);
    }
    pid_t pid() const { return child_->pid(); }

private:
    TempFolder folder_;
    std::string program_;
    std::optional<Child> child_;
};

class Presence : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "a list of processes of its own takes root";
    }
    /// Checks with a manager that has no connection: none is needed.
    static void expectFound() {
        LoggedEntries entries;
        const auto manager = okv::make<okvDataManager>();
        EXPECT_TRUE(manager->checkServer());
        EXPECT_TRUE(Inspector::wasServerFound(*manager));
        EXPECT_THAT(entries.take(), ElementsAre(kCalled, kFound));
    }
    static void expectNotFound() {
        LoggedEntries entries;
        const auto manager = okv::make<okvDataManager>();
        EXPECT_FALSE(manager->checkServer());
        EXPECT_FALSE(Inspector::wasServerFound(*manager));
        EXPECT_THAT(entries.take(), ElementsAre(kCalled, kNotFound, kResult));
    }
};

bool nobodyReaches(const std::string& path) {
    return succeedsInAChild([&] {
        ASSERT_EQ(setresuid(kNobody, kNobody, kNobody), 0);
        ASSERT_EQ(access(path.c_str(), R_OK), 0);
    });
}

void expectRealServerFoundBy(uid_t account) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    EXPECT_TRUE(succeedsInAChild([&] {
        ASSERT_EQ(setresuid(account, account, account), 0);
        LoggedEntries entries;
        EXPECT_TRUE(okv::make<okvDataManager>()->checkServer());
        EXPECT_THAT(entries.take(), ElementsAre(kCalled, kFound));
    }));
}

}  // namespace

TEST_F(Presence, NoServerIsToldInTwoLinesAfterTheCalls) {
    EXPECT_TRUE(succeedsAmongOwnProcesses([] { expectNotFound(); }));
}

TEST_F(Presence, OnlyNameAndIdentifierTogetherAreTheServer) {
    struct Case {
        std::optional<std::string> name;
        std::optional<std::string> identifier;
    };
    const Case others[] = {{"OKVDataCenter", "jp.nrm.okv6.OKVHammer"},
                           {"OKVHammer", kServerIdentifier},
                           {"okvdatacenter", kServerIdentifier},
                           {"OKVDataCenter", "jp.nrm.okv6.okvdatacenter"},
                           {"OKVDataCenter2", kServerIdentifier},
                           {"OKVDataCenter", std::string(kServerIdentifier) + ".x"},
                           {"OKVDataCenter", std::nullopt},
                           {std::nullopt, kServerIdentifier},
                           {std::nullopt, std::nullopt}};
    EXPECT_TRUE(succeedsAmongOwnProcesses([&] {
        std::list<Application> running;
        for (const auto& other : others) running.emplace_back(other.name, other.identifier);
        expectNotFound();
        const Application server("OKVDataCenter", kServerIdentifier);
        EXPECT_GT(server.pid(), running.back().pid());
        expectFound();  // the walk goes on past those that are not
    }));
}

TEST_F(Presence, OfTwoServersTheFirstEndsTheWalkAndOnlyOneLineTellsOfThem) {
    EXPECT_TRUE(succeedsAmongOwnProcesses([] {
        const Application first("OKVDataCenter", kServerIdentifier);
        const Application second("OKVDataCenter", kServerIdentifier);
        expectFound();
    }));
}

TEST_F(Presence, ACheckThatFindsNoServerTakesTheLastAnswerBack) {
    EXPECT_TRUE(succeedsAmongOwnProcesses([] {
        const auto manager = okv::make<okvDataManager>();
        {
            const Application server("OKVDataCenter", kServerIdentifier);
            EXPECT_TRUE(manager->checkServer());
        }
        EXPECT_TRUE(Inspector::wasServerFound(*manager));
        EXPECT_FALSE(manager->checkServer());
        EXPECT_FALSE(Inspector::wasServerFound(*manager));
    }));
}

TEST_F(Presence, TheRealServerIsFoundByRoot) {
    EXPECT_TRUE(succeedsAmongOwnProcesses([] { expectRealServerFoundBy(0); }));
}

TEST_F(Presence, TheRealServerOfRootIsFoundByEveryAccount) {
    if (!nobodyReaches(OKV_DATA_CENTER)) GTEST_SKIP() << "the build lies where nobody may look";
    for (const auto account : {kAnAccount, kNobody})
        EXPECT_TRUE(succeedsAmongOwnProcesses([&] { expectRealServerFoundBy(account); }));
}

TEST_F(Presence, TheServerIsFoundByEveryAccountHoweverItWasStarted) {
    if (!nobodyReaches(OKV_DATA_CENTER)) GTEST_SKIP() << "the build lies where nobody may look";
    EXPECT_TRUE(succeedsAmongOwnProcesses([] {
        std::filesystem::current_path(std::filesystem::path(OKV_DATA_CENTER).parent_path());
        ServerProcess::useProgram("./OKVDataCenter");
        expectRealServerFoundBy(kNobody);
    }));
}

TEST_F(Presence, StartingStartsNothing) {
    EXPECT_TRUE(succeedsAmongOwnProcesses([] {
        LoggedEntries entries;
        EXPECT_TRUE(okv::make<okvDataManager>()->startSrv());
        EXPECT_THAT(entries.take(), ElementsAre(Entry{10, "call start DataSrv()."}));
        expectNotFound();
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was started";
    }));
}

using Stopping = RealServerTest;

TEST_F(Stopping, EndsTheLinkOfThisClientAloneAndForGood) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    lines_.take();
    LoggedEntries entries;
    EXPECT_TRUE(manager->stopSrv());
    EXPECT_THAT(entries.take(),
                ElementsAre(Entry{10, "call stop DataSrv()."}, Entry{10, "->end Data Server..."}));
    EXPECT_THAT(lines_.take(), ElementsAre(kDisconnectLine));
    EXPECT_FALSE(manager->isConnect());
    EXPECT_EQ(shared(), manager);
    EXPECT_FALSE(manager->isConnect());
    EXPECT_EQ(okv::send<&Data::defaultUserIdPT>(*support::connect()), 1)
        << "the server itself goes on";
    EXPECT_TRUE(manager->stopSrv()) << "without a connection, too";
}

TEST_F(Stopping, LetsTheConnectionGoBetweenItsTwoLines) {
    LoggedEntries entries;
    std::vector<Entry> before;
    const auto manager = connected();
    lines_.watch([&](std::string_view line) {
        if (line == kDisconnectLine) before = entries.take();
    });
    EXPECT_TRUE(manager->stopSrv());
    EXPECT_THAT(before, ElementsAre(Entry{10, "call stop DataSrv()."}));
    EXPECT_THAT(entries.take(), ElementsAre(Entry{10, "->end Data Server..."}));
}

}  // namespace dmtest
