#include "Support.h"

// Settings by key and the per-user lists: guards, the order of the session user's refresh, and
// answers that are handed on unchanged.

namespace dmtest {
namespace {

using okv::Array;
using okv::Dictionary;
using okv::Null;
using testing::ElementsAre;
using testing::IsEmpty;

using SettingsTest = ConnectedTest;

// Every kind of value that a server may answer, nil and the null object included.
std::vector<Value> answers() {
    return {Value(),
            Null{},
            false,
            -5,
            2.5,
            "",
            "text",
            okv::Date{1},
            okv::Data{0, 255},
            Array{},
            Array{Value(), Null{}},
            Dictionary{{1, "a"}, {"1", Array{}}}};
}

ReceivedMessage writeOf(std::int32_t user) {
    return {"setOKVDataPT:value:appUid:", "@@i", {"k", 1, user}};
}
ReceivedMessage readOf(std::int32_t user) {
    return {"okvDataPT:appUid:", "@i", {"k", user}};
}

}  // namespace

TEST_F(SettingsTest, AnEmptyOrMissingKeyAnswersTheNullObjectAndSendsNothing) {
    EXPECT_EQ(manager().okvData(""), Value(Null{}));
    EXPECT_EQ(manager().okvData(std::string_view()), Value(Null{}));
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SettingsTest, NoKeysAnswerNilAndNotTheNullObject) {
    EXPECT_EQ(manager().okvDataAll(Array{}), Value());
    EXPECT_EQ(manager().okvDataAll(Value()), Value());
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SettingsTest, ReadsHandOnWhateverTheServerAnswers) {
    for (const auto& answer : answers()) {
        for (const auto* selector : {"okvDataPT:appUid:", "okvDataAllPT:appUid:",
                                     "okvUserSettingPT:", "okvBlackExtensionListPT:"})
            server().answer(selector, answer);
        EXPECT_EQ(manager().okvData("k"), answer);
        EXPECT_EQ(manager().okvDataAll(Array{"k"}), answer);
        EXPECT_EQ(manager().okvUserSetting(3), answer);
        EXPECT_EQ(manager().okvCurrentBlackExtensionList(), answer);
    }
}

TEST_F(SettingsTest, WritesCarryEveryKindOfValueUnchanged) {
    for (const auto& value : answers()) {
        if (value.isNil()) continue;
        manager().setOKVData_value("k", value);
        EXPECT_THAT(sent(), ElementsAre(ReceivedMessage{
                                "setOKVDataPT:value:appUid:", "@@i", {"k", value, 7}}));
    }
}

TEST_F(SettingsTest, TheNullObjectIsStoredAndItsResultAnswered) {
    server().answer("setOKVDataPT:value:appUid:", true);
    EXPECT_TRUE(manager().setOKVData_value("k", Null{}));
    server().answer("setOKVDataPT:value:appUid:", false);
    EXPECT_FALSE(manager().setOKVData_value("k", Null{}));
    EXPECT_EQ(sent().size(), 2U);
    server().answer("setOKVDataPT:value:appUid:", true);
    EXPECT_FALSE(manager().setOKVData_value("k", Value()));
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SettingsTest, AWriteUsesTheStaleUserAndTheNextReadMovesToTheDefaultUserFirst) {
    server().answer("useridAppListPT", Array{3});
    manager().setOKVData_value("k", 1);
    EXPECT_EQ(manager().nowSessionUserId(), 7);
    manager().okvData("k");
    EXPECT_EQ(manager().nowSessionUserId(), 3);
    manager().setOKVData_value("k", 1);
    EXPECT_THAT(sent(), ElementsAre(writeOf(7), userListMessage(), defaultUserMessage(), readOf(3),
                                    writeOf(3)));
}

TEST_F(SettingsTest, AUserSwitchDuringTheRefreshIsTheOneThatIsReadFor) {
    server().answerBy("useridAppListPT", [this](const ReceivedMessage&) {
        manager().setNowSessionUserId(3);
        return Array{3, 7};
    });
    const auto readAfterASwitch = [this](const std::function<void()>& read) {
        manager().setNowSessionUserId(7);
        sent();
        read();
        return sent();
    };
    EXPECT_THAT(readAfterASwitch([this] { manager().okvData("k"); }),
                ElementsAre(userListMessage(), readOf(3)));
    EXPECT_THAT(readAfterASwitch([this] { manager().okvDataAll(Array{"k"}); }),
                ElementsAre(userListMessage(),
                            ReceivedMessage{"okvDataAllPT:appUid:", "@i", {Array{"k"}, 3}}));
    EXPECT_THAT(readAfterASwitch([this] { manager().okvCurrentHammerList(); }),
                ElementsAre(userListMessage(), ReceivedMessage{"okvHammerListPT:", "@", {3}}));
}

TEST_F(SettingsTest, ACollectionIsWrittenForTheStaleUserToo) {
    server().answer("useridAppListPT", Array{3});
    manager().setOKVDataAll(Dictionary{});
    EXPECT_THAT(sent(),
                ElementsAre(ReceivedMessage{"setOKVDataAllPT:appUid:", "@i", {Dictionary{}, 7}}));
}

TEST_F(SettingsTest, ReadingSeveralKeysMovesToTheDefaultUserFirst) {
    server().answer("useridAppListPT", Array{3});
    manager().okvDataAll(Array{"k"});
    EXPECT_THAT(sent(),
                ElementsAre(userListMessage(), defaultUserMessage(),
                            ReceivedMessage{"okvDataAllPT:appUid:", "@i", {Array{"k"}, 3}}));
}

TEST_F(SettingsTest, AReadTakesTwoRoundTripsHoweverManyUsersThereAre) {
    for (const int count : {10, 1000, 100000}) {
        Array users;
        for (int id = 1; id <= count; ++id) users.emplace_back(id);
        server().answer("useridAppListPT", users);
        manager().setNowSessionUserId(count);
        sent();
        manager().okvData("k");
        EXPECT_THAT(sent(), ElementsAre(userListMessage(), readOf(count)));
    }
}

TEST_F(SettingsTest, FilteringIsOffByTheBooleanReadingOfTheSetting) {
    const std::vector<std::pair<Value, bool>> readings{
        {true, true}, {false, false}, {1, true},        {0, false},      {-2, true},
        {0.5, true},  {"YES", true},  {"true", true},   {"1", true},     {"no", false},
        {"0", false}, {"", false},    {Value(), false}, {Null{}, false}, {Array{1}, false}};
    for (const auto& [answer, isOff] : readings) {
        server().answer("okvDataPT:appUid:", answer);
        EXPECT_EQ(manager().isFilterOff(), isOff);
    }
}

TEST_F(SettingsTest, FilteringIsNotOffWithoutAProxyAndTheSessionUserBecomesZero) {
    server().answer("okvDataPT:appUid:", true);
    manager().disConnectSrv();
    EXPECT_FALSE(manager().isFilterOff());
    EXPECT_EQ(manager().nowSessionUserId(), 0);
}

TEST_F(SettingsTest, AKeyOfAnyBytesIsCarriedWhole) {
    const std::string key("dc-gui-\0\xC3\xA4", 10);
    manager().okvData(key);
    EXPECT_EQ(sent().back(), (ReceivedMessage{"okvDataPT:appUid:", "@i", {key, 7}}));
}

TEST_F(SettingsTest, TheListOfARemovedSessionUserIsTheDefaultUsers) {
    server().answer("useridAppListPT", Array{3});
    server().answerBy("okvContentsWordsPT:", [](const ReceivedMessage& message) -> Value {
        return message.arguments[0] == Value(3) ? Value(Array{"the default user's"}) : Value();
    });
    EXPECT_EQ(manager().okvCurrentContentsWords(), Value(Array{"the default user's"}));
    EXPECT_EQ(manager().nowSessionUserId(), 3);
}

TEST_F(SettingsTest, TheAccountsUserIsUsedUncheckedAndTheSessionUserLeftAlone) {
    server().answer("userAppuidPT:", -88);
    manager().okvCurrentContentsWords2OSUid();
    EXPECT_EQ(sent().back(), (ReceivedMessage{"okvContentsWordsPT:", "@", {-88}}));
    EXPECT_EQ(manager().nowSessionUserId(), 7);
}

TEST_F(SettingsTest, ANilListIsNotReplacedAndAnEmptyOneIs) {
    server().answer("setOkvBlackExtensionListPT:value:", true);
    EXPECT_FALSE(manager().setOkvBlackExtensionList_value(7, Value()));
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_TRUE(manager().setOkvBlackExtensionList_value(7, Array{}));
    EXPECT_THAT(sent(), ElementsAre(ReceivedMessage{
                            "setOkvBlackExtensionListPT:value:", "@@", {7, Array{}}}));
}

struct ProcessList {
    const char* selector;
    okv::Array (okvDataManager::*read)() const;
};

void PrintTo(const ProcessList& list, std::ostream* out) {
    *out << list.selector;
}

class ProcessListTest : public ConnectedTest, public testing::WithParamInterface<ProcessList> {
protected:
    Array listFor(const Value& answer) {
        server().answer(GetParam().selector, answer);
        return (manager().*GetParam().read)();
    }
};

TEST_P(ProcessListTest, IsTheValuesOfADictionaryAndEmptyForEveryOtherAnswer) {
    LoggedEntries entries;
    EXPECT_EQ(listFor(Dictionary{}), Array{});
    EXPECT_EQ(listFor(Dictionary{{"a", "x"}, {"b", "x"}, {3, Null{}}}), (Array{"x", "x", Null{}}));
    for (const auto& answer : answers()) {
        if (!answer.is<Dictionary>()) {
            EXPECT_EQ(listFor(answer), Array{});
        }
    }
    EXPECT_EQ(listFor(Array{"entry"}), Array{});
    EXPECT_THAT(lines_.take(), IsEmpty());
    EXPECT_THAT(entries.take(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Lists, ProcessListTest,
    testing::Values(ProcessList{"okvKillWebProcListPT", &okvDataManager::okvKillWebProcList},
                    ProcessList{"okvFltProcBlackListPT", &okvDataManager::okvFltProcBlackList},
                    ProcessList{"okvFltProcWhiteListPT", &okvDataManager::okvFltProcWhiteList}),
    [](const auto& list) { return std::string(list.param.selector); });

TEST(SystemProcessLists, NeedNeitherAnInstanceNorAServer) {
    EXPECT_EQ(okvDataManager::systemBlackProcs(), Array{});
    const auto white = okvDataManager::systemWhiteProcs();
    ASSERT_EQ(white.size(), 22U);
    EXPECT_EQ(white.front(), Value("Software Update.app"));
    EXPECT_EQ(white.back(), Value("UninstallHelpTool"));
}

}  // namespace dmtest
