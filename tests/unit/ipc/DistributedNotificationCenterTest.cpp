#include "DistributedCenterFixture.h"

#include <fcntl.h>
#include <unistd.h>

using ipctest::DistributedCenter;
using notification_test::numbersTo;
using okv::DistributedNotificationCenter;
using okv::Notification;
using okv::Value;
using support::serveUntil;
using Numbers = std::vector<std::int64_t>;

TEST_F(DistributedCenter, DeliversByNameAndSender) {
    const auto named = listener();
    const auto sent = listener();
    const auto any = listener();
    named->observe("a");
    sent->observe("a", "sender");
    any->observe(std::nullopt);
    center_.post("a", {}, 1);
    center_.post("a", "sender", 2);
    center_.post("a", "stranger", 3);
    center_.post("b", "sender", 4);
    settle();
    EXPECT_EQ(named->numbers, (Numbers{1, 2, 3}));
    EXPECT_EQ(sent->numbers, (Numbers{2}));
    EXPECT_EQ(any->numbers, (Numbers{1, 2, 3, 4, 0}));
}

TEST_F(DistributedCenter, CarriesNameSenderAndInformationUnchanged) {
    const Value information =
        okv::Dictionary{{"osuserid", -1}, {"keys", okv::Array{"k", okv::Null{}, Value()}}};
    const auto heard = listener();
    Notification notice;
    heard->onNotice = [&](const Notification& given) { notice = given; };
    heard->observe("a");
    center_.post("a", "sender", information);
    ASSERT_TRUE(hears(heard, 1));
    EXPECT_EQ(notice.name, "a");
    EXPECT_EQ(notice.object, Value("sender"));
    EXPECT_EQ(notice.userInfo, information);
}

TEST_F(DistributedCenter, CallsInTheOrderOfPostingAndOfRegistration) {
    Numbers order;
    const auto first = listener();
    const auto second = listener();
    first->onNotice = [&](const Notification& n) { order.push_back(n.userInfo.intValue() * 10); };
    second->onNotice = [&](const Notification& n) {
        order.push_back(n.userInfo.intValue() * 10 + 1);
    };
    first->observe("a");
    second->observe("a");
    for (int i = 1; i <= 3; ++i) center_.post("a", {}, i);
    ASSERT_TRUE(hears(second, 3));
    EXPECT_EQ(order, (Numbers{10, 11, 20, 21, 30, 31}));
}

TEST_F(DistributedCenter, AnObserverAddedTwiceIsCalledTwice) {
    const auto twice = listener();
    twice->observe("a");
    twice->observe("a");
    center_.post("a", {}, 1);
    settle();
    EXPECT_EQ(twice->numbers, (Numbers{1, 1}));
}

TEST_F(DistributedCenter, HearsOnlyWhatIsPostedAfterItRegistered) {
    center_.post("a", {}, 1);
    const auto early = listener();
    early->observe("a");
    center_.post("a", {}, 2);
    const auto late = listener();
    late->observe("a");  // before the loop has read 2
    center_.post("a", {}, 3);
    settle();
    EXPECT_EQ(early->numbers, (Numbers{2, 3}));
    EXPECT_EQ(late->numbers, (Numbers{3}));
}

TEST_F(DistributedCenter, HearsOnlyWhatIsPostedAfterItRegisteredOverANewLogToo) {
    const auto early = listener();
    early->observe("a");
    center_.post("a", {}, 1);
    std::filesystem::remove(folder_.log());
    center_.post("a", {}, 2);
    const auto late = listener();
    late->observe("a");
    center_.post("a", {}, 3);
    std::filesystem::remove(folder_.log());
    center_.post("a", {}, 4);
    settle();
    EXPECT_EQ(early->numbers.back(), 4);
    EXPECT_EQ(late->numbers.back(), 4);
    EXPECT_EQ(std::count(late->numbers.begin(), late->numbers.end(), 2), 0);
    EXPECT_EQ(std::count(late->numbers.begin(), late->numbers.end(), 1), 0);
}

TEST_F(DistributedCenter, AnObserverAddedInACallbackHearsTheNextNotice) {
    const auto first = listener();
    const auto added = listener();
    first->onNotice = [&](const Notification&) {
        if (first->numbers.size() == 1) added->observe("a");
    };
    first->observe("a");
    center_.post("a", {}, 1);
    ASSERT_TRUE(hears(first, 1));
    center_.post("a", {}, 2);
    settle();
    EXPECT_EQ(added->numbers, (Numbers{2}));
}

TEST_F(DistributedCenter, RemovesByNameAndSenderOrAltogether) {
    const auto observer = listener();
    observer->observe("a");
    observer->observe("b");
    observer->observe("c", "sender");
    center_.removeObserver(*observer, "a");
    center_.post("a", {}, 1);
    center_.post("b", {}, 2);
    center_.post("c", "sender", 3);
    settle();
    EXPECT_EQ(observer->numbers, (Numbers{2, 3}));
    center_.removeObserver(*observer, {}, "sender");
    center_.post("b", {}, 4);
    center_.post("c", "sender", 5);
    settle();
    EXPECT_EQ(observer->numbers, (Numbers{2, 3, 4}));
    center_.removeObserver(*observer);
    center_.post("b", {}, 6);
    settle();
    EXPECT_EQ(observer->numbers, (Numbers{2, 3, 4}));
}

TEST_F(DistributedCenter, AnObserverRemovedInACallbackIsNotCalledAnyMore) {
    const auto first = listener();
    const auto second = listener();
    first->onNotice = [&](const Notification&) { center_.removeObserver(*second); };
    first->observe("a");
    second->observe("a");
    center_.post("a", {}, 1);
    center_.post("a", {}, 2);
    settle();
    EXPECT_EQ(first->numbers, (Numbers{1, 2}));
    EXPECT_TRUE(second->numbers.empty());
}

TEST_F(DistributedCenter, AnObserverDestroyedInACallbackIsNotCalledAnyMore) {
    const auto first = listener();
    auto second = listener();
    auto third = listener();
    int calls = 0;
    first->onNotice = [&](const Notification&) { second = nullptr; };
    second->onNotice = [&](const Notification&) { ++calls; };
    third->onNotice = [&](const Notification&) {
        ++calls;
        third = nullptr;  // itself; it lives until its callback has returned
    };
    first->observe("a");
    second->observe("a");
    third->observe("a");
    center_.post("a", {}, 1);
    center_.post("a", {}, 2);
    settle();
    EXPECT_EQ(first->numbers, (Numbers{1, 2}));
    EXPECT_EQ(calls, 1);
}

TEST_F(DistributedCenter, TheLastObserverMayRemoveItselfInItsCallbackAndComeBack) {
    auto observer = listener();
    observer->onNotice = [&](const Notification&) {
        center_.removeObserver(*observer);
        if (observer->numbers.size() < 3) observer->observe("a");
    };
    observer->observe("a");
    for (int i = 1; i <= 4; ++i) {
        center_.post("a", {}, i);
        settle();
    }
    EXPECT_EQ(observer->numbers, numbersTo(3));
}

TEST_F(DistributedCenter, APostInsideACallbackIsDeliveredAfterIt) {
    const auto echo = listener();
    const auto second = listener();
    echo->onNotice = [&](const Notification& notice) {
        if (notice.userInfo.intValue() < 3) center_.post("a", {}, notice.userInfo.intValue() + 1);
    };
    echo->observe("a");
    second->observe("a");
    center_.post("a", {}, 1);
    ASSERT_TRUE(hears(second, 3));
    EXPECT_EQ(echo->numbers, numbersTo(3));
    EXPECT_EQ(second->numbers, numbersTo(3));
}

TEST_F(DistributedCenter, ALoopRunInsideACallbackKeepsEveryObserversOrder) {
    const auto outer = listener();
    const auto other = listener();
    outer->onNotice = [&](const Notification& notice) {
        if (notice.userInfo.intValue() != 1) return;
        center_.post("a", {}, 2);
        EXPECT_TRUE(hears(other, 2));
    };
    outer->observe("a");
    other->observe("a");
    center_.post("a", {}, 1);
    ASSERT_TRUE(hears(other, 2));
    EXPECT_EQ(outer->numbers, numbersTo(2));
    EXPECT_EQ(other->numbers, numbersTo(2));
}

TEST_F(DistributedCenter, AnExceptionOfAnObserverReachesTheLoopsCallerAndLosesNoOtherNotice) {
    const auto thrower = listener();
    const auto other = listener();
    thrower->onNotice = [](const Notification& notice) {
        if (notice.userInfo.intValue() == 1) throw std::runtime_error("observer");
    };
    thrower->observe("a");
    other->observe("a");
    center_.post("a", {}, 1);
    center_.post("a", {}, 2);
    EXPECT_THROW(hears(other, 2), std::runtime_error);
    ASSERT_TRUE(hears(other, 2));
    EXPECT_EQ(thrower->numbers, numbersTo(2));
    EXPECT_EQ(other->numbers, numbersTo(2));
}

TEST_F(DistributedCenter, MoreNoticesThanOneTurnTakesAreAllDelivered) {
    const auto observer = listener();
    observer->observe("a");
    for (int i = 1; i <= 5000; ++i) center_.post("a", {}, i);
    bool otherTurn = false;
    observer->onNotice = [&](const Notification& notice) {
        if (notice.userInfo.intValue() == 1)
            okv::RunLoop::current()->perform([&] { otherTurn = observer->numbers.size() < 5000; });
    };
    ASSERT_TRUE(hears(observer, 5000));
    EXPECT_EQ(observer->numbers, numbersTo(5000));
    EXPECT_TRUE(otherTurn);
}

TEST_F(DistributedCenter, TellsWhatItMissedApartFromTheNotices) {
    DistributedNotificationCenter small(folder_.path(), {.sizeLimit = 1000});
    const auto observer = listener();
    observer->observe("a");
    for (int i = 1; i <= 200; ++i) small.post("a", {}, i);
    ASSERT_TRUE(
        serveUntil([&] { return !observer->numbers.empty() && observer->numbers.back() == 200; }));
    EXPECT_GT(observer->missing, 0U);
    EXPECT_EQ(observer->numbers.size() + observer->missing, 200U);
    EXPECT_TRUE(std::is_sorted(observer->numbers.begin(), observer->numbers.end()));
}

TEST_F(DistributedCenter, AnObserverIsNotToldOfNoticesMissedBeforeItRegistered) {
    DistributedNotificationCenter small(folder_.path(), {.sizeLimit = 1000});
    const auto early = listener();
    early->observe("a");
    for (int i = 1; i <= 200; ++i) small.post("a", {}, i);
    const auto late = listener();
    late->observe("a");
    small.post("a", {}, 201);
    ASSERT_TRUE(hears(late, 1));
    EXPECT_EQ(late->missing, 0U);
    EXPECT_EQ(late->numbers, (Numbers{201}));
    EXPECT_GT(early->missing, 0U);
}

TEST_F(DistributedCenter, ObserversMayBeThereBeforeAnythingElse) {
    folder_.remove();
    const auto observer = listener();
    observer->observe("a");
    folder_.make();
    center_.post("a", {}, 1);
    ASSERT_TRUE(hears(observer, 1));
    center_.post("a", {}, 2);
    ASSERT_TRUE(hears(observer, 2));
    EXPECT_EQ(observer->numbers, numbersTo(2));
    EXPECT_EQ(observer->missing, 0U);
}

TEST_F(DistributedCenter, FollowsALogThatIsDeletedOrReplacedAndAFolderMadeAnew) {
    const auto observer = listener();
    observer->observe("a");
    std::int64_t posted = 0;
    const auto hearsNext = [&] {
        center_.post("a", {}, ++posted);
        return hears(observer, static_cast<std::size_t>(posted));
    };
    EXPECT_TRUE(hearsNext());
    std::filesystem::remove(folder_.log());
    EXPECT_TRUE(hearsNext());
    std::filesystem::copy_file(folder_.log(), folder_.path() + "/copy");
    std::filesystem::rename(folder_.path() + "/copy", folder_.log());
    EXPECT_TRUE(hearsNext());
    folder_.remove();
    folder_.make();
    EXPECT_TRUE(hearsNext());
    std::filesystem::rename(folder_.path(), folder_.path() + ".old");
    folder_.make();
    EXPECT_TRUE(hearsNext());
    const auto held = open(folder_.path().c_str(), O_PATH | O_CLOEXEC);  // it goes without a sign
    folder_.remove();
    folder_.make();
    // By what the old folder lost, by a look that was still to come, by a watch on the new one.
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(hearsNext());
    close(held);
    EXPECT_TRUE(hearsNext());
    EXPECT_EQ(observer->numbers, numbersTo(posted));
}

TEST_F(DistributedCenter, RefusesWhatCannotBePostedOrObserved) {
    EXPECT_THROW(center_.post("a", 5), std::invalid_argument);
    EXPECT_THROW(center_.post("a", okv::Null{}), std::invalid_argument);
    EXPECT_THROW(center_.post("a", {}, std::string(300000, 'x')), okv::NotificationError);
    const auto observer = listener();
    EXPECT_THROW(center_.addObserver(*observer, DistributedNotificationCenter::Handler(), "a"),
                 std::invalid_argument);
}
