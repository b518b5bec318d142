#include "Support.h"

#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/ConnectionError.h>

#include <chrono>

// Connecting, registering and letting go of one data manager that is nobody's shared one.

namespace dmtest {
namespace {

using Inspector = okvDataManagerInspector;
using Center = okv::NotificationCenterInspector;
using testing::ElementsAre;
using testing::IsEmpty;

class ConnectTest : public ServerTest {};

class ServerlessTest : public ServerTest {
protected:
    ServerlessTest() : ServerTest(std::nullopt) {}
};

class RootlessTest : public ServerTest {
protected:
    RootlessTest() : ServerTest(FakeDataServer::Options{.vendsRootObject = false}) {}
};

okvDataManager* initialised() {
    return (new okvDataManager)->init();
}

}  // namespace

TEST_F(ServerlessTest, InitGivesUpAfterFiveNumberedTriesOfHalfASecondEach) {
    LoggedEntries entries;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(initialised(), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
    EXPECT_EQ(lines_.take(), linesOfAFailedConnect());
    EXPECT_THAT(entries.take(), IsEmpty()) << "these lines are no entries of the suite's log";
}

TEST_F(ServerlessTest, InitializeStoresTheObjectBeforeItConnectsAndAnswersNullWhenItCannot) {
    const auto object = okv::make<okv::Object>();
    auto* const manager = new okvDataManager;
    const okv::Object* stored = nullptr;
    lines_.watch([&](std::string_view line) {
        if (line == kConnectLine) stored = Inspector::myObj(*manager);
    });
    EXPECT_EQ(manager->initialize(object.get()), nullptr);
    EXPECT_EQ(stored, object.get());
}

TEST_F(ServerlessTest, AnInstanceThatNeverConnectedIsReleasedWithoutALine) {
    okv::make<okvDataManager>();
    EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(ServerlessTest, AFailedConnectLeavesNothingHeldAndReconnectingPermitted) {
    const auto manager = okv::make<okvDataManager>();
    EXPECT_FALSE(manager->connectSrv());
    EXPECT_FALSE(manager->isConnect());
    EXPECT_EQ(Inspector::proxy(*manager), nullptr);
    EXPECT_TRUE(Inspector::isReconnectPermitted(*manager));
    EXPECT_EQ(Center::registrationsOf(*manager), 0U);
}

TEST_F(ServerlessTest, AServerThatComesWhileItTriesIsFound) {
    lines_.watch([&](std::string_view line) {
        if (line == "-> retry connection... [2]") startServer();
    });
    const auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    ASSERT_TRUE(manager);
    EXPECT_THAT(lines_.take(), ElementsAre(kConnectLine, "-> retry connection... [1]",
                                           "-> retry connection... [2]", kConnectedLine));
}

TEST_F(ConnectTest, TheSleepComesBeforeTheFirstTryToo) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(okv::Ref<okvDataManager>::adopting(initialised()));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

TEST_F(ConnectTest, InitConnectsThenRegistersThenSeedsTheSessionUser) {
    server().answer("currentUserIdPT", 41);
    const auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    ASSERT_TRUE(manager);
    EXPECT_EQ(manager->nowSessionUserId(), 41);
    EXPECT_THAT(sent(), ElementsAre(ReceivedMessage{"registerAsClient:", "@", {"<client>"}},
                                    ReceivedMessage{"currentUserIdPT", "", {}}));
    EXPECT_THAT(lines_.take(), ElementsAre(kConnectLine, kConnectedLine));
    EXPECT_TRUE(manager->isConnect());
    EXPECT_TRUE(manager->isValid());
    EXPECT_TRUE(Inspector::isReconnectPermitted(*manager));
    EXPECT_FALSE(Inspector::hasSecondConnection(*manager));
    EXPECT_EQ(Inspector::myObj(*manager), nullptr);
}

TEST_F(ConnectTest, TheProxyIsAnsweredWhileConnectedAndNotAfterwards) {
    const auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    ASSERT_TRUE(manager->proxyObj());
    EXPECT_EQ(&manager->proxyObj()->port(), Inspector::connection(*manager).get());
    manager->disConnectSrv();
    EXPECT_EQ(manager->proxyObj(), nullptr);
}

TEST_F(ConnectTest, InitializeKeepsTheObjectWithoutRetainingIt) {
    const auto object = okv::make<okv::Object>();
    const auto manager =
        okv::Ref<okvDataManager>::adopting((new okvDataManager)->initialize(object.get()));
    EXPECT_EQ(Inspector::myObj(*manager), object.get());
    EXPECT_EQ(object->retainCount(), 1U);
}

TEST_F(ConnectTest, ADirectConnectRegistersAndDoesNotSeedTheSessionUser) {
    server().answer("currentUserIdPT", 41);
    const auto manager = okv::make<okvDataManager>();
    manager->setNowSessionUserId(-6);
    EXPECT_TRUE(manager->connectSrv());
    EXPECT_THAT(sentSelectors(), ElementsAre("registerAsClient:"));
    EXPECT_EQ(manager->nowSessionUserId(), -6);
    EXPECT_TRUE(Inspector::isReconnectPermitted(*manager));
}

TEST_F(ConnectTest, ConnectingAnswersWhatTheRegistrationAnswered) {
    server().refuseRegistration();
    const auto manager = okv::make<okvDataManager>();
    EXPECT_FALSE(manager->connectSrv());
    EXPECT_TRUE(manager->isConnect()) << "refused, but connected";
    EXPECT_TRUE(manager->proxyObj());
    EXPECT_EQ(Center::registrationsOf(*manager), 1U) << "observed whatever the answer was";
}

TEST_F(ConnectTest, ARefusedRegistrationMakesInitAnswerNullAndTheReleaseDisconnects) {
    server().refuseRegistration();
    EXPECT_EQ(initialised(), nullptr);
    EXPECT_THAT(lines_.take(), ElementsAre(kConnectLine, kConnectedLine, kDisconnectLine));
    EXPECT_THAT(sentSelectors(), ElementsAre("registerAsClient:")) << "no user is asked for";
}

TEST_F(ConnectTest, TheTeardownTakesTheObserverAwayBeforeItDisconnects) {
    auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    const auto* const address = manager.get();
    std::size_t observersWhenDisconnecting = 99;
    bool connectedWhenDisconnecting = false;
    EXPECT_EQ(Center::registrationsOf(*address), 1U);
    lines_.watch([&](std::string_view line) {
        if (line != kDisconnectLine) return;
        observersWhenDisconnecting = Center::registrationsOf(*address);
        connectedWhenDisconnecting = address->isConnect();
    });
    manager = nullptr;
    EXPECT_EQ(observersWhenDisconnecting, 0U);
    EXPECT_TRUE(connectedWhenDisconnecting) << "the line comes before the connection is let go";
}

TEST_F(ConnectTest, AnUnconnectedInstanceIsReleasedWithoutTheDisconnectLine) {
    auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    manager->disConnectSrv();
    lines_.take();
    manager = nullptr;
    EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(ConnectTest, ASecondConnectionThatSomebodySetIsReleasedWithTheInstance) {
    const auto second = okv::Connection::connectionWithRegisteredName(kOKVDataServerName);
    ASSERT_TRUE(second);
    const auto before = second->retainCount();
    auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    Inspector::setSecondConnection(*manager, second);
    EXPECT_EQ(second->retainCount(), before + 1);
    manager->disConnectSrv();
    EXPECT_TRUE(Inspector::hasSecondConnection(*manager)) << "only the first is let go";
    manager = nullptr;
    EXPECT_EQ(second->retainCount(), before);
    EXPECT_TRUE(second->isValid());
}

TEST_F(ConnectTest, TheTeardownLetsTheSecondConnectionGoAfterTheFirst) {
    const auto second = okv::Connection::connectionWithRegisteredName(kOKVDataServerName);
    ASSERT_TRUE(second);
    auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    Inspector::setSecondConnection(*manager, second);
    const auto held = second->retainCount();
    std::size_t whenDisconnecting = 0;
    lines_.watch([&](std::string_view line) {
        if (line == kDisconnectLine) whenDisconnecting = second->retainCount();
    });
    manager = nullptr;
    EXPECT_EQ(whenDisconnecting, held);
    EXPECT_EQ(second->retainCount(), held - 1);
}

TEST_F(ConnectTest, NoTimeOutIsSet) {
    const auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    EXPECT_FALSE(okv::ConnectionInspector::hasTimeout(*Inspector::connection(*manager)));
}

TEST_F(RootlessTest, ANilRootProxyMakesConnectAnswerNoWithTheConnectionStillHeld) {
    const auto manager = okv::make<okvDataManager>();
    EXPECT_FALSE(manager->connectSrv());
    EXPECT_TRUE(manager->isConnect());
    EXPECT_TRUE(manager->isValid());
    EXPECT_EQ(manager->proxyObj(), nullptr);
    EXPECT_EQ(Center::registrationsOf(*manager), 0U);
    EXPECT_THAT(lines_.take(), ElementsAre(kConnectLine, kConnectedLine));
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(manager->currentUserId(), 0);
}

TEST_F(RootlessTest, AnInitThatMeetsNoRootProxyAnswersNullAndReleasesWithoutALine) {
    EXPECT_EQ(initialised(), nullptr);
    EXPECT_THAT(lines_.take(), ElementsAre(kConnectLine, kConnectedLine));
}

TEST_F(RootlessTest, TheSharedInstanceIsNotMadeWithoutARootProxy) {
    EXPECT_EQ(okvDataManager::sharedDataManager(), nullptr);
}

TEST_F(RootlessTest, DisconnectingLetsAConnectionWithoutAProxyGoToo) {
    const auto manager = okv::make<okvDataManager>();
    EXPECT_FALSE(manager->connectSrv());
    manager->disConnectSrv();
    EXPECT_FALSE(manager->isConnect());
}

TEST_F(ConnectTest, AHangUpDuringTheRegistrationReachesTheCallerAndNothingStays) {
    server().hangUpAt("registerAsClient:");
    EXPECT_THROW(initialised(), okv::ConnectionError);
    EXPECT_THAT(lines_.take(), ElementsAre(kConnectLine, kConnectedLine, kDisconnectLine))
        << "the instance was released";
}

TEST_F(ConnectTest, AHangUpDuringTheRegistrationLeavesNoObserver) {
    server().hangUpAt("registerAsClient:");
    const auto manager = okv::make<okvDataManager>();
    EXPECT_THROW(manager->connectSrv(), okv::ConnectionError);
    EXPECT_EQ(Center::registrationsOf(*manager), 0U);
    EXPECT_FALSE(manager->isValid());
}

TEST_F(ConnectTest, AHangUpWhileSeedingReachesTheCallerAndReleasesTheInstance) {
    server().hangUpAt("currentUserIdPT");
    EXPECT_THROW(initialised(), okv::ConnectionError);
    EXPECT_THAT(lines_.take(), ElementsAre(kConnectLine, kConnectedLine))
        << "the death notice has dropped the proxy already";
}

TEST_F(ConnectTest, ClearDataDoesNothing) {
    const auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    sent();
    manager->clearData();
    EXPECT_TRUE(manager->isValid());
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(ConnectTest, InitDataSeedsTheSessionUserAndPermitsReconnecting) {
    const auto manager = okv::Ref<okvDataManager>::adopting(initialised());
    manager->disConnectSrv();
    manager->setNowSessionUserId(9);
    EXPECT_FALSE(Inspector::isReconnectPermitted(*manager));
    manager->initData();
    EXPECT_TRUE(Inspector::isReconnectPermitted(*manager));
    EXPECT_EQ(manager->nowSessionUserId(), 0) << "what a missing proxy answers";
}

}  // namespace dmtest
