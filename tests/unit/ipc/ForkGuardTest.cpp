#include "PublicationFixture.h"

#include <OKVPlatform/ipc/ForkGuard.h>
#include <OKVPlatform/ipc/NotificationCenter.h>

#include <atomic>
#include <thread>
#include <vector>

// What a forked child finds of that in which the parent's other threads were busy.

namespace ipctest {
namespace {

class Busy final : public okv::Object {
public:
    void note(const okv::LocalNotification&) {}
};

void observeForAMoment(Busy& busy) {
    auto& center = okv::NotificationCenter::defaultCenter();
    center.addObserver(busy, &Busy::note, "a notice");
    center.post({"a notice", nullptr});
    center.removeObserver(busy, "a notice");
}

void lendForAMoment(Busy& busy) {
    okv::ExportedObjects::find(okv::ExportedObjects::add(busy, nullptr, nullptr));
    okv::ExportedObjects::withdraw(busy);
}

// Whether a hundred children, forked while other threads do this all the time, can do it, too.
void expectAChildCan(void (*task)(Busy&)) {
    task(*okv::make<Busy>());  // what the very first call makes is there before anybody forks
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            const auto busy = okv::make<Busy>();
            while (!stop) task(*busy);
        });
    }
    bool succeeded = true;
    for (int i = 0; i < 100 && succeeded; ++i) {
        succeeded = succeedsInAChild([&] {
            alarm(30);
            task(*okv::make<Busy>());
            return true;
        });
    }
    stop = true;
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(succeeded);
}

}  // namespace

TEST(ForkGuard, AChildCanObserveAndPostWhateverOtherThreadsWereObserving) {
    expectAChildCan(&observeForAMoment);
}

TEST(ForkGuard, AChildCanLendAndWithdrawWhateverOtherThreadsWereLending) {
    expectAChildCan(&lendForAMoment);
}

TEST(ForkGuard, TakesItsStepsOnEitherSideAndNoneOnceItIsGone) {
    struct Steps {
        int before = 0, inParent = 0, inChild = 0;
    } taken;
    auto fork = [&] { return succeedsInAChild([&] { return taken.before == taken.inChild; }); };
    {
        const okv::ForkGuard guard(&taken, {[](void* to) { ++static_cast<Steps*>(to)->before; },
                                            [](void* to) { ++static_cast<Steps*>(to)->inParent; },
                                            [](void* to) { ++static_cast<Steps*>(to)->inChild; }});
        EXPECT_TRUE(fork());
        EXPECT_EQ(taken.before, 1);
        EXPECT_EQ(taken.inParent, 1);
        EXPECT_EQ(taken.inChild, 0) << "the child's own";
    }
    fork();
    EXPECT_EQ(taken.before, 1);
}

}  // namespace ipctest
