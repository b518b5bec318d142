#include "Support.h"

#include <limits>

#include <unistd.h>

// The user identities: what is made of the server's lists.

namespace dmtest {
namespace {

using okv::Array;
using okv::Dictionary;
using testing::ElementsAre;

using UsersTest = ConnectedTest;

constexpr std::int64_t kBeyond32Bits = std::int64_t{1} << 32;

}  // namespace

TEST_F(UsersTest, AnAnswerThatIsNoArrayIsNoList) {
    for (const Value& answer : {Value(okv::Null{}), Value(Dictionary{{1, 3}}), Value("3")}) {
        server().answer("useridAppListPT", answer);
        EXPECT_EQ(manager().userIdList(), Value());
    }
}

TEST_F(UsersTest, AListThatTheServerDoesNotGiveIsNilAndAnEmptyOneIsEmpty) {
    server().answer("useridAppListPT", Value());
    EXPECT_EQ(manager().userIdList(), Value());
    server().answer("useridAppListPT", Array{});
    EXPECT_EQ(manager().userIdList(), Value(Array{}));
}

TEST_F(UsersTest, TheListKeepsItsElementsAndTheirOrder) {
    server().answer("useridAppListPT", Array{7, "3", 2.5, 7});
    EXPECT_EQ(manager().userIdList(), Value(Array{7, "3", 2.5, 7}));
}

TEST_F(UsersTest, AChangedListIsTheCallersOwn) {
    auto list = manager().userIdList();
    list.as<Array>().clear();
    EXPECT_EQ(manager().userIdList(), Value(Array{3, 7}));
}

TEST_F(UsersTest, NoUserIsKnownWhereTheListIsEmptyOrNil) {
    for (const Value& list : {Value(Array{}), Value(), Value(okv::Null{})}) {
        server().answer("useridAppListPT", list);
        for (const std::int32_t id : {0, -1, 3, 7}) EXPECT_FALSE(manager().isUserId(id)) << id;
    }
}

TEST_F(UsersTest, AUserIsKnownByTheIntegerValueOfAnyElement) {
    server().answer("useridAppListPT", Array{"12x", 4.9, -1});
    EXPECT_TRUE(manager().isUserId(12));
    EXPECT_TRUE(manager().isUserId(4));
    EXPECT_TRUE(manager().isUserId(-1));
    EXPECT_FALSE(manager().isUserId(5));
}

TEST_F(UsersTest, EveryTestOfAUserAsksTheServerAnew) {
    EXPECT_TRUE(manager().isUserId(7));
    server().answer("useridAppListPT", Array{3});
    EXPECT_FALSE(manager().isUserId(7));
    EXPECT_THAT(sentSelectors(), ElementsAre("useridAppListPT", "useridAppListPT"));
}

TEST_F(UsersTest, TheAccountTableIsHandedOnAsItComes) {
    for (const Value& table : {Value(), Value(okv::Null{}), Value(Array{1}), Value(Dictionary{})}) {
        server().answer("uidListPT", table);
        EXPECT_EQ(manager().userIdOSList(), table);
    }
}

TEST_F(UsersTest, OnlyTheLow32BitsOfAnAccountKeyAreCompared) {
    server().answer("uidListPT", Dictionary{{kAccount + 1, 4}, {kBeyond32Bits + kAccount, 12}});
    EXPECT_EQ(manager().isAppUserIdWithOSId(), 12);
}

TEST_F(UsersTest, ANegativeAccountKeyIsReadThroughItsLow32BitsToo) {
    server().answer("uidListPT", Dictionary{{kAccount - kBeyond32Bits, 12}});
    EXPECT_EQ(manager().isAppUserIdWithOSId(), 12);
}

TEST_F(UsersTest, NoAccountThatMatchesAnswersMinusOne) {
    for (const Value& table : {Value(), Value(okv::Null{}), Value(Array{kAccount}),
                               Value(Dictionary{}), Value(Dictionary{{kAccount + 1, 4}})}) {
        server().answer("uidListPT", table);
        EXPECT_EQ(manager().isAppUserIdWithOSId(), -1);
    }
}

TEST_F(UsersTest, ATextUnderTheAccountIsReadAsItsIntegerValue) {
    server().answer("uidListPT", Dictionary{{std::to_string(kAccount), "42nd"}});
    EXPECT_EQ(manager().isAppUserIdWithOSId(), 42);
}

TEST_F(UsersTest, TheServersIntegerOfADeletionIsAnsweredUnchanged) {
    for (const std::int32_t answer : {-1, std::numeric_limits<std::int32_t>::min(), 0, 9}) {
        server().answer("delUseridPT:", answer);
        EXPECT_EQ(manager().delUserid(501), answer);
    }
}

TEST_F(UsersTest, AnyIdIsSentAsItIs) {
    manager().setCurrentUserId(std::numeric_limits<std::int32_t>::max());
    manager().userAppuid(-1);
    EXPECT_THAT(sent(), ElementsAre(ReceivedMessage{"setCurrentUserIdPT:", "@", {INT32_MAX}},
                                    ReceivedMessage{"userAppuidPT:", "i", {-1}}));
}

}  // namespace dmtest
