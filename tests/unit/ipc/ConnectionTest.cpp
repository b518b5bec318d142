#include "ConnectionFixture.h"

#include "support/ForkedChild.h"

#include <unistd.h>

#include <atomic>
#include <thread>

using namespace connection_test;

TEST_F(ConnectionTest, CarriesEveryTypeThereAndBack) {
    const Value rich =
        okv::Dictionary{{"a", okv::Array{1, 2.5, okv::Null{}, Value()}}, {7, okv::Data{1, 2}}};
    EXPECT_EQ(okv::send<&Desk::echo>(*root_, rich), rich);
    EXPECT_EQ(okv::send<&Desk::echo>(*root_, "text"), Value("text"));
    EXPECT_EQ(okv::send<&Desk::echo>(*root_, Value()), Value());
    EXPECT_EQ(okv::send<&Desk::sum_with>(*root_, -2000000000, 5), -1999999995);
    EXPECT_TRUE(okv::send<&Desk::isTrue>(*root_, true));
    EXPECT_FALSE(okv::send<&Desk::isTrue>(*root_, false));
    okv::send<&Desk::nothing>(*root_);
}

TEST_F(ConnectionTest, CarriesSixteenMebibytesAndRefusesMoreBeforeSending) {
    const std::string large(15U << 20, 'x');
    EXPECT_EQ(okv::send<&Desk::echo>(*root_, large), Value(large));
    EXPECT_THROW(okv::send<&Desk::echo>(*root_, std::string(17U << 20, 'x')), std::length_error);
    EXPECT_EQ(okv::send<&Desk::sum_with>(*root_, 1, 2), 3);
}

TEST_F(ConnectionTest, LargeAndSmallRepliesInTurnsAreTheirOwnCallsFromManyThreads) {
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 4; ++caller) {
        callers.emplace_back([this, caller] {
            for (const std::size_t size : {10U, 300000U, 300001U, 70000U, 3U, 1U << 20, 20000U}) {
                const std::string text(size + static_cast<std::size_t>(caller), 'x');
                EXPECT_EQ(okv::send<&Desk::echo>(*root_, text), Value(text));
            }
        });
    }
    for (auto& caller : callers) caller.join();
}

TEST_F(ConnectionTest, WhatAReaderThrowsComesOutOfItsCallOnly) {
    class Thrower final : public okv::ReplyReader {
    public:
        void read(std::string_view) override { throw std::range_error("not to my taste"); }
    } thrower;
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, "echo:", "@");
    okv::CborWriter(frame).text("x");
    okv::finishRequest(frame);
    EXPECT_THROW(connection_->callAndRead(frame, thrower), std::range_error);
    EXPECT_EQ(okv::send<&Desk::echo>(*root_, "text"), Value("text"));
}

TEST_F(ConnectionTest, TheRootObjectCanBeAskedForAgainOnceThePeerHasGreeted) {
    const auto again = connection_->rootProxy();
    ASSERT_TRUE(again);
    EXPECT_EQ(okv::send<&Desk::sum_with>(*again, 1, 2), 3);
}

TEST_F(ConnectionTest, AnUnknownSelectorFailsThatCallOnly) {
    EXPECT_EQ(failureOf([&] { okv::send<&Stranger::unheardOf>(*root_); }),
              ConnectionError::Kind::notUnderstood);
    EXPECT_EQ(okv::send<&Desk::sum_with>(*root_, 1, 2), 3);
}

TEST_F(ConnectionTest, OtherArgumentTypesFailThatCallOnly) {
    EXPECT_EQ(failureOf([&] { okv::send<&Stranger::echo>(*root_, 1); }),
              ConnectionError::Kind::notUnderstood);
    EXPECT_EQ(okv::send<&Desk::sum_with>(*root_, 1, 2), 3);
}

TEST_F(ConnectionTest, BytesBehindAResultFailThatCallOnly) {
    EXPECT_EQ(failureOf([&] { okv::send<&Stranger::tooMuch>(*root_); }),
              ConnectionError::Kind::badData);
    EXPECT_EQ(failureOf([&] { okv::sendForAnswer<&Stranger::tooMuch>(*root_); }),
              ConnectionError::Kind::badData);
    EXPECT_EQ(okv::send<&Desk::sum_with>(*root_, 1, 2), 3);
}

TEST_F(ConnectionTest, ARefusalTravelsBesideTheZeroValue) {
    EXPECT_FALSE(okv::send<&Desk::refused>(*root_));
    const auto answer = okv::sendForAnswer<&Desk::refused>(*root_);
    EXPECT_FALSE(answer.value);
    ASSERT_TRUE(answer.refusal);
    EXPECT_EQ(answer.refusal->kind, okv::Refusal::Kind::locked);
    EXPECT_EQ(answer.refusal->reason, "the drawer is locked");
    EXPECT_FALSE(okv::sendForAnswer<&Desk::nothing>(*root_).refusal);
}

TEST_F(ConnectionTest, ACallbackIsServedByTheRunLoopAndNotBefore) {
    auto bell = okv::make<BellObject>();
    EXPECT_TRUE(okv::send<&Desk::lendBell>(*root_, okv::lend<Bell>(*bell)));
    okv::send<&Desk::ringBell>(*root_);
    okv::send<&Desk::nothing>(*root_);
    EXPECT_EQ(bell->rings, 0);
    serveUntil([&] { return bell->rings == 1; });
}

TEST_F(ConnectionTest, ACallMadeInsideACallbackIsAnswered) {
    auto bell = okv::make<BellObject>();
    std::int32_t sum = 0;
    bell->onRing = [&] { sum = okv::send<&Desk::sum_with>(*root_, 20, 1); };
    okv::send<&Desk::lendBell>(*root_, okv::lend<Bell>(*bell));
    okv::send<&Desk::ringBell>(*root_);
    serveUntil([&] { return sum == 21; });
}

TEST_F(ConnectionTest, ACallbackMayDropTheLastReferenceToItsConnection) {
    auto bell = okv::make<BellObject>();
    bell->onRing = [&] {
        root_ = nullptr;
        connection_ = nullptr;
    };
    okv::send<&Desk::lendBell>(*root_, okv::lend<Bell>(*bell));
    okv::send<&Desk::ringBell>(*root_);
    serveUntil([&] { return bell->rings == 1; });
    EXPECT_EQ(mourner_->deaths, 0) << "releasing closes silently";
}

TEST_F(ConnectionTest, AWithdrawnObjectIsNotCalled) {
    auto bell = okv::make<BellObject>();
    okv::send<&Desk::lendBell>(*root_, okv::lend<Bell>(*bell));
    bell = nullptr;
    okv::send<&Desk::ringBell>(*root_);
    RunLoop::current()->runUntil(RunLoop::Clock::now() + std::chrono::milliseconds(20));
    EXPECT_EQ(okv::send<&Desk::sum_with>(*root_, 1, 2), 3);
}

TEST_F(ConnectionTest, WhatThePeerAskedBeforeItHungUpIsServedBeforeTheDeathNotice) {
    auto bell = okv::make<BellObject>();
    int deathsAtRing = -1;
    bell->onRing = [&] { deathsAtRing = mourner_->deaths; };
    okv::send<&Desk::lendBell>(*root_, okv::lend<Bell>(*bell));
    EXPECT_EQ(failureOf([&] { okv::send<&Desk::ringAndHangUp>(*root_); }),
              ConnectionError::Kind::outcomeUnknown);
    EXPECT_EQ(mourner_->deaths, 0);
    serveUntil([&] { return mourner_->deaths == 1; });
    EXPECT_EQ(bell->rings, 1);
    EXPECT_EQ(deathsAtRing, 0);
}

TEST_F(ConnectionTest, WhatIsQueuedWhenThisSideInvalidatesIsDropped) {
    auto bell = okv::make<BellObject>();
    okv::send<&Desk::lendBell>(*root_, okv::lend<Bell>(*bell));
    okv::send<&Desk::ringBell>(*root_);
    okv::send<&Desk::nothing>(*root_);
    connection_->invalidate();
    EXPECT_EQ(mourner_->deaths, 1);
    RunLoop::current()->runUntil(RunLoop::Clock::now() + std::chrono::milliseconds(20));
    EXPECT_EQ(bell->rings, 0);
    EXPECT_EQ(mourner_->deaths, 1);
}

TEST_F(ConnectionTest, ADeadPeerIsSeenWithoutARunLoopAndNothingIsPostedByLooking) {
    service_.stop();
    EXPECT_FALSE(connection_->isValid());
    EXPECT_EQ(mourner_->deaths, 0);
    EXPECT_EQ(failureOf([&] { okv::send<&Desk::nothing>(*root_); }),
              ConnectionError::Kind::notSent);
    EXPECT_EQ(mourner_->deaths, 1);
    EXPECT_EQ(failureOf([&] { okv::send<&Desk::nothing>(*root_); }),
              ConnectionError::Kind::notSent);
    EXPECT_EQ(mourner_->deaths, 1);
}

TEST_F(ConnectionTest, AnObserverMayDropTheLastReferenceWhileACallerIsToldOfTheEnd) {
    class Dropper final : public okv::Object {
    public:
        explicit Dropper(okv::Ref<okv::RemoteObject>& root) : root_(root) {
            okv::NotificationCenter::defaultCenter().addObserver(
                *this, &Dropper::drop, okv::NSConnectionDidDieNotification);
        }
        void drop(const okv::LocalNotification&) { root_ = nullptr; }

    protected:
        void dealloc() override {
            okv::NotificationCenter::defaultCenter().removeObserver(
                *this, okv::NSConnectionDidDieNotification);
        }

    private:
        okv::Ref<okv::RemoteObject>& root_;
    };
    const auto dropper = okv::make<Dropper>(root_);
    auto& port = root_->port();
    connection_ = nullptr;
    service_.stop();
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, "nothing", "");
    okv::finishRequest(frame);
    EXPECT_EQ(failureOf([&] { port.call(frame); }), ConnectionError::Kind::notSent);
    EXPECT_FALSE(root_);
}

TEST_F(ConnectionTest, TheRunLoopPostsTheDeathOfAnIdleConnection) {
    service_.stop();
    serveUntil([&] { return mourner_->deaths == 1; });
    EXPECT_FALSE(connection_->isValid());
}

TEST_F(ConnectionTest, InvalidatingFailsTheCallsOfOtherThreads) {
    std::thread other([&] {
        EXPECT_EQ(failureOf([&] { okv::send<&Desk::keepSilent>(*root_); }),
                  ConnectionError::Kind::outcomeUnknown);
    });
    desk_.silenceKept.get_future().get();
    connection_->invalidate();
    other.join();
    EXPECT_EQ(mourner_->deaths, 1);
}

TEST_F(ConnectionTest, AReplyThatDoesNotComeInTimeFailsThatCallOnly) {
    connection_->setReplyTimeout(0.05);
    const auto silent = [&] { okv::send<&Desk::keepSilent>(*root_); };
    EXPECT_EQ(failureOf(silent), ConnectionError::Kind::timedOut);
    connection_->setReplyTimeout(0);
    EXPECT_EQ(okv::send<&Desk::sum_with>(*root_, 1, 2), 3);
}

TEST_F(ConnectionTest, EightThreadsGetTheirOwnAnswers) {
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i)
                wrong += okv::send<&Desk::sum_with>(*root_, t * 10000, i) != t * 10000 + i;
        });
    }
    RunLoop::current()->runUntil(RunLoop::Clock::now() + std::chrono::milliseconds(50));
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(ConnectionTest, AForkedChildHasNoConnectionAndTheParentKeepsItsOwn) {
    EXPECT_TRUE(support::succeedsInAChild([&] {
        EXPECT_FALSE(connection_->isValid());
        EXPECT_EQ(failureOf([&] { okv::send<&Desk::nothing>(*root_); }),
                  ConnectionError::Kind::notSent);
        root_ = nullptr;
        connection_ = nullptr;
        const auto anew = Connection::connectionWithRegisteredName(kName);
        ASSERT_TRUE(anew);
        EXPECT_EQ(okv::send<&Desk::sum_with>(*anew->rootProxy(), 1, 2), 3);
    }));
    EXPECT_EQ(okv::send<&Desk::sum_with>(*root_, 1, 2), 3);
    EXPECT_TRUE(connection_->isValid());
}

TEST_F(ConnectionTest, APublicationWithoutARootObjectGivesNone) {
    ServiceThread bare("jp.nrm.test.bare", {});
    const auto connection = Connection::connectionWithRegisteredName("jp.nrm.test.bare");
    EXPECT_EQ(connection->rootProxy(), nullptr);
    EXPECT_TRUE(connection->isValid());
}

TEST_F(ConnectionTest, NobodyAtTheNameGivesNoConnectionAndAReason) {
    std::string why;
    EXPECT_EQ(Connection::connectionWithRegisteredName("jp.nrm.test.nobody", std::nullopt, &why),
              nullptr);
    EXPECT_NE(why.find("no server"), std::string::npos);
    EXPECT_EQ(Connection::connectionWithRegisteredName(kName, "elsewhere", &why), nullptr);
}
