#include "OperationTable.h"

#include <unistd.h>

namespace dmtest {

namespace {

using okv::Array;
using okv::Date;
using okv::Dictionary;
using okv::Null;
using Manager = okvDataManager;

}  // namespace

Operation forwarding(std::string name, OperationCall call, ReceivedMessage message, Value answer,
                     Value zero) {
    return {std::move(name), std::move(call), {message}, {{message.selector, answer}},
            answer,          std::move(zero)};
}

Operation sessionRead(std::string name, OperationCall call, ReceivedMessage message, Value answer,
                      Value zero) {
    auto row = forwarding(std::move(name), std::move(call), std::move(message), std::move(answer),
                          std::move(zero));
    row.messages.insert(row.messages.begin(), userListMessage());
    row.readsForSessionUser = true;
    return row;
}

Operation silent(std::string name, OperationCall call, Value result) {
    return {std::move(name), std::move(call), {}, {}, result, result};
}

std::vector<Operation> currentUserOperations() {
    return {
        forwarding(
            "defaultUserId", [](Manager& m) { return Value(m.defaultUserId()); },
            {"defaultUserIdPT", "", {}}, 3, 0),
        forwarding(
            "currentUserId", [](Manager& m) { return Value(m.currentUserId()); },
            {"currentUserIdPT", "", {}}, 5, 0),
        forwarding(
            "maxUserId", [](Manager& m) { return Value(m.maxUserId()); }, {"maxUserIdPT", "", {}},
            INT32_MAX, 0),
        forwarding(
            "setCurrentUserId", [](Manager& m) { return Value(m.setCurrentUserId(3)); },
            {"setCurrentUserIdPT:", "@", {3}}, true, false),
        forwarding(
            "setCurrentUserIdOfANegativeUser",
            [](Manager& m) { return Value(m.setCurrentUserId(-4)); },
            {"setCurrentUserIdPT:", "@", {-4}}, false, false),
        forwarding(
            "setCurrentUserIdForOS", [](Manager& m) { return Value(m.setCurrentUserIdForOS(7)); },
            {"setCurrentUserIdForOSPT:", "@", {7}}, true, false),
    };
}

std::vector<Operation> userListOperations() {
    return {
        forwarding(
            "setUserid_applyUid", [](Manager& m) { return m.setUserid_applyUid(501, -9), Value(); },
            {"setUseridPT:applyUid:", "ii", {501, -9}}, Value(), Value()),
        forwarding(
            "delUserid", [](Manager& m) { return Value(m.delUserid(501)); },
            {"delUseridPT:", "i", {501}}, -3, 0),
        forwarding(
            "userIdOSList", [](Manager& m) { return m.userIdOSList(); }, {"uidListPT", "", {}},
            Dictionary{{501, 7}, {0, 3}}, Value()),
        forwarding(
            "userIdList", [](Manager& m) { return m.userIdList(); }, userListMessage(), Array{3, 7},
            Value()),
        forwarding(
            "removeUserInfo", [](Manager& m) { return Value(m.removeUserInfo(INT32_MIN)); },
            {"removeUserInfoPT:", "@", {INT32_MIN}}, true, false),
        forwarding(
            "removeUserInfoAll", [](Manager& m) { return m.removeUserInfoAll(), Value(); },
            {"removeUserInfoAllPT", "", {}}, Value(), Value()),
    };
}

std::vector<Operation> membershipOperations() {
    return {
        {"isUserIdOfAKnownUser",
         [](Manager& m) { return Value(m.isUserId(7)); },
         {userListMessage()},
         {{"useridAppListPT", Array{3, 7}}},
         true,
         false},
        {"isUserIdOfAnUnknownUser",
         [](Manager& m) { return Value(m.isUserId(8)); },
         {userListMessage()},
         {{"useridAppListPT", Array{3, 7}}},
         false,
         false},
        {"isAppUserIdWithOSId",
         [](Manager& m) { return Value(m.isAppUserIdWithOSId()); },
         {{"uidListPT", "", {}}},
         {{"uidListPT", Dictionary{{kAccount, 7}}}},
         7,
         -1},
    };
}

std::vector<Operation> sessionOperations() {
    return {
        silent(
            "setNowSessionUserId",
            [](Manager& m) { return m.setNowSessionUserId(-2), Value(m.nowSessionUserId()); }, -2),
        silent(
            "nowSessionUserId", [](Manager& m) { return Value(m.nowSessionUserId()); },
            kSessionUser),
        {"updateNowSessionUserIdOfAKnownUser",
         [](Manager& m) { return Value(m.updateNowSessionUserId(3)); },
         {userListMessage()},
         {{"useridAppListPT", Array{3, 7}}},
         false,
         true,
         true},
        {"updateNowSessionUserIdOfAnUnknownUser",
         [](Manager& m) { return Value(m.updateNowSessionUserId(8)); },
         {userListMessage(), defaultUserMessage()},
         {{"useridAppListPT", Array{3, 7}}},
         true,
         true,
         true},
        silent(
            "updateSessionUserId",
            [](Manager& m) {
                m.updateSessionUserId(Dictionary{{"osuserid", kAccount}, {"session_userid", 3}});
                return Value(m.nowSessionUserId());
            },
            3),
    };
}

std::vector<Operation> clockOperations() {
    const Date noon{1700000000.25};
    return {
        forwarding(
            "setServerTime", [=](Manager& m) { return m.setServerTime(noon), Value(); },
            {"setServerTimePT:", "@", {noon}}, Value(), Value()),
        forwarding(
            "setServerTimeOfNothing", [](Manager& m) { return m.setServerTime(Value()), Value(); },
            {"setServerTimePT:", "@", {Value()}}, Value(), Value()),
        {"serverTime",
         [](Manager& m) { return Value(m.serverTime()); },
         {{"serverTimePT", "", {}}},
         {{"serverTimePT", noon}},
         noon,
         std::nullopt},
        forwarding(
            "startServerTimeTimer", [](Manager& m) { return m.startServerTimeTimer(), Value(); },
            {"startServerTimeTimer", "", {}}, Value(), Value()),
        forwarding(
            "stopServerTimeTimer", [](Manager& m) { return m.stopServerTimeTimer(), Value(); },
            {"stopServerTimeTimer", "", {}}, Value(), Value()),
    };
}

std::vector<Operation> readingOperations() {
    return {
        forwarding(
            "reloadOKVData", [](Manager& m) { return Value(m.reloadOKVData()); },
            {"reloadDataPT", "", {}}, true, false),
        forwarding(
            "userAppuid", [](Manager& m) { return Value(m.userAppuid(501)); },
            {"userAppuidPT:", "i", {501}}, 7, 0),
        sessionRead(
            "okvData", [](Manager& m) { return m.okvData("dc-gui-colour"); },
            {"okvDataPT:appUid:", "@i", {"dc-gui-colour", kSessionUser}}, "red", Value()),
        silent(
            "okvDataOfAnEmptyKey", [](Manager& m) { return m.okvData(""); }, Null{}),
        silent(
            "okvDataOfNoKey", [](Manager& m) { return m.okvData({}); }, Null{}),
        sessionRead(
            "okvDataAll",
            [](Manager& m) {
                return m.okvDataAll(Array{"a", "b"});
            },
            {"okvDataAllPT:appUid:", "@i", {Array{"a", "b"}, kSessionUser}},
            Dictionary{{"a", 1}, {"b", Null{}}}, Value()),
        silent(
            "okvDataAllOfNoKeys", [](Manager& m) { return m.okvDataAll(Array{}); }, Value()),
        silent(
            "okvDataAllOfNoArray", [](Manager& m) { return m.okvDataAll(Value()); }, Value()),
    };
}

std::vector<Operation> writingOperations() {
    return {
        forwarding(
            "setOKVData_value", [](Manager& m) { return Value(m.setOKVData_value("k", Array{1})); },
            {"setOKVDataPT:value:appUid:", "@@i", {"k", Array{1}, kSessionUser}}, true, false),
        forwarding(
            "setOKVData_valueOfTheNullObjectUnderAnEmptyKey",
            [](Manager& m) { return Value(m.setOKVData_value("", Null{})); },
            {"setOKVDataPT:value:appUid:", "@@i", {"", Null{}, kSessionUser}}, true, false),
        silent(
            "setOKVData_valueWithoutAKey",
            [](Manager& m) { return Value(m.setOKVData_value(std::nullopt, 1)); }, false),
        silent(
            "setOKVData_valueWithoutAValue",
            [](Manager& m) { return Value(m.setOKVData_value("k", Value())); }, false),
        forwarding(
            "setOKVData_value_appUid",
            [](Manager& m) { return Value(m.setOKVData_value_appUid("k", 5, -1)); },
            {"setOKVDataPT:value:appUid:", "@@i", {"k", 5, -1}}, true, false),
        silent(
            "setOKVData_value_appUidWithoutAKey",
            [](Manager& m) { return Value(m.setOKVData_value_appUid(std::nullopt, 5, 3)); }, false),
        silent(
            "setOKVData_value_appUidWithoutAValue",
            [](Manager& m) { return Value(m.setOKVData_value_appUid("k", Value(), 3)); }, false),
    };
}

std::vector<Operation> writingForAccountOperations() {
    return {
        forwarding(
            "setOKVData_value_osUid",
            [](Manager& m) { return Value(m.setOKVData_value_osUid("k", 5, 501)); },
            {"setOKVDataPT:value:osUid:", "@@i", {"k", 5, 501}}, true, false),
        silent(
            "setOKVData_value_osUidWithoutAKey",
            [](Manager& m) { return Value(m.setOKVData_value_osUid(std::nullopt, 5, 501)); },
            false),
        silent(
            "setOKVData_value_osUidWithoutAValue",
            [](Manager& m) { return Value(m.setOKVData_value_osUid("k", Value(), 501)); }, false),
    };
}

std::vector<Operation> writingHardlyAnythingOperations() {
    std::vector<Operation> rows{
        forwarding(
            "setOKVData_value_appUidOfTheNullObjectUnderAnEmptyKey",
            [](Manager& m) { return Value(m.setOKVData_value_appUid("", Null{}, 3)); },
            {"setOKVDataPT:value:appUid:", "@@i", {"", Null{}, 3}}, true, false),
        forwarding(
            "setOKVData_value_osUidOfTheNullObjectUnderAnEmptyKey",
            [](Manager& m) { return Value(m.setOKVData_value_osUid("", Null{}, 501)); },
            {"setOKVDataPT:value:osUid:", "@@i", {"", Null{}, 501}}, true, false)};
    const std::pair<std::string, Value> kinds[] = {{"AnEmptyCollection", Dictionary{}},
                                                   {"TheNullObject", Null{}}};
    for (const auto& [what, given] : kinds) {
        rows.push_back(forwarding(
            "setOKVDataAll_appUidOf" + what,
            [all = given](Manager& m) { return Value(m.setOKVDataAll_appUid(all, 3)); },
            {"setOKVDataAllPT:appUid:", "@i", {given, 3}}, true, false));
        rows.push_back(forwarding(
            "setOKVDataAll_osUidOf" + what,
            [all = given](Manager& m) { return Value(m.setOKVDataAll_osUid(all, 501)); },
            {"setOKVDataAllPT:osUid:", "@i", {given, 501}}, true, false));
    }
    return rows;
}

std::vector<Operation> writingAllOperations() {
    const Value settings = Dictionary{{"dc-gui-colour", "red"}};
    const Value none = Dictionary{};
    return {
        forwarding(
            "setOKVDataAll", [=](Manager& m) { return Value(m.setOKVDataAll(settings)); },
            {"setOKVDataAllPT:appUid:", "@i", {settings, kSessionUser}}, true, false),
        forwarding(
            "setOKVDataAllOfAnEmptyCollection",
            [=](Manager& m) { return Value(m.setOKVDataAll(none)); },
            {"setOKVDataAllPT:appUid:", "@i", {none, kSessionUser}}, true, false),
        silent(
            "setOKVDataAllOfNothing", [](Manager& m) { return Value(m.setOKVDataAll(Value())); },
            false),
        forwarding(
            "setOKVDataAll_appUid",
            [=](Manager& m) { return Value(m.setOKVDataAll_appUid(settings, 3)); },
            {"setOKVDataAllPT:appUid:", "@i", {settings, 3}}, true, false),
        silent(
            "setOKVDataAll_appUidOfNothing",
            [](Manager& m) { return Value(m.setOKVDataAll_appUid(Value(), 3)); }, false),
        forwarding(
            "setOKVDataAll_osUid",
            [=](Manager& m) { return Value(m.setOKVDataAll_osUid(settings, 501)); },
            {"setOKVDataAllPT:osUid:", "@i", {settings, 501}}, true, false),
        silent(
            "setOKVDataAll_osUidOfNothing",
            [](Manager& m) { return Value(m.setOKVDataAll_osUid(Value(), 501)); }, false),
    };
}

std::vector<Operation> switchOperations() {
    return {
        forwarding(
            "setAgentRunOn", [](Manager& m) { return Value(m.setAgentRun(true)); },
            {"setAgentAutoRunPT:", "c", {true}}, true, false),
        forwarding(
            "setAgentRunOff", [](Manager& m) { return Value(m.setAgentRun(false)); },
            {"setAgentAutoRunPT:", "c", {false}}, true, false),
        sessionRead(
            "isFilterOff", [](Manager& m) { return Value(m.isFilterOff()); },
            {"okvDataPT:appUid:", "@i", {"dc-cmnset-common_filter_off", kSessionUser}}, true,
            false),
    };
}

}  // namespace dmtest
