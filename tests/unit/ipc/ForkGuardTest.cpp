#include "PublicationFixture.h"

#include <OKVPlatform/ipc/NotificationCenter.h>
#include <OKVPlatform/values/ForkGuard.h>

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

// Two threads of the parent begin with the very first call of the process, or so.
void expectAChildCan(void (*task)(Busy&)) {
    const auto onItsOwn = [task] { task(*okv::make<Busy>()); };
    support::expectChildrenSucceedWhile(onItsOwn, onItsOwn);
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
    auto fork = [&] {
        return support::succeedsInAChild([&] { return taken.before == taken.inChild; });
    };
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
