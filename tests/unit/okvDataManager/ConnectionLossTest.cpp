#include "Support.h"

#include <OKVPlatform/ipc/ConnectionError.h>
#include <OKVPlatform/ipc/Publication.h>

#include <OKVTesting/ServiceThread.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <thread>

// What becomes of a connected data manager when its connection, or another one, ends.

namespace dmtest {
namespace {

using Inspector = okvDataManagerInspector;
using Center = okv::NotificationCenterInspector;
using testing::ElementsAre;
using testing::IsEmpty;

using LossTest = ConnectedTest;

/// Does something when the last reference to it goes.
class LastWish final : public okv::MessagePort {
public:
    explicit LastWish(std::function<void()> wish) : wish_(std::move(wish)) {}
    void callAndRead(std::string&, okv::ReplyReader&) override {}
    void post(std::string) override {}
    void sendAnswer(std::string) override {}
    const okv::PeerIdentity& peer() const noexcept override { return peer_; }
    void lend(std::uint64_t) override {}

protected:
    void dealloc() override { wish_(); }

private:
    const std::function<void()> wish_;
    const okv::PeerIdentity peer_{};
};

class DeathCounter final : public okv::Object {
public:
    DeathCounter() {
        okv::NotificationCenter::defaultCenter().addObserver(*this, &DeathCounter::note,
                                                             okv::NSConnectionDidDieNotification);
    }
    void note(const okv::LocalNotification&) { ++deaths; }
    std::atomic<int> deaths{0};

protected:
    void dealloc() override {
        okv::NotificationCenter::defaultCenter().removeObserver(
            *this, okv::NSConnectionDidDieNotification);
    }
};

// Every method's answer is YES.
void answerYes(void*, okv::IncomingRequest& request) {
    std::string frame;
    okv::beginFrame(frame, okv::FrameKind::reply);
    okv::CborWriter(frame).boolean(true);
    okv::finishFrame(frame, 0, 0);
    request.answer(std::move(frame));
}

void postDeathOf(okv::Object* object) {
    okv::NotificationCenter::defaultCenter().post({okv::NSConnectionDidDieNotification, object});
}

}  // namespace

TEST_F(LossTest, ALookSeesTheDeadServerAndDropsNothing) {
    server().stop();
    EXPECT_FALSE(manager().isValid());
    EXPECT_FALSE(manager().isValid());
    EXPECT_TRUE(manager().isConnect());
    EXPECT_TRUE(manager().proxyObj());
    EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(LossTest, TheDeathNoticeDropsConnectionAndProxyWithoutALine) {
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager().isConnect(); }));
    EXPECT_EQ(Inspector::proxy(manager()), nullptr);
    EXPECT_FALSE(manager().isValid());
    EXPECT_TRUE(Inspector::isReconnectPermitted(manager()));
    EXPECT_EQ(manager().nowSessionUserId(), 7);
    EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(LossTest, AHeldButDeadConnectionThrowsAndDoesNotAnswerDefaults) {
    server().stop();
    EXPECT_THROW(manager().settingServPort(), okv::ConnectionError);
    EXPECT_FALSE(manager().isConnect()) << "the failed call has told of the death";
    EXPECT_EQ(manager().settingServPort(), 443);
}

TEST_F(LossTest, AHangUpInsteadOfAnAnswerThrowsThatTheOutcomeIsUnknown) {
    server().hangUpAt("setOKVDataPT:value:appUid:");
    try {
        manager().setOKVData_value("dc-gui-colour", 1);
        ADD_FAILURE() << "did not throw";
    } catch (const okv::ConnectionError& error) {
        EXPECT_EQ(error.kind(), okv::ConnectionError::Kind::outcomeUnknown);
    }
    EXPECT_FALSE(manager().isConnect());
}

TEST_F(LossTest, AnAnswerOfTheWrongTypeThrowsAndTheConnectionStays) {
    server().answer("maxUserIdPT", "not a number");
    EXPECT_THROW(manager().maxUserId(), okv::ConnectionError);
    EXPECT_TRUE(manager().isValid());
}

TEST_F(LossTest, BytesThatAreNoAnswerThrowAndEndTheConnection) {
    server().answerGarbage("useridAppListPT");
    EXPECT_THROW(manager().userIdList(), okv::ConnectionError);
    EXPECT_FALSE(manager().isValid());
}

TEST_F(LossTest, ReconnectingAfterADeathRegistersSeedsAndObservesOnceMore) {
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager().isConnect(); }));
    server().start();
    server().answer("currentUserIdPT", 3);
    EXPECT_EQ(Center::registrationsOf(manager()), 1U);
    EXPECT_TRUE(manager().reconnectSrv());
    EXPECT_EQ(Center::registrationsOf(manager()), 2U) << "once per connection";
    EXPECT_THAT(sentSelectors(), ElementsAre("registerAsClient:", "currentUserIdPT"));
    EXPECT_EQ(manager().nowSessionUserId(), 3);
    EXPECT_THAT(lines_.take(), ElementsAre(kReconnectLine, kConnectLine, kConnectedLine));
}

TEST_F(LossTest, TheHandlerThatIsCalledTwiceDoesNoHarm) {
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager().isConnect(); }));
    server().start();
    ASSERT_TRUE(manager().reconnectSrv());
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager().isConnect(); }));
    manager().removeInvalidServerConnection({okv::NSConnectionDidDieNotification, nullptr});
    EXPECT_FALSE(manager().isConnect());
    server().start();
    EXPECT_TRUE(manager().reconnectSrv());
    EXPECT_TRUE(manager().isValid());
}

TEST_F(LossTest, EveryRegistrationGoesWithTheInstance) {
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager().isConnect(); }));
    server().start();
    ASSERT_TRUE(manager().reconnectSrv());
    const auto* const address = manager_.get();
    std::size_t left = 99;
    lines_.watch([&](std::string_view line) {
        if (line == kDisconnectLine) left = Center::registrationsOf(*address);
    });
    manager_ = nullptr;
    EXPECT_EQ(left, 0U);
}

TEST_F(LossTest, ReconnectingAConnectedOneOnlyLogs) {
    EXPECT_TRUE(manager().reconnectSrv());
    EXPECT_THAT(lines_.take(), ElementsAre(kReconnectLine));
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(LossTest, ReconnectingLooksOnlyWhetherAConnectionIsHeldNotWhetherItLives) {
    server().stop();
    EXPECT_TRUE(manager().reconnectSrv());
    EXPECT_FALSE(manager().isValid());
    EXPECT_THAT(lines_.take(), ElementsAre(kReconnectLine));
}

TEST_F(LossTest, AFailedReconnectionStaysDroppedAndMayBeTriedAgain) {
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager().isConnect(); }));
    EXPECT_FALSE(manager().reconnectSrv());
    EXPECT_FALSE(manager().isConnect());
    EXPECT_TRUE(Inspector::isReconnectPermitted(manager()));
    server().start();
    EXPECT_TRUE(manager().reconnectSrv());
}

TEST_F(LossTest, TheDeathOfAnotherConnectionChangesNothing) {
    {
        okv::testing::ServiceThread other("jp.nrm.test.other", {});
        const auto connection = okv::Connection::connectionWithRegisteredName("jp.nrm.test.other");
        ASSERT_TRUE(connection);
        other.stop();
        ASSERT_TRUE(serveUntil([&] { return !connection->isValid(); }));
        serveForAWhile();
    }
    postDeathOf(nullptr);
    EXPECT_TRUE(manager().isValid());
    EXPECT_EQ(manager().currentUserId(), 7);
}

TEST_F(LossTest, TheNoticeAboutAnotherConnectionDropsOnesOwnDeadOneToo) {
    server().stop();
    const auto stranger = okv::make<okv::Object>();
    postDeathOf(stranger.get());
    EXPECT_FALSE(manager().isConnect());
    EXPECT_EQ(Inspector::proxy(manager()), nullptr);
}

TEST_F(LossTest, DisconnectingLetsTheConnectionGoWithoutADeathNotice) {
    const auto connection = Inspector::connection(manager());
    manager().disConnectSrv();
    EXPECT_THAT(lines_.take(), ElementsAre(kDisconnectLine));
    EXPECT_FALSE(manager().isConnect());
    EXPECT_FALSE(Inspector::isReconnectPermitted(manager()));
    EXPECT_TRUE(connection->isValid()) << "released, not invalidated";
    EXPECT_EQ(Center::registrationsOf(manager()), 1U) << "still observing";
}

TEST_F(LossTest, DisconnectingHangsUpAtTheServerWithoutADeathNotice) {
    server().stop();
    std::promise<void> hungUp;
    okv::testing::ServiceThread counting(
        kOKVDataServerName, {&answerYes, nullptr, nullptr},
        {.disconnected = [&](okv::MessagePort&) { hungUp.set_value(); }});
    const auto clients = [&] {
        std::size_t count = 0;
        counting.on([&](okv::Publication& publication) { count = publication.connectionCount(); });
        return count;
    };
    ASSERT_TRUE(manager().connectSrv());
    EXPECT_EQ(clients(), 1U);
    const auto counter = okv::make<DeathCounter>();
    manager().disConnectSrv();
    EXPECT_EQ(hungUp.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_EQ(clients(), 0U);
    serveForAWhile();
    EXPECT_EQ(counter->deaths, 0);
}

// The other thread's part is played by what is released between the two fields that are cleared.
TEST_F(LossTest, DisconnectingWhileAnotherThreadConnectsLeavesNoProxyOfTheNewConnection) {
    bool connected = false;
    Inspector::setProxy(
        manager(),
        okv::make<okv::RemoteObject>(
            okv::make<LastWish>([&] { connected = manager().connectSrv(); }), okv::kRootObject));
    manager().disConnectSrv();
    EXPECT_TRUE(connected);
    EXPECT_FALSE(manager().isConnect());
    EXPECT_EQ(Inspector::proxy(manager()), nullptr);
    EXPECT_EQ(manager().currentUserId(), 0);
}

TEST_F(LossTest, DisconnectingTwiceLogsTwice) {
    manager().disConnectSrv();
    manager().disConnectSrv();
    EXPECT_THAT(lines_.take(), ElementsAre(kDisconnectLine, kDisconnectLine));
}

TEST_F(LossTest, TheServersDisconnectIsServedByTheRunLoopAndNotBefore) {
    server().disconnectClients();
    EXPECT_EQ(manager().currentUserId(), 7) << "a call that reads it does not serve it";
    EXPECT_TRUE(manager().isConnect());
    ASSERT_TRUE(serveUntil([&] { return !manager().isConnect(); }));
    EXPECT_FALSE(Inspector::isReconnectPermitted(manager()));
    EXPECT_THAT(lines_.take(), ElementsAre(kDisconnectLine));
    EXPECT_EQ(manager().currentUserId(), 0);
    EXPECT_THAT(sentSelectors(), ElementsAre("currentUserIdPT"));
}

TEST_F(LossTest, WhatTheServerDisconnectedStaysUnconnectedWhenTheServerThenGoes) {
    server().disconnectClients();
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager().isConnect(); }));
    serveForAWhile();
    EXPECT_FALSE(Inspector::isReconnectPermitted(manager()))
        << "what was asked before the hang-up comes first";
}

TEST_F(LossTest, ADirectConnectReplacesALivingConnection) {
    const auto before = Inspector::connection(manager());
    EXPECT_TRUE(manager().connectSrv());
    EXPECT_NE(Inspector::connection(manager()), before);
    EXPECT_EQ(&manager().proxyObj()->port(), Inspector::connection(manager()).get());
    EXPECT_EQ(server().acceptedConnections(), 2U);
}

TEST_F(LossTest, ADirectConnectThatFindsNobodyDropsALivingConnection) {
    const auto before = Inspector::connection(manager());
    std::filesystem::remove(folder_.path() / kOKVDataServerName);
    EXPECT_FALSE(manager().connectSrv());
    EXPECT_TRUE(before->isValid());
    EXPECT_FALSE(manager().isConnect());
    EXPECT_EQ(Inspector::proxy(manager()), nullptr);
}

TEST_F(LossTest, ADirectConnectThatIsRefusedLeavesNoProxyOfTheConnectionBefore) {
    server().stop();
    okv::testing::ServiceThread full(kOKVDataServerName, {}, {.maxConnections = 0});
    EXPECT_THROW(manager().connectSrv(), okv::ConnectionError);
    EXPECT_EQ(Inspector::proxy(manager()), nullptr);
    EXPECT_EQ(manager().currentUserId(), 0);
}

TEST_F(LossTest, DisconnectingADroppedOneForbidsReconnectingToo) {
    server().stop();
    ASSERT_TRUE(serveUntil([&] { return !manager().isConnect(); }));
    manager().disConnectSrv();
    EXPECT_FALSE(Inspector::isReconnectPermitted(manager()));
    server().start();
    EXPECT_TRUE(manager().reconnectSrv());
    EXPECT_FALSE(manager().isConnect());
}

TEST_F(LossTest, AMethodWithoutAResultWaitsForItsAnswerToo) {
    using Manager = okvDataManager;
    const std::pair<const char*, void (*)(Manager&)> calls[] = {
        {"setUseridPT:applyUid:", [](Manager& m) { m.setUserid_applyUid(501, 3); }},
        {"setServerTimePT:", [](Manager& m) { m.setServerTime(okv::Date{1}); }},
        {"startServerTimeTimer", [](Manager& m) { m.startServerTimeTimer(); }},
        {"stopServerTimeTimer", [](Manager& m) { m.stopServerTimeTimer(); }}};
    for (const auto& [selector, call] : calls) {
        SCOPED_TRACE(selector);
        server().hangUpAt(selector);
        EXPECT_THROW(call(manager()), okv::ConnectionError);
        ASSERT_TRUE(manager().connectSrv());
    }
}

TEST_F(LossTest, CallsAndADisconnectOnOtherThreadsDoNotDisturbEachOther) {
    std::atomic<int> strange{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([&] {
            for (int call = 0; call < 300; ++call) {
                const auto user = manager().currentUserId();
                if (user != 7 && user != 0) ++strange;
            }
        });
    }
    while (server().count("currentUserIdPT") < 50) std::this_thread::yield();
    manager().disConnectSrv();
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(strange, 0);
    EXPECT_EQ(manager().currentUserId(), 0);
    EXPECT_EQ(server().acceptedConnections(), 1U) << "all threads share one";
}

}  // namespace dmtest
