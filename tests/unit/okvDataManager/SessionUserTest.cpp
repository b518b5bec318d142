#include "Support.h"

// The session user, and the server's clock.

namespace dmtest {
namespace {

using okv::Array;
using okv::Date;
using okv::Dictionary;
using testing::ElementsAre;
using testing::IsEmpty;

class SessionUserTest : public ConnectedTest {
protected:
    static Value switchOf(const Value& account, const Value& user) {
        return Dictionary{{"osuserid", account}, {"session_userid", user}};
    }

    LoggedEntries entries_;
};

std::string switchLine(std::int64_t account, std::int32_t user) {
    return "->userSwitch! osUid:" + std::to_string(account) +
           ", sessionUserId:" + std::to_string(user);
}

bool isNow(Date date) {
    return std::abs(date.secondsSince1970 - Date::now().secondsSince1970) < 60;
}

}  // namespace

TEST_F(SessionUserTest, AnyIdIsStoredUnchecked) {
    for (const std::int32_t id : {-1, 0, INT32_MIN, INT32_MAX}) {
        manager().setNowSessionUserId(id);
        EXPECT_EQ(manager().nowSessionUserId(), id);
    }
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SessionUserTest, AKnownIdThatIsNotTheStoredOneChangesNothing) {
    manager().setNowSessionUserId(99);
    EXPECT_FALSE(manager().updateNowSessionUserId(3));
    EXPECT_EQ(manager().nowSessionUserId(), 99);
    EXPECT_THAT(sent(), ElementsAre(userListMessage()));
}

TEST_F(SessionUserTest, AnUnknownIdStoresTheDefaultUserEvenWhereTheStoredOneIsKnown) {
    EXPECT_TRUE(manager().updateNowSessionUserId(99));
    EXPECT_EQ(manager().nowSessionUserId(), 3);
    EXPECT_THAT(sent(), ElementsAre(userListMessage(), defaultUserMessage()));
}

TEST_F(SessionUserTest, WithoutAProxyNoUserIsKnownAndZeroIsStored) {
    manager().disConnectSrv();
    EXPECT_TRUE(manager().updateNowSessionUserId(7));
    EXPECT_EQ(manager().nowSessionUserId(), 0);
}

TEST_F(SessionUserTest, UserInformationThatIsNoDictionaryIsIgnoredSilently) {
    for (const Value& information :
         {Value(), Value(okv::Null{}), Value(Array{"osuserid", kAccount}), Value("osuserid")})
        manager().updateSessionUserId(information);
    EXPECT_EQ(manager().nowSessionUserId(), 7);
    EXPECT_THAT(entries_.take(), IsEmpty());
}

TEST_F(SessionUserTest, ASwitchOfThisAccountIsLoggedAndStoredUnchecked) {
    manager().updateSessionUserId(switchOf(kAccount, 1234));
    EXPECT_EQ(manager().nowSessionUserId(), 1234);
    EXPECT_THAT(entries_.take(), ElementsAre(std::pair(30, switchLine(kAccount, 1234))));
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SessionUserTest, AnUnknownUserOfASwitchIsResetByTheNextRead) {
    manager().updateSessionUserId(switchOf(kAccount, 1234));
    manager().okvCurrentHammerList();
    EXPECT_EQ(manager().nowSessionUserId(), 3);
    EXPECT_THAT(sent(), ElementsAre(userListMessage(), defaultUserMessage(),
                                    ReceivedMessage{"okvHammerListPT:", "@", {3}}));
}

TEST_F(SessionUserTest, ASwitchOfAnotherAccountIsLoggedAndNotApplied) {
    manager().updateSessionUserId(switchOf(kAccount + 1, 3));
    EXPECT_EQ(manager().nowSessionUserId(), 7);
    EXPECT_THAT(entries_.take(), ElementsAre(std::pair(30, switchLine(kAccount + 1, 3))));
}

TEST_F(SessionUserTest, AnAbsentUserReadsAsZero) {
    manager().updateSessionUserId(Dictionary{{"osuserid", kAccount}});
    EXPECT_EQ(manager().nowSessionUserId(), 0);
}

TEST_F(SessionUserTest, AnAbsentAccountReadsAsZeroWhichIsOnlyTheSuperusersOwn) {
    manager().updateSessionUserId(Dictionary{{"session_userid", 3}});
    EXPECT_EQ(manager().nowSessionUserId(), getuid() == 0 ? 3 : 7);
    EXPECT_THAT(entries_.take(), ElementsAre(std::pair(30, switchLine(0, 3))));
}

TEST_F(SessionUserTest, TextsInASwitchAreReadAsTheirIntegerValues) {
    manager().updateSessionUserId(switchOf(std::to_string(kAccount), "12 apples"));
    EXPECT_EQ(manager().nowSessionUserId(), 12);
}

TEST_F(SessionUserTest, ANoticeWithoutASwitchLeavesTheSessionUser) {
    manager().updateSessionUserId(switchOf(-1, 0));
    EXPECT_EQ(manager().nowSessionUserId(), 7);
}

TEST_F(SessionUserTest, TheServersTimeIsAnsweredWhenItGivesADate) {
    server().answer("serverTimePT", Date{12345.5});
    EXPECT_EQ(manager().serverTime(), Date{12345.5});
}

TEST_F(SessionUserTest, TheLocalClockStandsInForAnAnswerThatIsNoDate) {
    for (const Value& answer : {Value(), Value(okv::Null{}), Value("noon"), Value(5)}) {
        server().answer("serverTimePT", answer);
        EXPECT_TRUE(isNow(manager().serverTime()));
    }
    EXPECT_EQ(sent().size(), 4U) << "asked each time";
}

TEST_F(SessionUserTest, TheLocalClockStandsInWithoutAConnection) {
    server().answer("serverTimePT", Date{12345.5});
    manager().disConnectSrv();
    EXPECT_TRUE(isNow(manager().serverTime()));
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SessionUserTest, TheTimersNeedAProxy) {
    manager().disConnectSrv();
    manager().startServerTimeTimer();
    manager().stopServerTimeTimer();
    manager().setServerTime(Date{1});
    EXPECT_THAT(sent(), IsEmpty());
}

}  // namespace dmtest
