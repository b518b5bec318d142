#include "support/ForkedChild.h"

#include <OKVPlatform/ipc/RunLoop.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

using okv::RunLoop;
using std::chrono::milliseconds;
using testing::ElementsAre;

namespace {

RunLoop::Clock::time_point in(milliseconds time) {
    return RunLoop::Clock::now() + time;
}

/// A pipe whose ends are closed with it.
struct Pipe {
    Pipe() {
        if (pipe(ends) != 0) throw std::runtime_error("pipe");
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        close(ends[0]);
        close(ends[1]);
    }
    void put() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }
    void take() const {
        char byte = 0;
        EXPECT_EQ(read(ends[0], &byte, 1), 1);
    }
    int readable() const { return ends[0]; }
    int ends[2] = {-1, -1};
};

class Owner final : public okv::Object {
public:
    explicit Owner(RunLoop& loop) : loop_(loop) {}
    std::function<void()> onDealloc;

protected:
    void dealloc() override {
        if (onDealloc) onDealloc();
        loop_.forget(this);
    }

private:
    RunLoop& loop_;
};

class RunLoopTest : public testing::Test {
protected:
    RunLoop& loop() { return *loop_; }
    bool runShortly() { return loop().runUntil(in(milliseconds(30))); }
    void runToTheStop() {
        EXPECT_TRUE(loop().runUntil(in(std::chrono::seconds(20)))) << "nobody stopped the loop";
    }
    /// Waits as a foreign loop would; answers whether there is something to do.
    bool isReady(int timeout = 0) {
        pollfd entry{loop().fd(), POLLIN, 0};
        return poll(&entry, 1, timeout) == 1;
    }
    auto noting(int number) {
        return [this, number] { order_.push_back(number); };
    }

    const okv::Ref<RunLoop> loop_ = RunLoop::current();
    std::vector<int> order_;
};

}  // namespace

TEST_F(RunLoopTest, EveryThreadHasALoopOfItsOwn) {
    EXPECT_EQ(RunLoop::current(), loop_);
    EXPECT_TRUE(loop().isCurrent());
    std::thread([&] {
        EXPECT_NE(RunLoop::current(), loop_);
        EXPECT_FALSE(loop().isCurrent());
    }).join();
}

TEST_F(RunLoopTest, ARunUntilADeadlineTellsWhetherItWasStopped) {
    const auto deadline = in(milliseconds(20));
    EXPECT_FALSE(loop().runUntil(deadline));
    EXPECT_GE(RunLoop::Clock::now(), deadline);
    loop().perform([&] { loop().stop(); });
    runToTheStop();
}

TEST_F(RunLoopTest, AStopBeforeTheRunEndsTheNextRunAndOnlyThat) {
    loop().stop();
    loop().run();
    EXPECT_FALSE(runShortly());
}

TEST_F(RunLoopTest, AStopFromAnotherThreadEndsARunThatWaits) {
    std::thread other([&] { loop().stop(); });
    loop().run();
    other.join();
}

TEST_F(RunLoopTest, TasksRunInTheOrderInWhichTheyCame) {
    for (int i = 0; i < 5; ++i) loop().perform(noting(i));
    loop().dispatch();
    EXPECT_THAT(order_, ElementsAre(0, 1, 2, 3, 4));
}

TEST_F(RunLoopTest, TasksOfOtherThreadsRunOnTheLoopsOwn) {
    std::atomic<int> done{0};
    const auto self = std::this_thread::get_id();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 250; ++i) {
                loop().perform([&] {
                    EXPECT_EQ(std::this_thread::get_id(), self);
                    if (++done == 1000) loop().stop();
                });
            }
        });
    }
    runToTheStop();
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(done, 1000);
}

TEST_F(RunLoopTest, ATaskThatQueuesItselfDoesNotKeepTheLoopFromItsDescriptors) {
    const Pipe pipe;
    const auto over = std::make_shared<bool>(false);  // the task outlives the test
    std::function<void()> again = [&, over] {
        if (!*over) loop().perform(again);
    };
    again();
    loop().watch(pipe.readable(), EPOLLIN, [&](std::uint32_t) { loop().stop(); });
    pipe.put();
    runToTheStop();
    *over = true;
}

TEST_F(RunLoopTest, ALoopThatATaskRunsServesTheTasksBehindIt) {
    const auto loop = okv::RunLoop::current();
    bool second = false;
    bool third = false;
    loop->perform([&] {
        loop->perform([&] { third = true; });
        loop->runUntil(okv::RunLoop::Clock::now() + std::chrono::milliseconds(100));
    });
    loop->perform([&] { second = true; });
    loop->dispatch();
    EXPECT_TRUE(second && third);
}

TEST_F(RunLoopTest, ATaskThatThrowsDoesNotStrandTheTasksBehindIt) {
    const auto loop = okv::RunLoop::current();
    bool second = false;
    loop->perform([] { throw std::runtime_error("a task of the application"); });
    loop->perform([&] { second = true; });
    EXPECT_THROW(loop->dispatch(), std::runtime_error);
    loop->dispatch();
    EXPECT_TRUE(second);
}

TEST_F(RunLoopTest, ALoopThatATimerRunsServesTheTimersBehindIt) {
    const auto loop = okv::RunLoop::current();
    bool second = false;
    loop->performAfter(
        {}, [&] { loop->runUntil(okv::RunLoop::Clock::now() + std::chrono::milliseconds(200)); });
    loop->performAfter(std::chrono::milliseconds(20), [&] { second = true; });
    loop->runUntil(okv::RunLoop::Clock::now() + std::chrono::milliseconds(10));
    EXPECT_TRUE(second);
}

TEST_F(RunLoopTest, TimersRunByTimeAndNotByOrderOfAsking) {
    loop().performAfter(milliseconds(30), [&] { loop().stop(); });
    loop().performAfter(milliseconds(20), noting(2));
    loop().performAfter(milliseconds(1), noting(1));
    const auto start = RunLoop::Clock::now();
    runToTheStop();
    EXPECT_GE(RunLoop::Clock::now() - start, milliseconds(30));
    EXPECT_THAT(order_, ElementsAre(1, 2));
}

TEST_F(RunLoopTest, ATimerWhoseTimeIsOverRunsAtTheNextTurn) {
    loop().performAfter(milliseconds(-5), [&] { loop().stop(); });
    runToTheStop();
}

TEST_F(RunLoopTest, ACancelledTimerDoesNotRun) {
    const auto timer = loop().performAfter(milliseconds(1), noting(1));
    loop().performAfter(milliseconds(2), noting(2));
    loop().cancel(timer);
    loop().cancel(timer);
    runShortly();
    EXPECT_THAT(order_, ElementsAre(2));
}

TEST_F(RunLoopTest, ATimerSetByAnotherThreadWakesALoopThatWaits) {
    std::thread other([&] { loop().performAfter(milliseconds(5), [&] { loop().stop(); }); });
    loop().run();
    other.join();
}

TEST_F(RunLoopTest, ATimerMayCancelTheOneThatIsDueWithIt) {
    RunLoop::Id second = 0;
    loop().performAfter(milliseconds(0), [&] { loop().cancel(second); });
    second = loop().performAfter(milliseconds(0), noting(2));
    runShortly();
    EXPECT_TRUE(order_.empty());
}

TEST_F(RunLoopTest, AWatchIsToldUntilItIsTakenAway) {
    const Pipe pipe;
    int calls = 0;
    const auto id = loop().watch(pipe.readable(), EPOLLIN, [&](std::uint32_t events) {
        EXPECT_NE(events & EPOLLIN, 0U);
        ++calls;
    });
    pipe.put();
    loop().dispatch();
    loop().dispatch();
    EXPECT_EQ(calls, 2) << "level-triggered";
    loop().unwatch(id);
    loop().unwatch(id);
    loop().dispatch();
    EXPECT_EQ(calls, 2);
}

TEST_F(RunLoopTest, AWatchWithoutEventsIsNotEvenToldOfAHangUp) {
    Pipe pipe;
    int calls = 0;
    const auto id = loop().watch(pipe.readable(), EPOLLIN, [&](std::uint32_t) { ++calls; });
    loop().rewatch(id, 0);
    close(std::exchange(pipe.ends[1], -1));
    EXPECT_FALSE(isReady());
    loop().dispatch();
    EXPECT_EQ(calls, 0);
    loop().rewatch(id, EPOLLIN);
    loop().dispatch();
    EXPECT_EQ(calls, 1);
}

TEST_F(RunLoopTest, AHandlerMayTakeAwayItselfAndTheOneThatIsReadyBesideIt) {
    const Pipe first;
    const Pipe second;
    std::set<RunLoop::Id> ids;
    int calls = 0;
    const auto unwatchAll = [&](std::uint32_t) {
        ++calls;
        for (const auto id : ids) loop().unwatch(id);
    };
    ids.insert(loop().watch(first.readable(), EPOLLIN, unwatchAll));
    ids.insert(loop().watch(second.readable(), EPOLLIN, unwatchAll));
    first.put();
    second.put();
    loop().dispatch();
    loop().dispatch();
    EXPECT_EQ(calls, 1);
}

TEST_F(RunLoopTest, AForeignLoopSeesTasksTimersAndDescriptorsThroughOneDescriptor) {
    const Pipe pipe;
    EXPECT_FALSE(isReady());
    loop().perform(noting(1));
    ASSERT_TRUE(isReady());
    loop().dispatch();
    EXPECT_FALSE(isReady());
    loop().performAfter(milliseconds(5), noting(2));
    ASSERT_TRUE(isReady(10000));
    loop().dispatch();
    EXPECT_FALSE(isReady());
    loop().watch(pipe.readable(), EPOLLIN, [&](std::uint32_t) {
        pipe.take();
        order_.push_back(3);
    });
    pipe.put();
    ASSERT_TRUE(isReady(10000));
    loop().dispatch();
    EXPECT_FALSE(isReady());
    EXPECT_THAT(order_, ElementsAre(1, 2, 3));
}

TEST_F(RunLoopTest, DispatchingWithNothingToDoReturnsAtOnce) {
    loop().dispatch();
    loop().performAfter(std::chrono::hours(1), noting(1));
    loop().dispatch();
    EXPECT_TRUE(order_.empty());
}

TEST_F(RunLoopTest, ALoopIsEngagedOnceItRanOrWasHandedToAForeignLoop) {
    std::thread([] {
        const auto fresh = RunLoop::current();
        EXPECT_FALSE(fresh->isEngaged());
        fresh->perform([] {});
        EXPECT_FALSE(fresh->isEngaged());
        fresh->fd();
        EXPECT_TRUE(fresh->isEngaged());
    }).join();
}

TEST_F(RunLoopTest, WhatAnOwnerAskedForIsDroppedWhenItIsForgotten) {
    const Pipe pipe;
    const auto owner = okv::make<Owner>(loop());
    loop().watch(
        pipe.readable(), EPOLLIN, [&](std::uint32_t) { order_.push_back(1); }, owner.get());
    loop().perform(noting(2), owner.get());
    loop().performAfter(milliseconds(1), noting(3), owner.get());
    loop().perform(noting(4));
    pipe.put();
    loop().forget(owner.get());
    runShortly();
    EXPECT_THAT(order_, ElementsAre(4));
}

TEST_F(RunLoopTest, ATimerGoesOffThoughAnEarlierOneWasForgotten) {
    const auto owner = okv::make<Owner>(loop());
    loop().performAfter(milliseconds(1), noting(1), owner.get());
    loop().performAfter(milliseconds(20), [this] {
        order_.push_back(2);
        loop().stop();
    });
    loop().forget(owner.get());
    loop().runUntil(okv::RunLoop::Clock::now() + std::chrono::seconds(20));
    EXPECT_THAT(order_, ElementsAre(2));
}

TEST_F(RunLoopTest, HandlersRunUnderAReferenceToTheirOwner) {
    auto owner = okv::make<Owner>(loop());
    bool gone = false;
    owner->onDealloc = [&] { gone = true; };
    loop().perform(
        [&] {
            owner = nullptr;
            EXPECT_FALSE(gone) << "kept until the task has ended";
        },
        owner.get());
    loop().dispatch();
    EXPECT_TRUE(gone);
}

TEST_F(RunLoopTest, NothingIsServedForAnOwnerThatIsBeingDeallocated) {
    const Pipe pipe;
    auto owner = okv::make<Owner>(loop());
    auto* const plain = owner.get();
    loop().watch(
        pipe.readable(), EPOLLIN, [&](std::uint32_t) { order_.push_back(1); }, plain);
    loop().perform(noting(2), plain);
    loop().performAfter(milliseconds(0), noting(3), plain);
    pipe.put();
    plain->onDealloc = [&] {
        std::this_thread::sleep_for(milliseconds(1));  // the timer is due
        loop().dispatch();
        loop().dispatch();
    };
    owner = nullptr;
    EXPECT_TRUE(order_.empty());
}

TEST_F(RunLoopTest, WhatADroppedTimerHeldMayComeBackToTheLoopWhenItEnds) {
    auto dying = okv::make<Owner>(loop());
    auto held = okv::make<Owner>(loop());  // its end forgets, which needs the loop's lock
    bool heldEnded = false;
    held->onDealloc = [&] { heldEnded = true; };
    loop().performAfter(
        milliseconds(0), [held] {}, dying.get());
    held = nullptr;
    dying->onDealloc = [&] {
        std::this_thread::sleep_for(milliseconds(1));
        loop().dispatch();
    };
    dying = nullptr;
    EXPECT_TRUE(heldEnded);
}

TEST_F(RunLoopTest, WhatAForgottenTaskHeldMayComeBackToTheLoopWhenItEnds) {
    const auto owner = okv::make<Owner>(loop());
    auto held = okv::make<Owner>(loop());
    bool heldEnded = false;
    held->onDealloc = [&] { heldEnded = true; };
    loop().perform([held] {}, owner.get());
    held = nullptr;
    loop().forget(owner.get());
    EXPECT_TRUE(heldEnded);
}

TEST_F(RunLoopTest, AForkedChildHasANewLoopAndTheParentKeepsItsTasks) {
    loop().perform(noting(1));
    EXPECT_TRUE(support::succeedsInAChild([&] {
        EXPECT_NE(RunLoop::current(), loop_);
        EXPECT_FALSE(RunLoop::current()->runUntil(in(milliseconds(5))));
        EXPECT_THAT(order_, ElementsAre());
        RunLoop::current()->stop();
        RunLoop::current()->run();
    }));
    loop().dispatch();
    EXPECT_THAT(order_, ElementsAre(1));
}

TEST_F(RunLoopTest, OfTheParentDoesNothingInAForkedChild) {
    const auto owner = okv::make<Owner>(loop());
    const int counter = eventfd(0, EFD_CLOEXEC);
    const auto watched = loop().watch(counter, EPOLLIN, [](std::uint32_t) {});
    EXPECT_TRUE(support::succeedsInAChild([&] {
        loop().perform(noting(1), owner.get());
        EXPECT_EQ(loop().performAfter(milliseconds(0), noting(1)), 0U);
        EXPECT_EQ(loop().watch(counter, EPOLLIN, [](std::uint32_t) {}), 0U);
        EXPECT_TRUE(loop().rewatch(watched, 0));
        EXPECT_TRUE(loop().rearm(watched));
        loop().unwatch(watched);
        loop().forget(owner.get());
        loop().dispatch();
        EXPECT_FALSE(loop().runUntil(in(std::chrono::hours(1))));
        loop().run();
        EXPECT_THAT(order_, ElementsAre());
    }));
    loop().unwatch(watched);
    close(counter);
}

TEST_F(RunLoopTest, CanBeGivenTasksInAForkedChildWhateverOtherThreadsWereGiving) {
    support::expectChildrenSucceedWhile([&] { loop().perform([] {}); },
                                        [&] { loop().perform([] {}); });
}
