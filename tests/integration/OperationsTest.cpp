#include "Support.h"

#include "unit/okvDataManager/OperationTable.h"

#include <map>

// The table of all operations that is held to the fake server, run against the real one: the same
// rows, brought about by an import, and what the real one answers otherwise because its users and
// its checks are real.

namespace dmtest {
namespace {

using okv::Array;
using okv::Dictionary;

const Value kList = Array{"a", Dictionary{{"b", okv::Null{}}}};

Dictionary userWithLists() {
    return {{"user_setting", kList},
            {"contents_words", kList},
            {"hammer_list", kList},
            {"black_extension_list", kList}};
}

Dictionary users() {
    auto seven = userWithLists();
    seven.set(
        "settings",
        Dictionary{{"dc-gui-colour", "red"}, {"a", 1}, {"dc-cmnset-common_filter_off", true}});
    return {{"1", Dictionary{}}, {"3", userWithLists()}, {"5", Dictionary{}}, {"7", seven}};
}

/// What the row wants to find under the keys that it reads for everybody.
Dictionary everybodysValues(const Operation& operation) {
    Dictionary values;
    for (const auto& answer : operation.answers) {
        if (answer.selector != "okvDataPT:") continue;
        for (const auto& message : operation.messages)
            values.set(message.arguments[0], answer.value);
    }
    return values;
}

Dictionary storeFor(const Operation& operation) {
    const Dictionary processes{{"a", "ProcessA"}, {"b", "ProcessA"}};
    const okv::Date noon{1700000000.25};
    return {{"format", 1},
            {"everybody", everybodysValues(operation)},
            {"users", users()},
            {"accounts",
             Dictionary{{std::to_string(kAccount), Dictionary{{"appuid", 7}, {"current", 5}}},
                        {"501", Dictionary{{"appuid", 7}}}}},
            {"highest_user", INT32_MAX},
            {"clock", Dictionary{{"time", noon}, {"since", noon}, {"running", false}}},
            {"flt_proc_white", processes},
            {"flt_proc_black", processes},
            {"kill_web_proc", processes}};
}

/// The rows whose result is another one here.
const std::map<std::string, Value>& realResults() {
    static const std::map<std::string, Value> results{
        {"defaultUserId", 1},
        {"delUserid", 7},
        {"userIdOSList", Dictionary{{kAccount, 7}, {501, 7}}},
        {"userIdList", Array{1, 3, 5, 7}},
        {"removeUserInfo", false},                                  // nobody has that id
        {"setOKVData_valueOfTheNullObjectUnderAnEmptyKey", false},  // a key has a byte at least
        {"setOKVData_value_appUidOfTheNullObjectUnderAnEmptyKey", false},
        {"setOKVData_value_osUidOfTheNullObjectUnderAnEmptyKey", false},
        {"setOKVDataAll_appUidOfTheNullObject", false},  // it is no dictionary
        {"setOKVDataAll_osUidOfTheNullObject", false},
        {"setOKVData_value_appUid", false},  // nor is -1 a user
    };
    return results;
}

Value expectedResult(const Operation& operation) {
    // The server never answers the null object for a list, and stores none for an unknown user.
    if (operation.name.ends_with("AnsweredByTheNullObject")) return kList;
    if (operation.name.ends_with("_valueOfTheNullObject")) return false;
    const auto other = realResults().find(operation.name);
    return other != realResults().end() ? other->second : operation.result;
}

using OperationsOnTheRealServer = RealServerTest;

}  // namespace

TEST_F(OperationsOnTheRealServer, AnswerWhatTheTableTells) {
    const auto manager = connected();
    const auto root = support::connect();
    lines_.take();
    for (const auto& operation : allOperations()) {
        SCOPED_TRACE(operation.name);
        const auto imported = okv::sendForAnswer<&Admin::importDataPT>(*root, storeFor(operation));
        ASSERT_TRUE(imported.value) << (imported.refusal ? imported.refusal->reason : "");
        manager->setNowSessionUserId(kSessionUser);
        EXPECT_EQ(operation.call(*manager), expectedResult(operation));
    }
    EXPECT_THAT(lines_.take(), testing::IsEmpty());
    EXPECT_TRUE(manager->isValid());
}

TEST_F(OperationsOnTheRealServer, EveryRowThatIsToldOtherwiseIsARow) {
    std::size_t found = 0;
    for (const auto& operation : allOperations()) found += realResults().count(operation.name);
    EXPECT_EQ(found, realResults().size());
}

}  // namespace dmtest
