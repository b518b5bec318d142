#include "Support.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

#include <unistd.h>

#include <csignal>
#include <optional>
#include <thread>

#include <sys/wait.h>

// The way of a change from the server to whoever observes the settings: through the notification
// log, with or without a connection, a server, or an account's rights.

namespace dmtest {
namespace {

using okv::Array;
using okv::Dictionary;

const std::int32_t kAccountOfThisProcess = static_cast<std::int32_t>(getuid());

class Notices : public RealServerTest {
protected:
    Notices() : root_(support::connect()) {}

    std::int64_t revision() {
        const auto status = okv::send<&Admin::serverStatusPT>(*root_);
        return status.as<Dictionary>()["revision"].longLongValue();
    }
    bool change(const Value& value) {
        return okv::send<&Data::setOKVDataPT_value_appUid>(*root_, kKey, value, 1);
    }
    void makeUser(std::int32_t user) {
        okv::send<&Data::setUseridPT_applyUid>(*root_, 99999, user);
    }
    bool switchAccount(uid_t account, std::int32_t user) {
        return okv::send<&Admin::setCurrentUserIdPT_osUid>(*root_, Value(user),
                                                           static_cast<std::int32_t>(account));
    }

    okv::Ref<okv::RemoteObject> root_;
};

/// A client in a process of another account, which keeps the notices until it is told to stop.
class ForeignClient {
public:
    explicit ForeignClient(uid_t account) {
        if (pipe(toParent_) != 0) throw std::runtime_error("no pipe");
        std::fflush(nullptr);
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("no process");
        if (pid_ == 0) _exit(run(account));
        close(toParent_[1]);
    }
    ~ForeignClient() {
        close(toParent_[0]);
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    ForeignClient(const ForeignClient&) = delete;
    ForeignClient& operator=(const ForeignClient&) = delete;

    /// The session user after the next notice; the first call answers the one at the start.
    std::optional<std::int32_t> next() const {
        std::int32_t user = 0;
        if (read(toParent_[0], &user, sizeof user) != sizeof user) return std::nullopt;
        return user;
    }

private:
    int run(uid_t account) const {
        if (setresgid(account, account, account) != 0 || setresuid(account, account, account) != 0)
            return 1;
        const auto manager = okv::Ref<okvDataManager>::adopting((new okvDataManager)->init());
        if (!manager) return 2;
        const auto keeper = okv::make<NoticeKeeper>(manager);
        tell(manager->nowSessionUserId());
        for (std::size_t heard = 1; keeper->hears(heard); ++heard)
            tell(keeper->sessionUsers[heard - 1]);
        return 3;
    }
    void tell(std::int32_t user) const {
        if (write(toParent_[1], &user, sizeof user) != sizeof user) _exit(4);
    }

    int toParent_[2];
    pid_t pid_ = -1;
};

void expectNoSwitch(const Dictionary& notice) {
    EXPECT_EQ(notice["osuserid"], Value(-1));
    EXPECT_EQ(notice["session_userid"], Value(0));
}

using Change = std::function<void(okvDataManager&)>;

/// A change, and what its notice tells beside its revision; nil: nothing is told.
struct ToldChange {
    std::string name;
    Change carryOut;
    Value keys;
    Value appUid;
};

std::vector<ToldChange> toldChanges() {
    using Manager = okvDataManager;
    return {
        {"of the session user", [](Manager& m) { m.setOKVData_value(kKey, 1); }, Array{kKey}, 1},
        {"of a user", [](Manager& m) { m.setOKVData_value_appUid(kKey, 2, 1); }, Array{kKey}, 1},
        {"the same once more", [](Manager& m) { m.setOKVData_value_appUid(kKey, 2, 1); },
         Array{kKey}, 1},
        {"of the system, whatever user is named",
         [](Manager& m) { m.setOKVData_value_appUid("dc-syscmnf-x", 1, 1); },
         Array{"dc-syscmnf-x"},
         {}},
        {"of several keys",
         [](Manager& m) {
             m.setOKVDataAll(Dictionary{{"a", 1}, {"b", 2}});
         },
         Array{"a", "b"}, 1},
        {"of the agent's start",
         [](Manager& m) { m.setAgentRun(true); },
         Array{"dc-syscmnf-agent_auto_run"},
         {}},
    };
}

}  // namespace

TEST_F(Notices, AHundredChangesLeaveTheSessionUserOfWhoHandsEveryNoticeOn) {
    if (getuid() != 0) GTEST_SKIP() << "a missing account reads as root's";
    makeUser(2);
    const auto manager = connected();
    manager->setNowSessionUserId(2);
    const auto keeper = okv::make<NoticeKeeper>(manager);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(change(i));
    ASSERT_TRUE(keeper->hears(100));
    EXPECT_EQ(keeper->sessionUsers, std::vector<std::int32_t>(100, 2));
    for (const auto& notice : keeper->notices) expectNoSwitch(notice);
}

TEST_F(Notices, ASwitchOfItsAccountIsFollowedByWhomeverItWasMade) {
    makeUser(2);
    const auto manager = connected();
    const auto keeper = okv::make<NoticeKeeper>(manager);
    EXPECT_EQ(manager->nowSessionUserId(), 1);
    EXPECT_TRUE(manager->setCurrentUserIdForOS(2));
    ASSERT_TRUE(keeper->hears(1));
    EXPECT_EQ(manager->nowSessionUserId(), 2);
    EXPECT_EQ(keeper->notices[0]["osuserid"], Value(kAccountOfThisProcess));
    EXPECT_EQ(keeper->notices[0]["session_userid"], Value(2));
    EXPECT_TRUE(switchAccount(getuid(), 1));
    ASSERT_TRUE(keeper->hears(2));
    EXPECT_EQ(manager->nowSessionUserId(), 1);
}

TEST_F(Notices, AnAccountHearsEveryNoticeAndIsSwitchedByItsOwnAlone) {
    if (geteuid() != 0) GTEST_SKIP() << "other accounts take root";
    makeUser(2);
    const ForeignClient client(kAnAccount);
    EXPECT_EQ(client.next(), 1) << "at the start";
    EXPECT_TRUE(change(1));
    EXPECT_EQ(client.next(), 1) << "after a change";
    EXPECT_TRUE(switchAccount(0, 2));
    EXPECT_EQ(client.next(), 1) << "after root's switch";
    EXPECT_TRUE(switchAccount(kAnAccount, 2));
    EXPECT_EQ(client.next(), 2) << "after its own";
}

TEST_F(Notices, NobodyHearsThemToo) {
    if (geteuid() != 0) GTEST_SKIP() << "other accounts take root";
    makeUser(2);
    const ForeignClient client(kNobody);
    EXPECT_EQ(client.next(), 1);
    EXPECT_TRUE(switchAccount(0, 2));
    EXPECT_EQ(client.next(), 1);
    EXPECT_TRUE(change(1));
    EXPECT_EQ(client.next(), 1);
}

TEST_F(Notices, EachAcceptedChangeIsToldOnceAndARefusedOneNever) {
    const auto manager = connected();
    const auto keeper = okv::make<NoticeKeeper>(manager);
    auto told = revision();
    std::size_t heard = 0;
    for (const auto& one : toldChanges()) {
        SCOPED_TRACE(one.name);
        EXPECT_FALSE(manager->setOKVData_value_appUid(kKey, 1, 77)) << "there is no such user";
        one.carryOut(*manager);
        ASSERT_TRUE(keeper->hears(++heard));
        ASSERT_EQ(keeper->notices.size(), heard);
        const auto& notice = keeper->notices.back();
        EXPECT_EQ(notice["revision"], Value(++told));
        EXPECT_TRUE(notice["epoch"].is<std::string>());
        EXPECT_EQ(notice["epoch"], keeper->notices.front()["epoch"]);
        EXPECT_EQ(notice["keys"], one.keys);
        EXPECT_EQ(notice["appuid"], one.appUid);
        expectNoSwitch(notice);
    }
    EXPECT_EQ(revision(), told);
}

TEST_F(Notices, AreHeardWithoutAConnectionWithoutAServerAndAcrossItsRestart) {
    const auto manager = connected();
    const auto keeper = okv::make<NoticeKeeper>(manager);
    manager->disConnectSrv();
    EXPECT_TRUE(change(1));
    ASSERT_TRUE(keeper->hears(1)) << "without a connection";
    killServer();
    okv::DistributedNotificationCenter::defaultCenter().post(
        kOKVSettingNotification, {}, Dictionary{{"osuserid", -1}, {"session_userid", 0}});
    ASSERT_TRUE(keeper->hears(2)) << "without a server";
    ASSERT_TRUE(server_.start());
    ASSERT_TRUE(keeper->hears(3)) << "of its start";
    EXPECT_FALSE(keeper->notices[2].contains("keys"));
    root_ = support::connect();
    EXPECT_TRUE(change(2));
    ASSERT_TRUE(keeper->hears(4)) << "after its restart";
    EXPECT_EQ(keeper->notices[3]["keys"], Value(Array{kKey}));
    EXPECT_EQ(keeper->notices.size(), 4U);
    EXPECT_FALSE(manager->isConnect());
}

TEST_F(Notices, TheLast10000ChangesAreToldByRevisionAndThoseBeforeMustBeReadAnew) {
    constexpr int kWriters = 50, kWrites = 201;
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([] {
            const auto root = support::connect();
            for (int i = 0; i < kWrites; ++i)
                EXPECT_TRUE(okv::send<&Data::setOKVDataPT_value_appUid>(*root, kKey, i, 1));
        });
    }
    for (auto& writer : writers) writer.join();
    const auto present = revision();
    ASSERT_EQ(present, kWriters * kWrites);
    const auto answer = okv::send<&Admin::changesPT>(*root_, Value(present - 10000));
    const auto& known = answer.as<Dictionary>();
    EXPECT_FALSE(known.contains("resync"));
    ASSERT_EQ(known["changes"].as<Array>().size(), 10000U);
    EXPECT_EQ(known["changes"].as<Array>().front().as<Dictionary>()["revision"],
              Value(present - 9999));
    const auto beyond = okv::send<&Admin::changesPT>(*root_, Value(present - 10001));
    EXPECT_EQ(beyond.as<Dictionary>()["resync"], Value(true));
    EXPECT_FALSE(beyond.as<Dictionary>().contains("changes"));
}

}  // namespace dmtest
