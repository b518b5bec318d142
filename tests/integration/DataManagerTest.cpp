#include "Support.h"

#include "support/Sanitizers.h"

#include <csignal>
#include <filesystem>

// The data manager beside the real data server, which dies, ends and comes back. Every case runs in
// a process of its own.

namespace dmtest {
namespace {

using testing::ElementsAre;

class DataManagerProcess : public RealServerTest {
protected:
    /// Makes the user, and makes it the current one of the account that runs this process.
    static void makeCurrentUser(std::int32_t user) {
        const auto root = support::connect();
        okv::send<&Data::setUseridPT_applyUid>(*root, static_cast<std::int32_t>(kAnAccount), user);
        EXPECT_TRUE(okv::send<&Data::setCurrentUserIdForOSPT>(*root, Value(user)));
    }
    void endServer() {
        okv::send<&Data::endServer>(*support::connect());
        EXPECT_EQ(server_.wait(), 0);
    }
};

}  // namespace

// Under the thread sanitizer a process has a thread of the sanitizer's beside its own.
#if !defined(OKV_THREAD_SANITIZER)
TEST_F(DataManagerProcess, AConnectedClientHasExactlyOneThread) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    EXPECT_EQ(manager->defaultUserId(), 1);
    const std::filesystem::directory_iterator threads("/proc/self/task");
    EXPECT_EQ(std::distance(begin(threads), end(threads)), 1);
}
#endif

TEST_F(DataManagerProcess, AServerKilledWhileNobodyRunsALoopIsSeenByTheNextCallWhichAnswersNull) {
    const auto old = shared();
    ASSERT_TRUE(old);
    EXPECT_TRUE(old->isValid());
    killServer();
    EXPECT_FALSE(old->isValid());
    EXPECT_TRUE(old->isConnect()) << "a look drops nothing";
    ASSERT_TRUE(server_.start());
    EXPECT_EQ(shared(), nullptr) << "although the server is back";
    const auto anew = shared();
    ASSERT_TRUE(anew);
    EXPECT_NE(anew, old);
    EXPECT_TRUE(anew->isValid());
    EXPECT_EQ(anew->defaultUserId(), 1);
}

TEST_F(DataManagerProcess, AServerKilledBesideARunLoopIsReconnectedByTheSameInstance) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    killServer();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    EXPECT_EQ(manager->proxyObj(), nullptr);
    ASSERT_TRUE(server_.start());
    lines_.take();
    EXPECT_EQ(shared(), manager);
    EXPECT_TRUE(manager->isValid());
    EXPECT_THAT(lines_.take(), ElementsAre(kReconnectLine, kConnectLine, kConnectedLine));
    EXPECT_EQ(okv::send<&Data::connectCount>(*support::connect()), 1);
}

TEST_F(DataManagerProcess, TheCallThatMeetsAKilledServerThrowsAndDropsSoThatTheNextOneReconnects) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    killServer();
    EXPECT_THROW(manager->defaultUserId(), okv::ConnectionError);
    EXPECT_FALSE(manager->isConnect());
    EXPECT_EQ(manager->defaultUserId(), 0) << "dropped: a default, and nothing thrown";
    ASSERT_TRUE(server_.start());
    EXPECT_EQ(shared(), manager);
    EXPECT_EQ(manager->defaultUserId(), 1);
}

TEST_F(DataManagerProcess, AServerThatIsToldToEndDisconnectsItsClientsForGood) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    lines_.take();
    endServer();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    EXPECT_THAT(lines_.take(), ElementsAre(kDisconnectLine));
    ASSERT_TRUE(server_.start());
    EXPECT_EQ(shared(), manager);
    EXPECT_FALSE(manager->isConnect()) << "it was told to disconnect";
    EXPECT_THAT(lines_.take(), ElementsAre(kReconnectLine));
    EXPECT_EQ(manager->defaultUserId(), 0);
    EXPECT_TRUE(manager->connectSrv());
    EXPECT_EQ(manager->defaultUserId(), 1);
}

TEST_F(DataManagerProcess, AServerThatASignalEndsIsFoundAgain) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    server_.signal(SIGTERM);
    EXPECT_EQ(server_.wait(), 0);
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    ASSERT_TRUE(server_.start());
    EXPECT_EQ(shared(), manager);
    EXPECT_TRUE(manager->isValid());
}

TEST_F(DataManagerProcess, TheSocketOfAKilledServerIsNobodyAndDoesNotKeepTheNextOneOut) {
    killServer();
    ASSERT_TRUE(std::filesystem::exists(server_.runtimeFolder() + "/" + kOKVDataServerName));
    EXPECT_EQ(shared(), nullptr);
    EXPECT_EQ(lines_.take(), linesOfAFailedConnect());
    ASSERT_TRUE(server_.start());
    EXPECT_TRUE(shared());
}

TEST_F(DataManagerProcess, TenThreadsRacingForTheFirstCallAreOneClient) {
    const auto instances = instancesOfTenRacers();
    EXPECT_EQ(instances.size(), 1U);
    EXPECT_FALSE(instances.contains(nullptr));
    EXPECT_EQ(okv::send<&Data::connectCount>(*support::connect()), 1);
}

TEST_F(DataManagerProcess, AReleasedOneIsNoClientAnyMore) {
    auto manager = connected();
    const auto root = support::connect();
    EXPECT_EQ(okv::send<&Data::connectCount>(*root), 1);
    manager = nullptr;
    EXPECT_TRUE(serveUntil([&] { return okv::send<&Data::connectCount>(*root) == 0; }));
}

TEST_F(DataManagerProcess, TheSessionUserIsTheServersCurrentOneAfterEveryConnectionButADirectOne) {
    makeCurrentUser(5);
    const auto manager = shared();
    ASSERT_TRUE(manager);
    EXPECT_EQ(manager->nowSessionUserId(), 5) << "the first connection";
    makeCurrentUser(6);
    EXPECT_EQ(manager->nowSessionUserId(), 5) << "nothing is followed without a notice";
    killServer();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    ASSERT_TRUE(server_.start());
    EXPECT_EQ(shared(), manager);
    EXPECT_EQ(manager->nowSessionUserId(), 6) << "a reconnection";
    manager->disConnectSrv();
    manager->setNowSessionUserId(42);
    ASSERT_TRUE(manager->connectSrv());
    EXPECT_EQ(manager->nowSessionUserId(), 42) << "a direct connection";
    manager->okvData(kKey);
    EXPECT_EQ(manager->nowSessionUserId(), 1) << "the default user, at the next read";
}

TEST_F(DataManagerProcess, AUserThatIsRemovedIsNotUsedAnyMore) {
    makeCurrentUser(5);
    const auto manager = connected();
    EXPECT_TRUE(manager->setOKVData_value(kKey, "of user 5"));
    EXPECT_TRUE(manager->setOKVData_value_appUid(kKey, "of user 1", 1));
    EXPECT_EQ(manager->okvData(kKey), Value("of user 5"));
    EXPECT_TRUE(manager->removeUserInfo(5));
    EXPECT_FALSE(manager->setOKVData_value(kKey, "of nobody")) << "a write takes it as it stands";
    EXPECT_EQ(manager->okvData(kKey), Value("of user 1"));
    EXPECT_EQ(manager->nowSessionUserId(), 1);
}

}  // namespace dmtest
