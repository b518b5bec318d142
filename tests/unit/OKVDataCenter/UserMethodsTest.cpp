#include "Harness.h"

#include "support/Answers.h"
#include "support/Sanitizers.h"

#include <cmath>

using okv::Array;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using Kind = okv::Refusal::Kind;

namespace {

class UserMethods : public testing::Test {
protected:
    std::int32_t currentOf(uid_t uid) {
        return harness.askAs<&Data::currentUserIdPT>(account(uid)).value;
    }
    Value users() { return harness.ask<&Data::useridAppListPT>(); }

    Harness harness;
};

}  // namespace

TEST_F(UserMethods, AFreshStoreHasTheDefaultUserAlone) {
    EXPECT_EQ(harness.ask<&Data::defaultUserIdPT>(), 1);
    EXPECT_EQ(harness.ask<&Data::currentUserIdPT>(), 1);
    EXPECT_EQ(harness.ask<&Data::maxUserIdPT>(), 1);
    EXPECT_EQ(users(), Value(Array{1}));
    EXPECT_EQ(harness.ask<&Data::uidListPT>(), Value(Dictionary{}));
}

TEST_F(UserMethods, AnAccountIsGivenAUserWhichIsMadeWhenItIsNew) {
    harness.ask<&Data::setUseridPT_applyUid>(1000, 12);
    harness.ask<&Data::setUseridPT_applyUid>(1001, 3);
    harness.ask<&Data::setUseridPT_applyUid>(0, 12);
    EXPECT_EQ(users(), Value(Array{1, 3, 12}));
    EXPECT_EQ(harness.ask<&Data::uidListPT>(), Value(Dictionary{{1000, 12}, {1001, 3}, {0, 12}}));
    EXPECT_EQ(harness.ask<&Data::userAppuidPT>(1000), 12);
    EXPECT_EQ(harness.ask<&Data::userAppuidPT>(4242), 1);
    EXPECT_EQ(harness.ask<&Data::maxUserIdPT>(), 12);
    harness.restart();
    EXPECT_EQ(harness.ask<&Data::userAppuidPT>(1000), 12);
    EXPECT_EQ(users(), Value(Array{1, 3, 12}));
}

TEST_F(UserMethods, WhatIsNoAccountOrNoUserIsAssignedNothing) {
    const struct {
        std::int32_t osUid, appUid;
    } lines[] = {{1000, 0}, {1000, -1}, {-1, 5}, {INT32_MIN, 5}, {65534, 5}};
    for (const auto& [osUid, appUid] : lines) {
        harness.ask<&Data::setUseridPT_applyUid>(osUid, appUid);
        EXPECT_EQ(users(), Value(Array{1})) << osUid << " " << appUid;
        EXPECT_EQ(harness.ask<&Data::uidListPT>(), Value(Dictionary{}));
    }
    EXPECT_EQ(harness.server->view().revision(), 0);
}

TEST_F(UserMethods, TakingAnAssignmentAwayAnswersTheUserItHadOrMinusOne) {
    harness.ask<&Data::setUseridPT_applyUid>(1000, 12);
    EXPECT_EQ(harness.ask<&Data::delUseridPT>(1000), 12);
    EXPECT_EQ(harness.ask<&Data::delUseridPT>(1000), -1);
    EXPECT_EQ(harness.ask<&Data::delUseridPT>(-7), -1);
    EXPECT_EQ(harness.ask<&Data::userAppuidPT>(1000), 1);
    EXPECT_EQ(users(), Value(Array{1, 12}));
    EXPECT_EQ(harness.server->view().revision(), 2);  // what changed nothing has no revision
}

// The wire carries a uid in a signed number: the larger ones come negative.
TEST_F(UserMethods, AnAccountIsKnownByThe32BitsOfItsUid) {
    constexpr uid_t kLarge = 3000000000;
    const auto osUid = static_cast<std::int32_t>(kLarge);
    EXPECT_TRUE(harness.ask<&Admin::importDataPT>(
        Dictionary{{"format", 1},
                   {"users", Dictionary{{"1", Dictionary{}}, {"2", Dictionary{}}}},
                   {"accounts", Dictionary{{"3000000000", Dictionary{{"appuid", 2}}}}}}));
    EXPECT_EQ(harness.ask<&Data::userAppuidPT>(osUid), 2);
    EXPECT_TRUE(harness.ask<&Data::setOKVDataPT_value_osUid>("k", "one", osUid));
    EXPECT_TRUE(harness.ask<&Data::setOKVDataAllPT_osUid>(Dictionary{{"l", "many"}}, osUid));
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 2)), Value("one"));
    EXPECT_EQ((harness.ask<&Data::okvDataPT_osUid>("k", osUid)), Value("one"));
    EXPECT_EQ((harness.ask<&Data::okvDataAllPT_osUid>(Array{"l"}, osUid)),
              Value(Dictionary{{"l", "many"}}));
    EXPECT_TRUE((harness.ask<&Admin::setCurrentUserIdPT_osUid>(1, osUid)));
    EXPECT_EQ(currentOf(kLarge), 1);
    EXPECT_EQ(harness.poster.take(4).back()["osuserid"], Value(std::int64_t{kLarge}));
    EXPECT_EQ(harness.ask<&Data::delUseridPT>(osUid), 2);
    EXPECT_EQ(harness.ask<&Data::delUseridPT>(osUid), -1);
    EXPECT_EQ(harness.ask<&Data::uidListPT>(), Value(Dictionary{}));
}

TEST_F(UserMethods, AnAssignmentThatCannotBeTakenAwayAnswersNoUser) {
    harness.ask<&Data::setUseridPT_applyUid>(1000, 12);
    datacenter::Database(harness.storeFile(), SQLITE_OPEN_READWRITE)
        .execute(
            "CREATE TRIGGER stays BEFORE UPDATE ON accounts BEGIN"
            " SELECT RAISE(ABORT, 'it stays'); END");
    support::expectRefused(harness.askAs<&Data::delUseridPT>(account(0), 1000), Kind::failed,
                           "an assignment");
    EXPECT_EQ(harness.ask<&Data::userAppuidPT>(1000), 12);
}

TEST_F(UserMethods, TheCurrentUserIsTheLastSetElseTheAccountsElseTheGlobalOne) {
    harness.ask<&Data::setUseridPT_applyUid>(1000, 2);
    harness.ask<&Data::setUseridPT_applyUid>(1001, 3);
    EXPECT_TRUE(harness.ask<&Data::setCurrentUserIdPT>(3));
    EXPECT_EQ(currentOf(1000), 2);
    EXPECT_EQ(currentOf(4242), 3);
    EXPECT_EQ(currentOf(65534), 3);
    EXPECT_TRUE(harness.ask<&Data::setCurrentUserIdForOSPT>(2));  // root's own
    EXPECT_EQ(currentOf(0), 2);
    EXPECT_TRUE((harness.ask<&Admin::setCurrentUserIdPT_osUid>(3, 1000)));
    EXPECT_EQ(currentOf(1000), 3);
    EXPECT_EQ(harness.ask<&Data::userAppuidPT>(1000), 2);
    harness.restart();
    EXPECT_EQ(currentOf(1000), 3);
    EXPECT_EQ(currentOf(4242), 3);
}

TEST_F(UserMethods, ANewAssignmentIsTheAccountsCurrentUserToo) {
    harness.ask<&Data::setUseridPT_applyUid>(1000, 2);
    EXPECT_TRUE((harness.ask<&Admin::setCurrentUserIdPT_osUid>(1, 1000)));
    harness.ask<&Data::setUseridPT_applyUid>(1000, 3);
    EXPECT_EQ(currentOf(1000), 3);
    harness.restart();
    EXPECT_EQ(currentOf(1000), 3);
}

TEST_F(UserMethods, AnUnknownUserBecomesNobodysCurrentUser) {
    for (const auto& user : {Value(99), Value(0), Value(-1), Value("1"), Value(), Value(Null{})}) {
        EXPECT_FALSE(harness.ask<&Data::setCurrentUserIdPT>(user));
        EXPECT_FALSE(harness.ask<&Data::setCurrentUserIdForOSPT>(user));
        EXPECT_FALSE((harness.ask<&Admin::setCurrentUserIdPT_osUid>(user, 1000)));
    }
    EXPECT_FALSE((harness.ask<&Admin::setCurrentUserIdPT_osUid>(1, -1)));
    EXPECT_EQ(harness.ask<&Data::currentUserIdPT>(), 1);
}

TEST_F(UserMethods, ARemovedUserLeavesNothingBehind) {
    harness.ask<&Data::setUseridPT_applyUid>(1000, 2);
    harness.ask<&Data::setUseridPT_applyUid>(1001, 3);
    EXPECT_TRUE((harness.ask<&Data::setOKVDataPT_value_appUid>("k", "v", 2)));
    EXPECT_TRUE((harness.ask<&Data::setOkvHammerListPT_value>(2, Array{"x"})));
    EXPECT_TRUE((harness.ask<&Admin::setCurrentUserIdPT_osUid>(2, 1001)));
    EXPECT_TRUE(harness.ask<&Data::setCurrentUserIdPT>(2));

    EXPECT_TRUE(harness.ask<&Data::removeUserInfoPT>(2));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(users(), Value(Array{1, 3}));
        EXPECT_EQ(harness.ask<&Data::uidListPT>(), Value(Dictionary{{1001, 3}}));
        EXPECT_EQ(currentOf(1001), 3);
        EXPECT_EQ(currentOf(4242), 1);
        EXPECT_EQ(harness.ask<&Data::userAppuidPT>(1000), 1);
        EXPECT_EQ(harness.ask<&Data::maxUserIdPT>(), 3);
        harness.restart();
    }
    harness.ask<&Data::setUseridPT_applyUid>(1000, 2);
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 2)), Value(Null{}));
    EXPECT_TRUE(harness.ask<&Data::okvHammerListPT>(2).isNil());
}

TEST_F(UserMethods, TheDefaultUserAndUnknownOnesAreNotRemoved) {
    for (const auto& user : {Value(1), Value(99), Value(0), Value("2"), Value()})
        EXPECT_FALSE(harness.ask<&Data::removeUserInfoPT>(user));
    EXPECT_EQ(users(), Value(Array{1}));
}

TEST_F(UserMethods, TheHighestIdIsTheHighestEverGiven) {
    harness.ask<&Data::setUseridPT_applyUid>(1000, INT32_MAX);
    EXPECT_TRUE(harness.ask<&Data::removeUserInfoPT>(INT32_MAX));
    EXPECT_EQ(harness.ask<&Data::maxUserIdPT>(), INT32_MAX);
    harness.restart();
    EXPECT_EQ(harness.ask<&Data::maxUserIdPT>(), INT32_MAX);
}

TEST_F(UserMethods, RemovingAllLeavesTheDefaultUserEmpty) {
    harness.ask<&Data::setUseridPT_applyUid>(1000, 2);
    harness.ask<&Data::setUseridPT_applyUid>(1001, 1);
    EXPECT_TRUE((harness.ask<&Data::setOKVDataPT_value_appUid>("k", "v", 1)));
    EXPECT_TRUE((harness.ask<&Data::setOkvUserSettingPT_value>(1, Array{"x"})));
    EXPECT_TRUE((harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"k", "all"}})));
    EXPECT_TRUE(harness.ask<&Data::setCurrentUserIdPT>(2));
    harness.ask<&Data::removeUserInfoAllPT>();
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(users(), Value(Array{1}));
        EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), Value("all"));
        EXPECT_TRUE(harness.ask<&Data::okvUserSettingPT>(1).isNil());
        EXPECT_EQ(harness.ask<&Data::uidListPT>(), Value(Dictionary{{1001, 1}}));
        EXPECT_EQ(currentOf(4242), 1);
        harness.restart();
    }
}

namespace {

constexpr int kMany = support::kIsSanitized ? 500 : 5000;

// Accounts of users, and some that have the default user in one way or another.
Dictionary manyUsers(int count) {
    Dictionary users{{"1", Dictionary{{"settings", Dictionary{{"k", "v"}}}}}}, accounts;
    for (int user = 2; user < count + 2; ++user) {
        const auto id = std::to_string(user);
        users.set(id, Dictionary{{"settings", Dictionary{{"k", user}, {"l", "own"}}},
                                 {"hammer_list", Array{"x"}}});
        accounts.set(std::to_string(10000 + user), Dictionary{{"appuid", user}});
    }
    accounts.set("1", Dictionary{{"appuid", 1}, {"current", 2}});
    accounts.set("2", Dictionary{{"appuid", 3}, {"current", 1}});
    accounts.set("3", Dictionary{{"appuid", 2}, {"current", 3}});
    accounts.set("4", Dictionary{{"current", 2}});
    return {{"format", 1},      {"everybody", Dictionary{{"k", "all"}}},
            {"users", users},   {"accounts", accounts},
            {"locks", Array{}}, {"current_user", 2}};
}

}  // namespace

TEST_F(UserMethods, RemovingAllTakesThousandsOfUsersAndTheirAccountsInOneChange) {
    ASSERT_TRUE(harness.ask<&Admin::importDataPT>(manyUsers(kMany)));
    ASSERT_EQ(users().as<Array>().size(), kMany + 1U);
    harness.poster.take(1);
    harness.ask<&Data::removeUserInfoAllPT>();
    const auto told = harness.poster.take(1).at(0);
    EXPECT_EQ(told["revision"], Value(2));
    EXPECT_EQ(told["osuserid"], Value(-1));
    EXPECT_FALSE(told.contains("appuid"));
    EXPECT_FALSE(told.contains("keys"));
    const Dictionary remaining{{"1", Dictionary{{"appuid", 1}}}, {"2", Dictionary{{"current", 1}}}};
    for (int round = 0; round < 2; ++round) {
        const auto whole = harness.ask<&Admin::exportDataPT>().as<Dictionary>();
        EXPECT_EQ(whole["users"], Value(Dictionary{{"1", Dictionary{{"settings", Dictionary{}}}}}));
        EXPECT_EQ(whole["accounts"], Value(remaining));
        EXPECT_EQ(whole["everybody"], Value(Dictionary{{"k", "all"}}));
        EXPECT_EQ(whole["current_user"], Value(1));
        EXPECT_EQ(whole["highest_user"], Value(kMany + 1));
        EXPECT_EQ(whole["revision"], Value(2));
        EXPECT_EQ(harness.store->usage(1).bytes, 0);
        harness.restart();
    }
}

TEST_F(UserMethods, TheClockIsNilUntilItIsSetRunsWhenStartedAndStandsWhenStopped) {
    const auto time = [&] { return harness.ask<&Data::serverTimePT>(); };
    EXPECT_TRUE(time().isNil());
    harness.ask<&Data::startServerTimeTimer>();
    EXPECT_TRUE(time().isNil());
    harness.ask<&Data::stopServerTimeTimer>();

    harness.ask<&Data::setServerTimePT>(okv::Date{500});
    harness.now = harness.now + 10;
    EXPECT_EQ(time(), Value(okv::Date{500}));
    harness.ask<&Data::startServerTimeTimer>();
    harness.now = harness.now + 10;
    EXPECT_EQ(time(), Value(okv::Date{510}));
    harness.ask<&Data::startServerTimeTimer>();  // runs already
    harness.now = harness.now + 10;
    EXPECT_EQ(time(), Value(okv::Date{520}));
    harness.stop();
    harness.now = harness.now + 100;
    harness.start();
    EXPECT_EQ(time(), Value(okv::Date{620}));
    harness.ask<&Data::setServerTimePT>(okv::Date{-5});  // keeps running
    harness.now = harness.now + 1;
    EXPECT_EQ(time(), Value(okv::Date{-4}));
    harness.ask<&Data::stopServerTimeTimer>();
    harness.now = harness.now + 50;
    harness.restart();
    EXPECT_EQ(time(), Value(okv::Date{-4}));
}

TEST_F(UserMethods, AClockIsSetToADateAlone) {
    for (const auto& date : {Value(), Value(Null{}), Value(500), Value("noon"),
                             Value(okv::Date{HUGE_VAL}), Value(okv::Date{NAN})}) {
        const auto answer = harness.askAs<&Data::setServerTimePT>(account(0), date);
        ASSERT_TRUE(answer.refusal);
        EXPECT_EQ(answer.refusal->kind, Kind::invalid);
    }
    EXPECT_TRUE(harness.ask<&Data::serverTimePT>().isNil());
}
