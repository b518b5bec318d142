#include <OKVPlatform/ipc/NotificationCenter.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using okv::LocalNotification;
using okv::NotificationCenter;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kNotice[] = "jp.nrm.test.notice";

NotificationCenter& center() {
    return NotificationCenter::defaultCenter();
}

/// Notes its calls in a common list and may do something more.
class Listener final : public okv::Object {
public:
    Listener(std::string name, std::vector<std::string>& calls)
        : name_(std::move(name)), calls_(calls) {}
    void hear(const LocalNotification& notice) {
        calls_.push_back(name_);
        lastObject = notice.object;
        if (onHearing) onHearing();
    }
    void hearElsewhere(const LocalNotification&) { calls_.push_back(name_ + " elsewhere"); }

    std::function<void()> onHearing;
    std::function<void()> onDealloc;
    okv::Object* lastObject = nullptr;

protected:
    void dealloc() override {
        if (onDealloc) onDealloc();
        center().removeObserver(*this, kNotice);
    }

private:
    const std::string name_;
    std::vector<std::string>& calls_;
};

class NotificationCenterTest : public testing::Test {
protected:
    okv::Ref<Listener> listener(const std::string& name) {
        return okv::make<Listener>(name, calls_);
    }
    okv::Ref<Listener> listening(const std::string& name, const okv::Object* object = nullptr) {
        auto made = listener(name);
        center().addObserver(*made, &Listener::hear, kNotice, object);
        return made;
    }
    std::vector<std::string> post(okv::Object* object = nullptr, const char* name = kNotice) {
        calls_.clear();
        center().post({name, object});
        return calls_;
    }

    std::vector<std::string> calls_;
};

}  // namespace

TEST_F(NotificationCenterTest, ObserversAreCalledInTheOrderOfTheirRegistration) {
    const auto a = listening("a");
    const auto b = listening("b");
    const auto c = listening("c");
    EXPECT_THAT(post(), ElementsAre("a", "b", "c"));
    EXPECT_THAT(post(nullptr, "jp.nrm.test.other"), IsEmpty());
}

TEST_F(NotificationCenterTest, AnObserverAddedTwiceIsCalledTwiceAndRemovedAtOnce) {
    const auto a = listening("a");
    const auto b = listening("b");
    center().addObserver(*a, &Listener::hearElsewhere, kNotice);
    EXPECT_THAT(post(), ElementsAre("a", "b", "a elsewhere"));
    center().removeObserver(*a, kNotice);
    EXPECT_THAT(post(), ElementsAre("b"));
    center().removeObserver(*a, kNotice);
}

TEST_F(NotificationCenterTest, AnObserverOfOneObjectHearsOfThatAlone) {
    const auto wanted = okv::make<okv::Object>();
    const auto other = okv::make<okv::Object>();
    const auto a = listening("a", wanted.get());
    const auto b = listening("b");
    EXPECT_THAT(post(wanted.get()), ElementsAre("a", "b"));
    EXPECT_EQ(b->lastObject, wanted.get());
    EXPECT_THAT(post(other.get()), ElementsAre("b"));
    EXPECT_THAT(post(), ElementsAre("b"));
}

TEST_F(NotificationCenterTest, RemovingForOneObjectLeavesTheOtherRegistrations) {
    const auto one = okv::make<okv::Object>();
    const auto two = okv::make<okv::Object>();
    const auto a = listening("a", one.get());
    center().addObserver(*a, &Listener::hearElsewhere, kNotice, two.get());
    center().removeObserver(*a, kNotice, one.get());
    EXPECT_THAT(post(one.get()), IsEmpty());
    EXPECT_THAT(post(two.get()), ElementsAre("a elsewhere"));
}

TEST_F(NotificationCenterTest, RemovingForAnotherNameChangesNothing) {
    const auto a = listening("a");
    center().removeObserver(*a, "jp.nrm.test.other");
    EXPECT_THAT(post(), ElementsAre("a"));
}

TEST_F(NotificationCenterTest, WhatAnEarlierCallbackRemovedIsNotCalledAnyMore) {
    const auto a = listening("a");
    const auto b = listening("b");
    a->onHearing = [&] { center().removeObserver(*b, kNotice); };
    EXPECT_THAT(post(), ElementsAre("a"));
}

TEST_F(NotificationCenterTest, ACallbackMayRemoveItself) {
    const auto a = listening("a");
    center().addObserver(*a, &Listener::hearElsewhere, kNotice);
    a->onHearing = [&] { center().removeObserver(*a, kNotice); };
    EXPECT_THAT(post(), ElementsAre("a"));
    EXPECT_THAT(post(), IsEmpty());
}

TEST_F(NotificationCenterTest, ACallbackMayDestroyALaterObserver) {
    const auto a = listening("a");
    auto b = listening("b");
    a->onHearing = [&] { b = nullptr; };
    EXPECT_THAT(post(), ElementsAre("a"));
}

TEST_F(NotificationCenterTest, ACallbackMayDropTheLastReferenceToItsOwnObserver) {
    auto a = listening("a");
    const auto b = listening("b");
    bool gone = false;
    a->onDealloc = [&] { gone = true; };
    a->onHearing = [&] {
        a = nullptr;
        EXPECT_FALSE(gone) << "the delivery holds a reference";
    };
    EXPECT_THAT(post(), ElementsAre("a", "b"));
    EXPECT_TRUE(gone);
}

TEST_F(NotificationCenterTest, AnObserverThatIsBeingDeallocatedIsSkipped) {
    auto a = listening("a");
    const auto b = listening("b");
    a->onDealloc = [&] { post(); };
    a = nullptr;
    EXPECT_THAT(calls_, ElementsAre("b"));
}

TEST_F(NotificationCenterTest, WhatIsAddedDuringADeliveryHearsTheNextOne) {
    const auto a = listening("a");
    okv::Ref<Listener> b;
    a->onHearing = [&] {
        if (!b) b = listening("b");
    };
    EXPECT_THAT(post(), ElementsAre("a"));
    EXPECT_THAT(post(), ElementsAre("a", "b"));
}

TEST_F(NotificationCenterTest, ACallbackMayPost) {
    const auto a = listening("a");
    int depth = 0;
    a->onHearing = [&] {
        if (++depth < 3) center().post({kNotice, nullptr});
    };
    EXPECT_EQ(post().size(), 3U);
}

TEST_F(NotificationCenterTest, TheCentreRetainsNobody) {
    const auto a = listening("a");
    EXPECT_EQ(a->retainCount(), 1U);
}

TEST_F(NotificationCenterTest, ObserversComeAndGoWhileAnotherThreadPosts) {
    class Counter final : public okv::Object {
    public:
        void hear(const LocalNotification&) { ++heard; }
        std::atomic<int> heard{0};

    protected:
        void dealloc() override { center().removeObserver(*this, kNotice); }
    };
    const auto constant = okv::make<Counter>();
    center().addObserver(*constant, &Counter::hear, kNotice);
    std::thread poster([] {
        for (int i = 0; i < 1000; ++i) center().post({kNotice, nullptr});
    });
    for (int i = 0; i < 500; ++i) {
        const auto passing = okv::make<Counter>();
        center().addObserver(*passing, &Counter::hear, kNotice);
    }
    poster.join();
    EXPECT_EQ(constant->heard, 1000);
}
