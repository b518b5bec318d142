#include "DistributedCenterFixture.h"

#include "support/ForkedChild.h"
#include "support/Sanitizers.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <thread>

// Observers of many threads, of other loops and of forked children.

using ipctest::DistributedCenter;
using notification_test::numbersTo;
using okv::Notification;
using Numbers = std::vector<std::int64_t>;

TEST_F(DistributedCenter, IsDrivenByAForeignPollLoop) {
    const auto observer = listener();
    observer->observe("a");
    std::jthread poster([&] {
        for (int i = 1; i <= 100; ++i) center_.post("a", {}, i);
    });
    const auto loop = okv::RunLoop::current();
    pollfd entry{loop->fd(), POLLIN, 0};
    while (observer->numbers.size() < 100 && poll(&entry, 1, 30000) == 1) loop->dispatch();
    EXPECT_EQ(observer->numbers, numbersTo(100));
}

TEST_F(DistributedCenter, EveryThreadsLoopReadsForItsOwnObservers) {
    constexpr int kThreads = 4;
    std::atomic<int> ready{0};
    std::vector<Numbers> heard(kThreads);
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            const auto own = listener();
            own->observe("a");
            const auto self = std::this_thread::get_id();
            own->onNotice = [&](const Notification&) {
                EXPECT_EQ(std::this_thread::get_id(), self);
            };
            ++ready;
            ready.notify_all();
            EXPECT_TRUE(hears(own, 300));
            heard[static_cast<std::size_t>(i)] = own->numbers;
        });
    }
    for (int now = ready; now < kThreads; now = ready) ready.wait(now);
    EXPECT_EQ(inotifyInstances(), kThreads);
    for (int i = 1; i <= 300; ++i) center_.post("a", {}, i);
    threads.clear();
    for (const auto& numbers : heard) EXPECT_EQ(numbers, numbersTo(300));
}

TEST_F(DistributedCenter, AThreadThatEndsLeavesNothingBehind) {
    const auto observer = listener();
    std::jthread([&] {
        observer->observe("a");
        EXPECT_EQ(inotifyInstances(), 1);
    }).join();
    EXPECT_EQ(inotifyInstances(), 0);
    center_.post("a", {}, 1);
    settle();
    EXPECT_TRUE(observer->numbers.empty());
}

TEST_F(DistributedCenter, TheLastObserverTakesTheWatchWithIt) {
    auto first = listener();
    auto second = listener();
    first->observe("a");
    second->observe("a");
    EXPECT_EQ(inotifyInstances(), 1);
    first = nullptr;
    EXPECT_EQ(inotifyInstances(), 1);
    second = nullptr;
    EXPECT_EQ(inotifyInstances(), 0);
}

TEST_F(DistributedCenter, ObserversMayGoOnAnyThreadWhileNoticesArrive) {
    constexpr int kRounds = support::kIsSanitized ? 40 : 200;
    std::atomic<bool> done{false};
    std::jthread poster([&] {
        for (int i = 1; !done; ++i) center_.post("a", {}, i);
    });
    const auto steady = listener();
    steady->observe("a");
    for (int i = 0; i < kRounds; ++i) {
        auto going = listener();
        going->observe("a");
        std::jthread other([held = std::move(going)]() mutable { held = nullptr; });
        const auto count = steady->numbers.size();
        ASSERT_TRUE(hears(steady, count + 1));
    }
    done = true;
}

TEST_F(DistributedCenter, AForkedChildStartsAnewAndTouchesNothingOfItsParents) {
    const auto observer = listener();
    observer->observe("a");
    EXPECT_TRUE(support::succeedsInAChild([&] {
        const auto own = listener();
        own->observe("b");
        center_.post("b", {}, 1);
        EXPECT_TRUE(hears(own, 1));
        center_.post("a", {}, 2);
        center_.post("b", {}, 3);
        EXPECT_TRUE(hears(own, 2));
        EXPECT_EQ(observer->numbers, Numbers());
    }));
    center_.post("a", {}, 4);
    ASSERT_TRUE(hears(observer, 2));
    EXPECT_EQ(observer->numbers, (Numbers{2, 4}));
}
