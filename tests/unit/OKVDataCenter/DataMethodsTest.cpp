#include "Harness.h"

#include "support/Answers.h"

using okv::Array;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using support::expectRefused;
using Kind = okv::Refusal::Kind;

namespace {

class DataMethods : public testing::Test {
protected:
    DataMethods() {
        harness.ask<&Data::setUseridPT_applyUid>(1000, 2);
        harness.ask<&Data::setUseridPT_applyUid>(1001, 3);
        EXPECT_TRUE(harness.ask<&Admin::setOKVCommonDataAllPT>(
            Dictionary{{"dc-cmnset-a", "everybody's"}, {"dc-other-b", 7}, {"plain", 8}}));
    }

    Value read(const char* key, std::int32_t appUid) {
        return harness.ask<&Data::okvDataPT_appUid>(key, appUid);
    }
    bool set(const Value& key, const Value& value, std::int32_t appUid) {
        return harness.ask<&Data::setOKVDataPT_value_appUid>(key, value, appUid);
    }

    Harness harness;
};

}  // namespace

TEST_F(DataMethods, AReadAnswersTheUsersOwnValueElseEverybodysElseTheNullObject) {
    EXPECT_EQ(read("dc-cmnset-a", 2), Value("everybody's"));
    EXPECT_TRUE(set("dc-cmnset-a", "mine", 2));
    EXPECT_EQ(read("dc-cmnset-a", 2), Value("mine"));
    EXPECT_EQ(read("dc-cmnset-a", 3), Value("everybody's"));
    EXPECT_EQ(read("dc-cmnset-missing", 2), kNull);
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("dc-cmnset-a"), Value("everybody's"));
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("missing"), kNull);
}

TEST_F(DataMethods, AReadForAnUnknownUserAnswersEverybodysValue) {
    for (const int user : {99, 0, -1, INT32_MIN}) {
        EXPECT_EQ(read("dc-cmnset-a", user), Value("everybody's"));
        EXPECT_EQ(read("missing", user), kNull);
    }
}

TEST_F(DataMethods, AReadByAccountIsForItsUserElseForTheDefaultUser) {
    EXPECT_TRUE(set("k", "of 2", 2));
    EXPECT_TRUE(set("k", "of 1", 1));
    EXPECT_EQ(harness.ask<&Data::okvDataPT_osUid>("k", 1000), Value("of 2"));
    for (const int osUid : {4242, -5, 65534})
        EXPECT_EQ(harness.ask<&Data::okvDataPT_osUid>("k", osUid), Value("of 1"));
}

TEST_F(DataMethods, AKeyThatIsNoTextHasNoValue) {
    for (const auto& key : {Value(), kNull, Value(7), Value(Array{"k"})})
        EXPECT_EQ(harness.ask<&Data::okvDataPT>(key), kNull);
}

TEST_F(DataMethods, ManyAreReadIntoADictionaryWithNullWhereOneIsMissing) {
    EXPECT_TRUE(set("k", "mine", 2));
    const Array keys{"k", "missing", "dc-cmnset-a", "k"};
    EXPECT_EQ(harness.ask<&Data::okvDataAllPT_appUid>(keys, 2),
              Value(Dictionary{{"k", "mine"}, {"missing", kNull}, {"dc-cmnset-a", "everybody's"}}));
    EXPECT_EQ(harness.ask<&Data::okvDataAllPT_osUid>(keys, 1000),
              harness.ask<&Data::okvDataAllPT_appUid>(keys, 2));
    EXPECT_EQ(harness.ask<&Data::okvDataAllPT>(keys),
              Value(Dictionary{{"k", kNull}, {"missing", kNull}, {"dc-cmnset-a", "everybody's"}}));
    EXPECT_EQ(harness.ask<&Data::okvDataAllPT>(Array{}), Value(Dictionary{}));
}

TEST_F(DataMethods, ManyThatAreNoArrayOfTextsAnswerNil) {
    for (const auto& keys :
         {Value(), kNull, Value("k"), Value(Array{"k", 7}), Value(Dictionary{{"k", 1}})})
        EXPECT_TRUE(harness.ask<&Data::okvDataAllPT_appUid>(keys, 2).isNil());
}

TEST(DataLimits, AReadOfMoreItemsThanAReplyCarriesIsRefused) {
    datacenter::Limits limits;
    limits.replyItems = 1 + 2 * (2 + 10);  // the dictionary; a key, an array and what is in it
    Harness harness({limits});
    const Value ten = Array(10, Value(7));
    const auto root = account(0);
    const auto expectAll = [&](bool fit) {
        const auto check = [&](const auto& answer, const char* what) {
            if (!fit) return expectRefused(answer, Kind::tooLarge, what);
            EXPECT_FALSE(answer.refusal) << what;
            EXPECT_TRUE(answer.value.template is<Dictionary>()) << what;
        };
        check(harness.askAs<&Data::okvDataAllPT>(root, Array{"a", "b", "c"}), "by their keys");
        check(harness.askAs<&Data::filterSettingsDataPT>(root), "of a group");
        check(harness.askAs<&Admin::okvDataListPT>(root, ""), "with a prefix");
    };
    ASSERT_TRUE((harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"a", ten}, {"b", 1}})));
    expectAll(true);
    ASSERT_TRUE((harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"b", ten}})));
    EXPECT_TRUE(harness.ask<&Data::okvDataAllPT>(Array{"a", "b"}).is<Dictionary>());
    ASSERT_TRUE((harness.ask<&Admin::setOKVCommonDataAllPT>(Dictionary{{"c", 1}})));
    expectAll(false);
}

TEST_F(DataMethods, TheNullObjectTakesAValueAway) {
    EXPECT_TRUE(set("dc-cmnset-a", "mine", 2));
    EXPECT_TRUE(set("dc-cmnset-a", kNull, 2));
    EXPECT_EQ(read("dc-cmnset-a", 2), Value("everybody's"));
    EXPECT_TRUE(set("never there", kNull, 2));
}

TEST_F(DataMethods, KeysOfTheSystemBelongToEverybodyWhateverUserIsNamed) {
    for (const int user : {2, 99, -1}) {
        EXPECT_TRUE(set("dc-syscmnf-ars2_server_port", user, user));
        EXPECT_EQ(harness.ask<&Data::okvDataPT>("dc-syscmnf-ars2_server_port"), Value(user));
        EXPECT_EQ(read("dc-syscmnf-ars2_server_port", 3), Value(user));
    }
    EXPECT_TRUE(harness.ask<&Data::setOKVDataPT_value_osUid>("dc-syscmnf-x", 1, 4242));
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("dc-syscmnf-x"), Value(1));
}

TEST_F(DataMethods, AWriteForNobodyIsRefused) {
    for (const int user : {99, 0, -1}) EXPECT_FALSE(set("k", 1, user));
    EXPECT_FALSE(harness.ask<&Data::setOKVDataPT_value_osUid>("k", 1, 4242));
    EXPECT_FALSE(harness.ask<&Data::setOKVDataAllPT_appUid>(Dictionary{}, 99));
    EXPECT_FALSE(harness.ask<&Data::setOKVDataAllPT_osUid>(Dictionary{{"k", 1}}, 4242));
    EXPECT_TRUE(harness.ask<&Data::setOKVDataPT_value_osUid>("k", "by account", 1000));
    EXPECT_EQ(read("k", 2), Value("by account"));
}

TEST_F(DataMethods, ManyAreWrittenTogetherOrNotAtAll) {
    EXPECT_TRUE(harness.ask<&Data::setOKVDataAllPT_appUid>(
        Dictionary{{"k", 1}, {"l", 2}, {"dc-syscmnf-s", 3}}, 2));
    EXPECT_EQ(read("k", 2), Value(1));
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("dc-syscmnf-s"), Value(3));
    EXPECT_TRUE(harness.ask<&Data::setOKVDataAllPT_osUid>(Dictionary{{"k", kNull}}, 1000));
    EXPECT_EQ(read("k", 2), kNull);
    EXPECT_TRUE(harness.ask<&Data::setOKVDataAllPT_appUid>(Dictionary{}, 2));

    const Value bad[] = {Dictionary{{"l", 9}, {"", 1}},
                         Dictionary{{"l", 9}, {7, 1}},
                         Dictionary{{"l", 9}, {"m", Value()}},
                         Array{"l", 9},
                         Value(),
                         kNull,
                         "l"};
    for (const auto& settings : bad) {
        EXPECT_FALSE(harness.ask<&Data::setOKVDataAllPT_appUid>(settings, 2));
        EXPECT_EQ(read("l", 2), Value(2));
    }
}

TEST_F(DataMethods, EveryKindOfValueComesBackAsItWas) {
    const Value values[] = {true,
                            7,
                            -1.5,
                            "text",
                            std::string("n\0l", 3),
                            okv::Date{12.25},
                            okv::Data{1, 2},
                            Array{1, Null{}, "x"},
                            Dictionary{{"k", Array{}}, {5, "number key"}}};
    for (const auto& value : values) {
        EXPECT_TRUE(set("k", value, 2));
        EXPECT_EQ(read("k", 2), value);
        EXPECT_EQ(read("k", 2).type(), value.type());
    }
    harness.restart();
    EXPECT_EQ(read("k", 2), values[8]);
}

TEST_F(DataMethods, BadKeysAndValuesAreRefusedWithAReason) {
    Value deep = 1;
    for (int i = 0; i < 61; ++i) deep = Array{deep};
    const struct {
        Value key;
        Value value;
        Kind kind;
    } lines[] = {
        {"", 1, Kind::invalid},     {std::string(256, 'k'), 1, Kind::invalid},
        {kNull, 1, Kind::invalid},  {"k", Value(), Kind::invalid},
        {"k", deep, Kind::invalid}, {"k", std::string(256 << 10, 'v'), Kind::tooLarge},
    };
    for (const auto& [key, value, kind] : lines) {
        const auto answer =
            harness.askAs<&Data::setOKVDataPT_value_appUid>(account(0), key, value, 2);
        EXPECT_FALSE(answer.value);
        ASSERT_TRUE(answer.refusal);
        EXPECT_EQ(answer.refusal->kind, kind) << answer.refusal->reason;
    }
    EXPECT_TRUE(set(std::string(255, 'k'), std::string((256 << 10) - 5, 'v'), 2));
}

TEST_F(DataMethods, TheGroupsAreEverybodysValues) {
    EXPECT_TRUE(set("dc-syscmnf-s", 1, 2));
    EXPECT_TRUE(set("dc-cmnset-own", "not everybody's", 2));
    EXPECT_EQ(harness.ask<&Data::cmnSettingsDataPT>(),
              Value(Dictionary{{"dc-cmnset-a", "everybody's"}}));
    EXPECT_EQ(harness.ask<&Data::systemConfDataPT>(), Value(Dictionary{{"dc-syscmnf-s", 1}}));
    EXPECT_EQ(harness.ask<&Data::filterSettingsDataPT>(),
              Value(Dictionary{{"dc-other-b", 7}, {"plain", 8}}));
}

TEST_F(DataMethods, TheAgentsFlagIsASettingOfTheSystem) {
    EXPECT_TRUE(harness.ask<&Data::setAgentAutoRunPT>(true));
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("dc-syscmnf-agent_auto_run"), Value(true));
    EXPECT_TRUE(harness.ask<&Data::setAgentAutoRunPT>(false));
    EXPECT_EQ(harness.ask<&Data::okvDataPT>("dc-syscmnf-agent_auto_run"), Value(false));
}

namespace {

template <auto Read, auto Write>
void checkList(Harness& harness, const char* name) {
    EXPECT_TRUE(harness.ask<Read>(2).isNil()) << name;
    EXPECT_TRUE(harness.ask<Write>(2, Array{name})) << name;
    EXPECT_EQ(harness.ask<Read>(2), Value(Array{name}));
    EXPECT_TRUE(harness.ask<Read>(3).isNil()) << name;
    EXPECT_TRUE(harness.ask<Read>(99).isNil()) << name;
    EXPECT_TRUE(harness.ask<Read>("2").isNil()) << name;
    for (const auto& user :
         {Value(99), Value(-1), Value("2"), Value(), Value(std::int64_t{1} << 32)})
        EXPECT_FALSE((harness.ask<Write>(user, Array{}))) << name;
    EXPECT_FALSE((harness.ask<Write>(2, Value()))) << name;
    harness.restart();
    EXPECT_EQ(harness.ask<Read>(2), Value(Array{name}));
    EXPECT_TRUE(harness.ask<Write>(2, Array{})) << name;
    EXPECT_EQ(harness.ask<Read>(2), Value(Array{}));
    EXPECT_TRUE(harness.ask<Write>(2, kNull)) << name;
    EXPECT_TRUE(harness.ask<Read>(2).isNil()) << name;
}

}  // namespace

TEST_F(DataMethods, TheFourListsAreStoredWholeAndApart) {
    checkList<&Data::okvUserSettingPT, &Data::setOkvUserSettingPT_value>(harness, "settings");
    checkList<&Data::okvContentsWordsPT, &Data::setOkvContentsWordsPT_value>(harness, "words");
    checkList<&Data::okvHammerListPT, &Data::setOkvHammerListPT_value>(harness, "hammer");
    checkList<&Data::okvBlackExtensionListPT, &Data::setOkvBlackExtensionListPT_value>(
        harness, "extensions");
    EXPECT_TRUE((harness.ask<&Data::setOkvUserSettingPT_value>(2, "one")));
    EXPECT_TRUE((harness.ask<&Data::setOkvHammerListPT_value>(2, "other")));
    EXPECT_EQ(harness.ask<&Data::okvUserSettingPT>(2), Value("one"));
    EXPECT_TRUE(harness.ask<&Data::okvContentsWordsPT>(2).isNil());
}

TEST_F(DataMethods, TheProcessListsAreDictionariesFromTheStart) {
    EXPECT_EQ(harness.ask<&Data::okvFltProcWhiteListPT>(), Value(Dictionary{}));
    EXPECT_EQ(harness.ask<&Data::okvFltProcBlackListPT>(), Value(Dictionary{}));
    EXPECT_EQ(harness.ask<&Data::okvKillWebProcListPT>(), Value(Dictionary{}));
}

TEST_F(DataMethods, AreNotTakenWithOtherArgumentTypes) {
    const auto port = okv::make<RecordingPort>(account(0));
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, "okvDataPT:appUid:", "@@");
    okv::CborWriter writer(frame);
    writer.text("k");
    writer.value(Value(2));
    okv::finishRequest(frame);
    const auto request =
        okv::make<okv::IncomingRequest>(port, 1U, frame.substr(okv::kFrameHeaderSize));
    harness.server->handle(*request);
    EXPECT_EQ(harness.awaitAnswer(*port).at(4), static_cast<char>(okv::FrameKind::failure));
}

TEST_F(DataMethods, AnUnknownSelectorIsAFailureOfThatCallAlone) {
    const auto port = okv::make<RecordingPort>(account(0));
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, "setOKVDataPT:", "@");
    okv::CborWriter(frame).text("k");
    okv::finishRequest(frame);
    const auto request =
        okv::make<okv::IncomingRequest>(port, 1U, frame.substr(okv::kFrameHeaderSize));
    harness.server->handle(*request);
    EXPECT_EQ(harness.awaitAnswer(*port).at(4), static_cast<char>(okv::FrameKind::failure));
    EXPECT_EQ(harness.ask<&Data::defaultUserIdPT>(), 1);
}
