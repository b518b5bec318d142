#include "Harness.h"
#include "Items.h"

using okv::Array;
using okv::Date;
using okv::Dictionary;
using okv::Value;
using Kind = okv::Refusal::Kind;

namespace {

class AdminMethods : public testing::Test {
protected:
    AdminMethods() { harness.ask<&Data::setUseridPT_applyUid>(1000, 2); }

    bool setCommon(const Dictionary& settings) {
        return harness.ask<&Admin::setOKVCommonDataAllPT>(settings);
    }
    bool set(const char* key, const Value& value, std::int32_t user) {
        return harness.ask<&Data::setOKVDataPT_value_appUid>(key, value, user);
    }
    Value read(const char* key, std::int32_t user) {
        return harness.ask<&Data::okvDataPT_appUid>(key, user);
    }
    Value info(const char* key, std::int32_t user) {
        return harness.ask<&Admin::okvDataInfoPT_appUid>(key, user);
    }

    Harness harness;
};

}  // namespace

TEST_F(AdminMethods, EverybodysValuesAreSetAndTakenAwayTogetherOrNotAtAll) {
    EXPECT_TRUE(setCommon({{"k", 1}, {"l", 2}}));
    EXPECT_TRUE(setCommon({{"k", kNull}, {"l", 3}}));
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("k"), kNull);
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("l"), Value(3));
    EXPECT_FALSE(setCommon({{"l", 4}, {"", 1}}));
    EXPECT_FALSE(harness.ask<&Admin::setOKVCommonDataAllPT>(Array{"l"}));
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("l"), Value(3));
}

TEST_F(AdminMethods, AListHoldsTheKeysWithThePrefixInTheirOrder) {
    EXPECT_TRUE(setCommon({{"b-2", 2}, {"a", 0}, {"b-1", 1}, {"bb", 3}}));
    EXPECT_TRUE(set("b-own", 9, 2));
    const auto common = harness.ask<&Admin::okvDataListPT>("b-");
    EXPECT_EQ(common, Value(Dictionary{{"b-1", 1}, {"b-2", 2}}));
    EXPECT_EQ(common.as<Dictionary>().begin()->key, Value("b-1"));
    EXPECT_EQ(harness.ask<&Admin::okvDataListPT>("").as<Dictionary>().size(), 4U);
    EXPECT_EQ((harness.ask<&Admin::okvDataListPT_appUid>("b", 2)), Value(Dictionary{{"b-own", 9}}));
    EXPECT_TRUE((harness.ask<&Admin::okvDataListPT_appUid>("", 99)).isNil());
    EXPECT_TRUE(harness.ask<&Admin::okvDataListPT>(7).isNil());
}

TEST_F(AdminMethods, ADescriptionTellsWhereAValueComesFrom) {
    EXPECT_EQ(
        info("k", 2),
        Value(Dictionary{{"key", "k"}, {"value", kNull}, {"origin", "none"}, {"locked", false}}));
    EXPECT_TRUE(setCommon({{"k", "all"}}));
    EXPECT_EQ(info("k", 2), Value(Dictionary{{"key", "k"},
                                             {"value", "all"},
                                             {"origin", "everybody"},
                                             {"locked", false},
                                             {"writer", 0},
                                             {"time", Date{harness.now.load()}}}));
    harness.now = harness.now + 5;
    harness.askAs<&Data::setOKVDataPT_value_appUid>(account(1500, {Harness::kAdminGroup}), "k",
                                                    "own", 2);
    const auto own = info("k", 2);
    EXPECT_EQ(own.as<Dictionary>()["origin"], Value("user"));
    EXPECT_EQ(own.as<Dictionary>()["writer"], Value(1500));
    EXPECT_EQ(own.as<Dictionary>()["time"], Value(Date{harness.now.load()}));
    EXPECT_EQ(harness.ask<&Admin::okvDataInfoPT>("k").as<Dictionary>()["value"], Value("all"));
    EXPECT_TRUE(harness.ask<&Admin::okvDataInfoPT>(7).isNil());
}

TEST_F(AdminMethods, ALockedKeyAnswersEverybodysValueAndTakesNoUsers) {
    EXPECT_TRUE(setCommon({{"k", "all"}}));
    EXPECT_TRUE(set("k", "own", 2));
    EXPECT_TRUE(set("bare", "own", 2));
    EXPECT_TRUE(harness.ask<&Admin::lockOKVDataPT>(Array{"k", "bare"}));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(read("k", 2), Value("all"));
        EXPECT_EQ(read("bare", 2), kNull);
        for (const auto& value : {Value("new"), kNull}) {
            const auto answer =
                harness.askAs<&Data::setOKVDataPT_value_appUid>(account(0), "k", value, 2);
            EXPECT_FALSE(answer.value);
            ASSERT_TRUE(answer.refusal);
            EXPECT_EQ(answer.refusal->kind, Kind::locked);
        }
        harness.restart();
    }
    EXPECT_FALSE((harness.ask<&Data::setOKVDataAllPT_appUid>(Dictionary{{"a", 1}, {"k", 1}}, 2)));
    EXPECT_EQ(read("a", 2), kNull);
    EXPECT_TRUE(setCommon({{"k", "all of us"}}));
    const auto described = info("k", 2).as<Dictionary>();
    EXPECT_EQ(described["locked"], Value(true));
    EXPECT_EQ(described["lock_writer"], Value(0));
    EXPECT_EQ(described["origin"], Value("everybody"));
    const auto locks = harness.ask<&Admin::lockListPT>().as<Dictionary>();
    EXPECT_EQ(locks.size(), 2U);
    EXPECT_EQ(locks["k"].as<Dictionary>()["time"], Value(Date{harness.now.load()}));

    EXPECT_TRUE(harness.ask<&Admin::unlockOKVDataPT>(Array{"k", "never locked"}));
    EXPECT_EQ(read("k", 2), Value("own"));
    EXPECT_EQ(harness.ask<&Admin::lockListPT>().as<Dictionary>().size(), 1U);
}

TEST_F(AdminMethods, LocksAreAnArrayOfKeys) {
    for (const auto& keys : {Value(), Value("k"), Value(Array{"k", ""}), Value(Array{7})}) {
        EXPECT_FALSE(harness.ask<&Admin::lockOKVDataPT>(keys));
        EXPECT_FALSE(harness.ask<&Admin::unlockOKVDataPT>(keys));
    }
    EXPECT_EQ(harness.ask<&Admin::lockListPT>(), Value(Dictionary{}));
}

TEST_F(AdminMethods, TheProcessListsAreKeptApartNameByName) {
    EXPECT_TRUE(harness.ask<&Admin::setOkvFltProcWhiteListPT>(Dictionary{{"a", 1}, {"b", "two"}}));
    EXPECT_TRUE(harness.ask<&Admin::setOkvFltProcBlackListPT>(Dictionary{{"c", 3}}));
    EXPECT_TRUE(harness.ask<&Admin::setOkvKillWebProcListPT>(Dictionary{{"d", 4}}));
    EXPECT_TRUE(harness.ask<&Admin::setOkvFltProcWhiteListPT>(Dictionary{{"a", kNull}, {"e", 5}}));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(harness.ask<&Data::okvFltProcWhiteListPT>(),
                  Value(Dictionary{{"b", "two"}, {"e", 5}}));
        EXPECT_EQ(harness.ask<&Data::okvFltProcBlackListPT>(), Value(Dictionary{{"c", 3}}));
        EXPECT_EQ(harness.ask<&Data::okvKillWebProcListPT>(), Value(Dictionary{{"d", 4}}));
        harness.restart();
    }
    EXPECT_FALSE(harness.ask<&Admin::setOkvKillWebProcListPT>(Dictionary{{"x", 1}, {"", 2}}));
    EXPECT_FALSE(harness.ask<&Admin::setOkvKillWebProcListPT>(Array{"x"}));
    EXPECT_EQ(harness.ask<&Data::okvKillWebProcListPT>(), Value(Dictionary{{"d", 4}}));
}

TEST_F(AdminMethods, ChangesAreToldSinceARevision) {
    const auto since = harness.server->view().revision();
    EXPECT_TRUE((harness.ask<&Data::setOKVDataAllPT_appUid>(Dictionary{{"k", 1}, {"l", 2}}, 2)));
    EXPECT_FALSE(set("", 1, 2));
    EXPECT_TRUE(setCommon({{"m", 1}}));
    EXPECT_TRUE((harness.ask<&Admin::setCurrentUserIdPT_osUid>(2, 1000)));
    for (int round = 0; round < 2; ++round) {
        const auto answer = harness.ask<&Admin::changesPT>(since).as<Dictionary>();
        EXPECT_EQ(answer["epoch"], Value(harness.store->epoch()));
        EXPECT_EQ(answer["revision"], Value(since + 3));
        const auto& changes = answer["changes"].as<Array>();
        ASSERT_EQ(changes.size(), 3U);
        EXPECT_EQ(changes[0], Value(Dictionary{{"revision", since + 1},
                                               {"osuserid", -1},
                                               {"session_userid", 0},
                                               {"appuid", 2},
                                               {"keys", Array{"k", "l"}},
                                               {"time", Date{harness.now.load()}},
                                               {"writer", 0}}));
        EXPECT_FALSE(changes[1].as<Dictionary>().contains("appuid"));
        EXPECT_EQ(changes[2].as<Dictionary>()["osuserid"], Value(1000));
        EXPECT_EQ(changes[2].as<Dictionary>()["session_userid"], Value(2));
        harness.restart();
    }
    EXPECT_EQ(harness.ask<&Admin::changesPT>(since + 3).as<Dictionary>()["changes"],
              Value(Array{}));
    for (const auto& unknown : {Value(since + 4), Value(-1), Value("0"), Value()}) {
        const auto answer = harness.ask<&Admin::changesPT>(unknown).as<Dictionary>();
        EXPECT_EQ(answer["resync"], Value(true));
        EXPECT_FALSE(answer.contains("changes"));
    }
}

TEST(AdminLimits, OnlyTheLastChangesAreKept) {
    datacenter::Limits limits;
    limits.changesKept = 5;
    Harness harness({limits});
    for (int i = 0; i < 8; ++i) harness.ask<&Data::setAgentAutoRunPT>(true);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(harness.ask<&Admin::changesPT>(3).as<Dictionary>()["changes"].as<Array>().size(),
                  5U);
        EXPECT_EQ(harness.ask<&Admin::changesPT>(2).as<Dictionary>()["resync"], Value(true));
        harness.restart();
    }
}

// The reader counts, too: what is more would be no answer to anybody.
TEST(AdminLimits, ChangesOfMoreItemsThanAReplyCarriesAreNotTold) {
    datacenter::Limits limits;
    limits.replyItems = 200;
    Harness harness({limits});
    Dictionary settings;
    for (int i = 0; i < 60; ++i) settings.set("k" + std::to_string(i), i);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(harness.ask<&Admin::setOKVCommonDataAllPT>(settings));
    const auto two = harness.ask<&Admin::changesPT>(1);
    EXPECT_EQ(two.as<Dictionary>()["changes"].as<Array>().size(), 2U);
    EXPECT_LE(datacenter::itemsIn(two), limits.replyItems);
    const auto three = harness.ask<&Admin::changesPT>(0).as<Dictionary>();
    EXPECT_EQ(three["resync"], Value(true));
    EXPECT_FALSE(three.contains("changes"));
}

TEST(AdminLimits, AChangeOfTooManyKeysTellsNone) {
    datacenter::Limits limits;
    limits.keysTold = 2;
    Harness harness({limits});
    harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"a", 1}, {"b", 1}});
    harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"a", 1}, {"b", 1}, {"c", 1}});
    const auto changes = harness.ask<&Admin::changesPT>(0).as<Dictionary>()["changes"].as<Array>();
    EXPECT_EQ(changes.at(0).as<Dictionary>()["keys"], Value(Array{"a", "b"}));
    EXPECT_FALSE(changes.at(1).as<Dictionary>().contains("keys"));
}
