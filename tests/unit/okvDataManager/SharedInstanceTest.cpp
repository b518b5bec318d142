#include "Support.h"

#include "support/Processes.h"

#include <OKVPlatform/ipc/ConnectionError.h>
#include <OKVPlatform/ipc/Publication.h>

#include <future>
#include <thread>

// The one data manager that a process shares: made once, checked at every later call.

namespace dmtest {
namespace {

using Inspector = okvDataManagerInspector;
using testing::ElementsAre;
using testing::IsEmpty;

class SharedTest : public ServerTest {
protected:
    using ServerTest::ServerTest;
    static okv::Ref<okvDataManager> shared() { return okvDataManager::sharedDataManager(); }

    // The shared instance outlives a case: where several run in one process, the next discards it.
    void SetUp() override {
        static bool isFirst = true;
        if (!std::exchange(isFirst, false)) discardShared();
    }

private:
    // The call that finds its connection dead does.
    void discardShared() {
        if (server_) server_->stop();
        {
            const FakeDataServer passing;
            const auto manager = shared();
            if (manager && !manager->isConnect()) manager->connectSrv();
        }
        ASSERT_EQ(shared(), nullptr);
        if (server_) server_->start();
        lines_.take();
    }
};

class NobodyTest : public SharedTest {
protected:
    NobodyTest() : SharedTest(std::nullopt) {}
};

// Publishes in a child and ends it in the hardest way: its socket file stays.
void leaveAStaleSocketBehind() {
    support::Child publisher([](const auto& ready) {
        std::string why;
        const auto publication = okv::Publication::publish(kOKVDataServerName, {}, {}, why);
        if (!publication) return;
        ready();
        okv::RunLoop::current()->run();
    });
    ASSERT_TRUE(publisher.isReady()) << "the child could not publish";
    publisher.end();
}

}  // namespace

TEST_F(NobodyTest, WithoutAServerEveryCallTriesAgainAndAnswersNull) {
    for (int call = 0; call < 2; ++call) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(shared(), nullptr);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
        EXPECT_EQ(lines_.take(), linesOfAFailedConnect());
    }
}

TEST_F(NobodyTest, ACallAfterAFailedOneFindsTheServerThatCameMeanwhile) {
    EXPECT_EQ(shared(), nullptr);
    startServer();
    EXPECT_TRUE(shared());
}

TEST_F(NobodyTest, TheSocketOfAKilledServerIsNobodyAndDoesNotKeepTheNextOneOut) {
    leaveAStaleSocketBehind();
    ASSERT_TRUE(std::filesystem::exists(folder_.path() / kOKVDataServerName));
    EXPECT_EQ(shared(), nullptr);
    EXPECT_EQ(lines_.take(), linesOfAFailedConnect());
    startServer();
    EXPECT_TRUE(shared());
}

TEST_F(SharedTest, EveryLaterCallAnswersTheSameInstanceAndSendsNothing) {
    const auto first = shared();
    ASSERT_TRUE(first);
    lines_.take();
    sent();
    EXPECT_EQ(shared(), first);
    EXPECT_EQ(okvDataManager::sharedDataManagerInit(nullptr), first);
    EXPECT_THAT(lines_.take(), IsEmpty());
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SharedTest, TheObjectIsHandedToANewInstanceAndIgnoredByAnExistingOne) {
    const auto first = okv::make<okv::Object>();
    const auto second = okv::make<okv::Object>();
    const auto manager = okvDataManager::sharedDataManagerInit(first.get());
    ASSERT_TRUE(manager);
    EXPECT_EQ(Inspector::myObj(*manager), first.get());
    EXPECT_EQ(okvDataManager::sharedDataManagerInit(second.get()), manager);
    EXPECT_EQ(Inspector::myObj(*manager), first.get());
}

TEST_F(SharedTest, AnInstanceMadeWithoutAnObjectTakesNoneLater) {
    const auto object = okv::make<okv::Object>();
    const auto manager = shared();
    EXPECT_EQ(okvDataManager::sharedDataManagerInit(object.get()), manager);
    EXPECT_EQ(Inspector::myObj(*manager), nullptr);
}

TEST_F(SharedTest, TenThreadsRacingForTheFirstCallGetOneInstanceAndOneRegistration) {
    const auto instances = instancesOfTenRacers();
    EXPECT_EQ(instances.size(), 1U);
    EXPECT_FALSE(instances.contains(nullptr));
    EXPECT_EQ(server().count("registerAsClient:"), 1U);
    EXPECT_EQ(server().acceptedConnections(), 1U);
}

TEST_F(SharedTest, ADeadConnectionDiscardsTheInstanceAndTheNextCallMakesANewOne) {
    const auto old = shared();
    ASSERT_TRUE(old);
    server().stop();
    EXPECT_TRUE(old->isConnect()) << "nobody has noticed yet";
    EXPECT_FALSE(old->isValid());
    lines_.take();
    EXPECT_EQ(shared(), nullptr);
    EXPECT_THAT(lines_.take(), IsEmpty()) << "nothing is created in the call that discards";
    server().start();
    const auto anew = shared();
    ASSERT_TRUE(anew);
    EXPECT_NE(anew, old);
    EXPECT_TRUE(anew->isValid());
}

TEST_F(SharedTest, DiscardingReleasesTheInstanceWhichDisconnects) {
    shared();
    server().stop();
    lines_.take();
    EXPECT_EQ(shared(), nullptr);
    EXPECT_THAT(lines_.take(), ElementsAre(kDisconnectLine));
}

TEST_F(SharedTest, AConnectionWhoseDeathTheRunLoopTellsIsMadeAgainForTheSameInstance) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    EXPECT_EQ(Inspector::proxy(*manager), nullptr);
    EXPECT_TRUE(Inspector::isReconnectPermitted(*manager));
    server().start();
    server().answer("currentUserIdPT", 17);
    lines_.take();
    sent();
    LoggedEntries entries;
    EXPECT_EQ(shared(), manager);
    EXPECT_TRUE(manager->isValid());
    EXPECT_THAT(lines_.take(), ElementsAre(kReconnectLine, kConnectLine, kConnectedLine));
    EXPECT_THAT(entries.take(), IsEmpty());
    EXPECT_THAT(sentSelectors(), ElementsAre("registerAsClient:", "currentUserIdPT"));
    EXPECT_EQ(manager->nowSessionUserId(), 17) << "seeded at every reconnection";
}

TEST_F(SharedTest, TheOperationWithAnObjectDiscardsAndReconnectsInTheSameWay) {
    const auto object = okv::make<okv::Object>();
    const auto old = shared();
    ASSERT_TRUE(old);
    server().stop();
    EXPECT_EQ(okvDataManager::sharedDataManagerInit(object.get()), nullptr);
    server().start();
    const auto anew = okvDataManager::sharedDataManagerInit(object.get());
    ASSERT_TRUE(anew);
    EXPECT_NE(anew, old);
    EXPECT_EQ(Inspector::myObj(*anew), object.get());
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !anew->isConnect(); }));
    server().start();
    EXPECT_EQ(okvDataManager::sharedDataManagerInit(nullptr), anew);
    EXPECT_TRUE(anew->isValid());
    EXPECT_EQ(Inspector::myObj(*anew), object.get());
}

TEST_F(SharedTest, TenThreadsRacingForADroppedInstanceReconnectItOnce) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    server().start();
    sent();
    EXPECT_EQ(instancesOfTenRacers(), std::set<okvDataManager*>{manager.get()});
    EXPECT_EQ(server().count("registerAsClient:"), 1U);
}

TEST_F(SharedTest, ADroppedInstanceThatCannotReconnectIsDiscarded) {
    auto manager = shared();
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    lines_.take();
    auto expected = linesOfAFailedConnect();
    expected.insert(expected.begin(), kReconnectLine);
    EXPECT_EQ(shared(), nullptr);
    EXPECT_EQ(lines_.take(), expected);
    EXPECT_TRUE(Inspector::isReconnectPermitted(*manager));
    server().start();
    const auto anew = shared();
    ASSERT_TRUE(anew);
    EXPECT_NE(anew, manager);
}

TEST_F(SharedTest, ARefusedReconnectionDiscardsTheInstance) {
    auto manager = shared();
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    server().start();
    server().refuseRegistration();
    EXPECT_EQ(shared(), nullptr);
}

TEST_F(SharedTest, WhatTheServerDisconnectedIsKeptUnconnectedAndSaysSoAtEachCall) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    lines_.take();
    server().disconnectClients();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    EXPECT_FALSE(Inspector::isReconnectPermitted(*manager));
    EXPECT_THAT(lines_.take(), ElementsAre(kDisconnectLine));
    for (int call = 0; call < 3; ++call) {
        EXPECT_EQ(shared(), manager);
        EXPECT_FALSE(manager->isConnect());
        EXPECT_THAT(lines_.take(), ElementsAre(kReconnectLine));
    }
    EXPECT_EQ(server().acceptedConnections(), 1U);
}

TEST_F(SharedTest, TheThreadThatHoldsTheMonitorMayEnterItAgain) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    manager->disConnectSrv();
    lines_.take();
    okv::Ref<okvDataManager> nested;
    bool isNested = false;
    lines_.watch([&](std::string_view line) {
        if (line != kReconnectLine || std::exchange(isNested, true)) return;
        nested = shared();
        EXPECT_EQ(okvDataManager::sharedDataManagerInit(nullptr), nested);
    });
    EXPECT_EQ(shared(), manager);
    EXPECT_EQ(nested, manager);
    EXPECT_THAT(lines_.take(), ElementsAre(kReconnectLine, kReconnectLine, kReconnectLine));
}

TEST_F(SharedTest, ARegistrationThatWasRefusedAnswersNullAndTheNextCallTriesAgain) {
    server().refuseRegistration();
    EXPECT_EQ(shared(), nullptr);
    server().answer("registerAsClient:", true);
    EXPECT_TRUE(shared());
}

TEST_F(SharedTest, OnlyADirectConnectLeavesTheDisconnectedState) {
    server().answer("currentUserIdPT", 5);
    const auto manager = shared();
    manager->disConnectSrv();
    manager->setNowSessionUserId(2);
    lines_.take();
    EXPECT_TRUE(manager->reconnectSrv()) << "fit for use, though unconnected";
    EXPECT_FALSE(manager->isConnect());
    EXPECT_TRUE(manager->connectSrv());
    EXPECT_THAT(lines_.take(), ElementsAre(kReconnectLine, kConnectLine, kConnectedLine));
    EXPECT_EQ(shared(), manager);
    EXPECT_TRUE(manager->isValid());
    EXPECT_TRUE(Inspector::isReconnectPermitted(*manager));
    EXPECT_EQ(manager->nowSessionUserId(), 2) << "a direct connect does not seed";
}

TEST_F(SharedTest, AHangUpDuringTheRegistrationThrowsAndLeavesTheMonitorFree) {
    server().hangUpAt("registerAsClient:");
    EXPECT_THROW(shared(), okv::ConnectionError);
    server().answer("registerAsClient:", true);
    auto other = std::async(std::launch::async, [] { return okvDataManager::sharedDataManager(); });
    ASSERT_EQ(other.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_TRUE(other.get());
}

TEST_F(SharedTest, AHangUpDuringAReconnectionThrowsAndTheNextCallsRecover) {
    const auto manager = shared();
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    server().start();
    server().hangUpAt("registerAsClient:");
    EXPECT_THROW(shared(), okv::ConnectionError);
    server().answer("registerAsClient:", true);
    auto recovered = shared();
    if (!recovered) recovered = shared();  // where the dead connection was still held
    ASSERT_TRUE(recovered);
    EXPECT_TRUE(recovered->isValid());
}

TEST_F(SharedTest, AForkedChildDiscardsWhatItInheritedAndMakesItsOwn) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    const bool succeeded = succeedsInAChild([&] {
        EXPECT_TRUE(manager->isConnect());
        EXPECT_FALSE(manager->isValid());
        EXPECT_THROW(manager->currentUserId(), okv::ConnectionError);
        EXPECT_EQ(shared(), nullptr);
        const auto own = shared();
        ASSERT_TRUE(own);
        EXPECT_NE(own, manager);
        EXPECT_TRUE(own->isValid());
    });
    EXPECT_TRUE(succeeded);
    EXPECT_EQ(server().count("registerAsClient:"), 2U);
    EXPECT_TRUE(manager->isValid()) << "the parent's connection is untouched";
    EXPECT_EQ(shared(), manager);
}

TEST_F(NobodyTest, AForkedChildDoesNotWaitForAThreadOfItsParentThatIsConnecting) {
    std::promise<void> connecting;
    std::atomic<bool> told{false};
    lines_.watch([&](std::string_view line) {
        if (line == kConnectLine && !told.exchange(true)) connecting.set_value();
    });
    auto other = std::async(std::launch::async, [] { return shared(); });
    connecting.get_future().wait();
    EXPECT_TRUE(succeedsInAChild([] { EXPECT_EQ(shared(), nullptr); }));
    EXPECT_EQ(other.get(), nullptr);
}

TEST_F(SharedTest, AForkedChildDoesNotWaitForAThreadOfItsParentThatIsCalling) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    support::expectChildrenSucceedWhile([&] { manager->proxyObj(); },
                                        [&] {
                                            EXPECT_FALSE(manager->isValid());
                                            EXPECT_TRUE(manager->proxyObj());
                                        });
}

TEST_F(SharedTest, AHeldConnectionWithoutAProxyIsKeptAsLongAsItIsAlive) {
    const auto manager = shared();
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    startServer({.vendsRootObject = false});
    EXPECT_FALSE(manager->connectSrv());
    EXPECT_EQ(manager->proxyObj(), nullptr);
    EXPECT_EQ(shared(), manager) << "only the connection's validity decides";
    server().stop();
    EXPECT_EQ(shared(), nullptr);
}

}  // namespace dmtest
