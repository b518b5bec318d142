#include "Support.h"

namespace dmtest {

namespace {

constexpr char kNotice[] = "jp.nrm.okv6.notification";

class Observer final : public OKVSettingObserver {
public:
    void settingChanged(const okv::Notification& notice) override {
        heard.push_back(notice.userInfo.intValue());
    }
    void settingChangesMissed(std::uint64_t count) override { missed += count; }

    std::vector<int> heard;
    std::uint64_t missed = 0;

protected:
    void dealloc() override {
        okv::DistributedNotificationCenter::defaultCenter().removeObserver(*this);
    }
};

class ObserverTest : public ConnectedTest {
protected:
    static void post(int number, const Value& sender = {}, const char* name = kNotice) {
        okv::DistributedNotificationCenter::defaultCenter().post(name, sender, number);
    }

    okv::Ref<Observer> observer_ = okv::make<Observer>();
};

}  // namespace

TEST_F(ObserverTest, HearsTheNoticeOfAnySenderUnderItsNameOnly) {
    manager().registerAsSettingNotifi_object(*observer_);
    post(1);
    post(2, "somebody");
    post(3, {}, "jp.nrm.okv6.another");
    post(4);
    EXPECT_TRUE(serveUntil([&] { return observer_->heard.size() == 3; }));
    EXPECT_EQ(observer_->heard, (std::vector<int>{1, 2, 4}));
}

TEST_F(ObserverTest, HearsOnlyTheSenderThatItNamed) {
    manager().registerAsSettingNotifi_object(*observer_, "a");
    post(1, "b");
    post(2);
    post(3, "a");
    EXPECT_TRUE(serveUntil([&] { return !observer_->heard.empty(); }));
    EXPECT_EQ(observer_->heard, std::vector<int>{3});
}

TEST_F(ObserverTest, RegisteringIsLocalAndSendsNothing) {
    sent();
    manager().registerAsSettingNotifi_object(*observer_);
    EXPECT_EQ(sent(), Messages{});
}

TEST_F(ObserverTest, HearsOnAfterTheDataManagerWasToldToDisconnect) {
    manager().registerAsSettingNotifi_object(*observer_);
    manager().disConnectSrv();
    post(5);
    EXPECT_TRUE(serveUntil([&] { return !observer_->heard.empty(); }));
}

TEST_F(ObserverTest, IsNotRetainedAndSkippedOnceItIsGone) {
    manager().registerAsSettingNotifi_object(*observer_);
    EXPECT_EQ(observer_->retainCount(), 1U);
    observer_ = nullptr;
    post(6);
    serveForAWhile();
}

TEST_F(ObserverTest, TheNamesThatOtherProgramsKnowStandAsTheyAre) {
    EXPECT_STREQ(kOKVDataServerName, "jp.nrm.okv6.dataConnection");
    EXPECT_STREQ(kOKVSettingNotification, kNotice);
}

TEST_F(ObserverTest, AMethodWithoutAResultIsARoundTripAllTheSame) {
    server().hangUpAt("removeUserInfoAllPT");
    EXPECT_THROW(manager().removeUserInfoAll(), okv::ConnectionError);
}

}  // namespace dmtest
