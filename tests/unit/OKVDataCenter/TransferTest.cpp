#include "Harness.h"
#include "Transfer.h"

#include <cmath>
#include <random>

using okv::Array;
using okv::Date;
using okv::Dictionary;
using okv::Value;
using Kind = okv::Refusal::Kind;

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

TEST(Transfer, AnExportOfAClockThatWasNeverSetIsTaken) {
    Harness from, to;
    const auto whole = from.ask<&Admin::exportDataPT>();
    EXPECT_TRUE(whole.as<Dictionary>()["clock"].as<Dictionary>()["time"].isNull());
    to.ask<&Data::setServerTimePT>(Date{500});
    EXPECT_TRUE(to.ask<&Admin::importDataPT>(whole));
    EXPECT_EQ(content(to.ask<&Admin::exportDataPT>()), content(whole));
}

TEST(Transfer, WhatAnAccountChoseIsTakenInEitherOrder) {
    Harness harness;
    fill(harness);
    for (const auto& account :
         {Dictionary{{"current", 1}, {"appuid", 7}}, Dictionary{{"appuid", 7}, {"current", 1}}}) {
        EXPECT_TRUE(harness.ask<&Admin::importDataPT>(
            Dictionary{{"format", 1}, {"accounts", Dictionary{{"1000", account}}}}));
        const auto whole = harness.ask<&Admin::exportDataPT>();
        EXPECT_EQ(whole.as<Dictionary>()["accounts"], Value(Dictionary{{"1000", account}}));
    }
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

namespace {

std::vector<Dictionary> badParts() {
    return {
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
        {{"accounts", Dictionary{{"1000", Dictionary{{"appuid", "2"}}}}}},
        {{"accounts", Dictionary{{"1000", Dictionary{{"appuid", kNull}}}}}},
        {{"accounts", Dictionary{{"1000", Dictionary{{"appuid", true}}}}}},
        {{"accounts", Dictionary{{"1000", Dictionary{{"appuid", (std::int64_t{1} << 32) + 2}}}}}},
        {{"accounts", Dictionary{{"1000", Dictionary{{"appuid", 2}, {"current", 2.0}}}}}},
        {{"accounts", Dictionary{{"1000", Dictionary{{"appuid", 2}, {"curent", 2}}}}}},
        {{"accounts", Dictionary{{"1000", Dictionary{{0, 2}}}}}},
        {{"accounts", Dictionary{{"1000", 2}}}},
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
        {{"clock", Dictionary{{"time", 500}}}},
        {{"clock", Dictionary{{"since", "1970-01-01"}}}},
        {{"clock", Dictionary{{"since", Date{HUGE_VAL}}}}},
        {{"clock", Dictionary{{"since", kNull}}}},
        {{"clock", Dictionary{{"running", 1}}}},
        {{"clock", Dictionary{{"running", "YES"}}}},
        {{"clock", Dictionary{{"time", Date{500}}, {"runing", true}}}},
        {{"surprise", 1}},
    };
}

}  // namespace

TEST(Transfer, ABadPartLeavesEverythingAsItWas) {
    Harness harness;
    fill(harness);
    const auto before = content(harness.ask<&Admin::exportDataPT>());
    const auto revision = harness.server->view().revision();
    for (auto part : badParts()) {
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
        return datacenter::fitsInReply(parts, datacenter::Limits());
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
