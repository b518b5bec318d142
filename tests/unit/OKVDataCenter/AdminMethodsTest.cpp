#include "Harness.h"
#include "Transfer.h"

#include <cmath>
#include <random>

using okv::Array;
using okv::Date;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using Kind = okv::Refusal::Kind;

namespace {

const Value kNull = Null{};

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

namespace {

void fill(Harness& harness) {
    harness.ask<&Data::setUseridPT_applyUid>(1000, 2);
    harness.ask<&Data::setUseridPT_applyUid>(1001, 7);
    harness.ask<&Admin::setCurrentUserIdPT_osUid>(1, 1000);
    harness.ask<&Data::setCurrentUserIdPT>(2);
    harness.ask<&Admin::setOKVCommonDataAllPT>(
        Dictionary{{"k", "all"}, {"dc-syscmnf-s", Array{1, Dictionary{{"x", kNull}}}}});
    harness.ask<&Data::setOKVDataPT_value_appUid>("k", okv::Data{1, 2}, 2);
    harness.ask<&Data::setOkvHammerListPT_value>(7, Array{"h"});
    harness.ask<&Admin::lockOKVDataPT>(Array{"locked"});
    harness.ask<&Admin::setOkvKillWebProcListPT>(Dictionary{{"p", "id"}});
    harness.ask<&Data::setServerTimePT>(Date{500});
    harness.ask<&Data::startServerTimeTimer>();
    harness.ask<&Data::setUseridPT_applyUid>(1002, 9);
    harness.ask<&Data::removeUserInfoPT>(9);
}

// Without what tells only which store it is.
Dictionary content(Value whole) {
    auto dictionary = std::move(whole.as<Dictionary>());
    dictionary.erase("epoch");
    dictionary.erase("revision");
    return dictionary;
}

}  // namespace

TEST(Transfer, AnExportTakenIntoAnotherStoreMakesItTheSame) {
    Harness from, to;
    fill(from);
    to.ask<&Data::setUseridPT_applyUid>(5, 5);
    to.ask<&Data::setOKVDataPT_value_appUid>("gone", 1, 5);
    const auto whole = from.ask<&Admin::exportDataPT>();
    EXPECT_TRUE(to.ask<&Admin::importDataPT>(whole));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(content(to.ask<&Admin::exportDataPT>()), content(whole));
        EXPECT_EQ((to.ask<&Data::okvDataPT_appUid>("k", 2)), Value(okv::Data{1, 2}));
        EXPECT_EQ(to.ask<&Data::useridAppListPT>(), Value(Array{1, 2, 7}));
        EXPECT_EQ(to.ask<&Data::maxUserIdPT>(), 9);
        to.restart();
    }
    to.now = to.now + 3;
    EXPECT_EQ(to.ask<&Data::serverTimePT>(), Value(Date{503}));
    EXPECT_EQ(to.server->view().revision(), 3);  // one change
    EXPECT_NE(to.store->epoch(), from.store->epoch());
}

TEST(Transfer, AnExportTellsItsForm) {
    Harness harness;
    fill(harness);
    const auto whole = harness.ask<&Admin::exportDataPT>().as<Dictionary>();
    EXPECT_EQ(whole["format"], Value(1));
    EXPECT_EQ(whole["epoch"], Value(harness.store->epoch()));
    EXPECT_EQ(whole["users"].as<Dictionary>()["7"].as<Dictionary>()["hammer_list"],
              Value(Array{"h"}));
    EXPECT_EQ(whole["accounts"].as<Dictionary>()["1000"],
              Value(Dictionary{{"appuid", 2}, {"current", 1}}));
    EXPECT_EQ(whole["locks"], Value(Array{"locked"}));
    EXPECT_EQ(whole["current_user"], Value(2));
    EXPECT_EQ(whole["highest_user"], Value(9));
}

TEST(Transfer, TheDeepestValueThatIsTakenIsAlsoExportedAndImported) {
    Value deepest = 1;
    for (int i = 0; i < 60; ++i) deepest = Array{deepest};
    Harness harness;
    EXPECT_TRUE((harness.ask<&Data::setOKVDataPT_value_appUid>("k", deepest, 1)));
    EXPECT_TRUE(harness.ask<&Admin::importDataPT>(harness.ask<&Admin::exportDataPT>()));
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), deepest);
}

TEST(Transfer, APartThatIsNotThereStaysAsItIs) {
    Harness harness;
    fill(harness);
    const auto before = content(harness.ask<&Admin::exportDataPT>());
    EXPECT_TRUE(harness.ask<&Admin::importDataPT>(
        Dictionary{{"format", 1}, {"everybody", Dictionary{{"only", 1}}}}));
    auto after = content(harness.ask<&Admin::exportDataPT>());
    EXPECT_EQ(after["everybody"], Value(Dictionary{{"only", 1}}));
    after.set("everybody", before["everybody"]);
    EXPECT_EQ(after, before);
}

TEST(Transfer, ABadPartLeavesEverythingAsItWas) {
    Harness harness;
    fill(harness);
    const auto before = content(harness.ask<&Admin::exportDataPT>());
    const auto revision = harness.server->view().revision();
    const Dictionary parts[] = {
        {{"format", 2}},
        {{"everybody", Dictionary{{"", 1}}}},
        {{"everybody", Array{}}},
        {{"users", Dictionary{{"0", Dictionary{}}}}},
        {{"users", Dictionary{{"two", Dictionary{}}}}},
        {{"users", Dictionary{{"2", Array{}}}}},
        {{"users", Dictionary{{"2", Dictionary{{"unknown", 1}}}}}},
        {{"users", Dictionary{{"2", Dictionary{{"settings", Dictionary{{"dc-syscmnf-x", 1}}}}}}}},
        {{"users", Dictionary{}}},  // the accounts and the current user name user 2
        {{"accounts", Dictionary{{"1000", Dictionary{{"appuid", 99}}}}}},
        {{"accounts", Dictionary{{"-1", Dictionary{}}}}},
        {{"accounts", Dictionary{{"65534", Dictionary{}}}}},
        {{"accounts", Dictionary{{"4294967296", Dictionary{}}}}},
        {{"locks", Array{7}}},
        {{"flt_proc_white", Dictionary{{"p", Value()}}}},
        {{"current_user", 99}},
        {{"current_user", "1"}},
        {{"highest_user", kNull}},
        {{"clock", 7}},
        {{"clock", Dictionary{{"time", Date{HUGE_VAL}}}}},
        {{"surprise", 1}},
    };
    for (auto part : parts) {
        if (!part.contains("format")) part.set("format", 1);
        const auto answer = harness.askAs<&Admin::importDataPT>(account(0), part);
        EXPECT_FALSE(answer.value) << part.begin()->key.as<std::string>();
        EXPECT_TRUE(answer.refusal);
    }
    EXPECT_FALSE(harness.ask<&Admin::importDataPT>(Dictionary{{"everybody", Dictionary{}}}));
    EXPECT_FALSE(harness.ask<&Admin::importDataPT>("file"));
    EXPECT_EQ(content(harness.ask<&Admin::exportDataPT>()), before);
    EXPECT_EQ(harness.server->view().revision(), revision);
    EXPECT_TRUE(harness.ask<&Admin::importDataPT>(Dictionary{{"format", 1}, {"highest_user", 3}}));
    EXPECT_EQ(harness.ask<&Data::maxUserIdPT>(), 9);  // ids that were given stay given
}

TEST(Transfer, WhatDoesNotGoIntoOneMessageIsNotExported) {
    datacenter::Limits limits;
    limits.replyBytes = 2000;
    Harness harness({limits});
    harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"k", std::string(990, 'v')}});
    EXPECT_TRUE(harness.ask<&Admin::exportDataPT>().is<Dictionary>());
    harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"l", std::string(990, 'v')}});
    const auto answer = harness.askAs<&Admin::exportDataPT>(account(0));
    EXPECT_TRUE(answer.value.isNil());
    ASSERT_TRUE(answer.refusal);
    EXPECT_EQ(answer.refusal->kind, Kind::tooLarge);
    const auto list = harness.askAs<&Admin::okvDataListPT>(account(0), "");
    EXPECT_TRUE(list.value.isNil());
    ASSERT_TRUE(list.refusal);
    EXPECT_EQ(list.refusal->kind, Kind::tooLarge);
}

namespace {

void expectNoExport(Harness& harness) {
    const auto answer = harness.askAs<&Admin::exportDataPT>(account(0));
    EXPECT_TRUE(answer.value.isNil());
    ASSERT_TRUE(answer.refusal);
    EXPECT_EQ(answer.refusal->kind, Kind::tooLarge);
    EXPECT_EQ(answer.refusal->reason, "the export is more than one message carries");
}

}  // namespace

TEST(Transfer, ProcessListsAloneCanBeMoreThanOneMessageCarries) {
    datacenter::Limits limits;
    limits.replyBytes = 3000;
    Harness harness({limits});
    const auto some = [](const char* prefix) {
        Dictionary processes;
        for (int i = 0; i < 9; ++i)
            processes.set(prefix + std::to_string(i), std::string(100, 'i'));
        return Value(processes);
    };
    harness.ask<&Admin::setOkvFltProcWhiteListPT>(some("white"));
    EXPECT_TRUE(harness.ask<&Admin::exportDataPT>().is<Dictionary>());
    harness.ask<&Admin::setOkvFltProcBlackListPT>(some("black"));
    harness.ask<&Admin::setOkvKillWebProcListPT>(some("kill"));
    expectNoExport(harness);
}

TEST(Transfer, MoreItemsThanOneMessageMayHaveAreNotExported) {
    const auto fits = [](std::size_t entries) {
        Dictionary parts{{"format", 1}, {"locks", Array(entries, Value(1))}};
        return datacenter::fitsInReply(parts, SIZE_MAX);
    };
    EXPECT_TRUE(fits(okv::kMaxItems - 100));
    EXPECT_FALSE(fits(okv::kMaxItems - 5));  // with what stands around them in a message
}

namespace {

/// Changes of every kind, drawn by chance.
class RandomChanges {
public:
    RandomChanges(Harness& harness, unsigned seed) : harness_(harness), engine_(seed) {}

    void next() {
        switch (pick(10)) {
            case 0:
                return harness_.ask<&Data::setUseridPT_applyUid>(pick(4), pick(6)), void();
            case 1:
                return harness_.ask<&Data::delUseridPT>(pick(4)), void();
            case 2:
                return harness_.ask<&Data::removeUserInfoPT>(pick(6)), void();
            case 3:
                return harness_.ask<&Admin::setCurrentUserIdPT_osUid>(pick(6), pick(4)), void();
            case 4:
                return harness_.ask<&Data::setCurrentUserIdPT>(pick(6)), void();
            case 5:
                return harness_.ask<&Admin::lockOKVDataPT>(Array{key()}), void();
            case 6:
                return harness_.ask<&Admin::unlockOKVDataPT>(Array{key(), key()}), void();
            case 7:
                return harness_.ask<&Data::setOkvHammerListPT_value>(pick(6), value()), void();
            case 8:
                return harness_.ask<&Admin::setOkvKillWebProcListPT>(Dictionary{{key(), value()}}),
                       void();
            default:
                return harness_.ask<&Data::setOKVDataAllPT_appUid>(
                           Dictionary{{key(), value()}, {key(), value()}}, pick(6)),
                       void();
        }
    }

private:
    int pick(int below) { return static_cast<int>(engine_() % static_cast<unsigned>(below)); }
    std::string key() { return (pick(4) == 0 ? "dc-syscmnf-" : "k") + std::to_string(pick(5)); }
    Value value() { return pick(3) == 0 ? kNull : Value(pick(100)); }

    Harness& harness_;
    std::mt19937 engine_;
};

}  // namespace

// The rules stand twice, in the store and in the view: whatever happens, both must say the same.
TEST(Transfer, TheViewIsAtAllTimesWhatTheStoreHolds) {
    for (const unsigned seed : {1U, 2U, 3U}) {
        Harness harness;
        RandomChanges changes(harness, seed);
        for (int i = 0; i < 300; ++i) {
            changes.next();
            if (i % 50 != 49) continue;
            const auto stored = harness.ask<&Admin::exportDataPT>();
            ASSERT_EQ(Value(datacenter::exportOf(harness.server->view())), stored) << seed;
        }
    }
}
