#include "LoggedServer.h"
#include "RightsTable.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ostream>
#include <set>

// Every method of both protocols, sent to the real server by each kind of caller. What is expected
// is written down here and in the table, and read from the server nowhere.

namespace limits_test {
namespace {

constexpr uid_t kNobody = 65534;

struct Caller {
    const char* name;
    uid_t uid;
    std::vector<gid_t> groups;
    bool selfService;
    bool mayOwn;
    bool mayAdminister;
};

const Caller kCallers[] = {
    {"Root", 0, {}, false, true, true},
    {"AMemberOfTheGroup", 34567, {kAdministrators}, false, true, true},
    {"TheAccountConcerned", kAccount, {}, false, false, false},
    {"TheAccountConcernedWithSelfService", kAccount, {}, true, true, false},
    {"AnAccountInOtherGroups", kAccount, {0, 4, 27}, false, false, false},
    {"Nobody", kNobody, {}, false, false, false},
    {"NobodyWithSelfService", kNobody, {}, true, false, false},
    {"NobodyInTheGroup", kNobody, {kAdministrators}, true, false, false},
};

void PrintTo(const Caller& caller, std::ostream* out) {
    *out << caller.name;
}

bool isExpected(const Caller& caller, Class of) {
    if (of == Class::read) return true;
    return of == Class::own ? caller.mayOwn : caller.mayAdminister;
}

// In the caller's process: whether the row's outcome is the expected one; else it is told.
bool holds(okv::RemoteObject& root, const Caller& caller, const Row& row) {
    const auto reply = replyTo(root, row);
    const auto refusal = refusalIn(reply);
    const bool expected = isExpected(caller, row.grantedTo);
    const bool denied = refusal && refusal->kind == okv::Refusal::Kind::notAllowed;
    if (expected ? !refusal : denied) return true;
    std::fprintf(stderr, "%s, %s: expected %s, but %s\n", caller.name, row.selector,
                 expected ? "an answer" : "a refusal",
                 refusal ? refusal->reason.c_str() : "answered");
    return false;
}

int mistakesOf(const Caller& caller) {
    const auto root = faults::connect();
    int mistakes = 0;
    for (const auto& row : rightsTable()) mistakes += holds(*root, caller, row) ? 0 : 1;
    return mistakes;
}

std::int64_t revision() {
    return faults::status(*faults::connect())["revision"].as<std::int64_t>();
}

class EveryMethod : public testing::TestWithParam<Caller> {};

}  // namespace

TEST(RightsTable, HasARowForEveryMethodOfBothProtocolsAndNoOther) {
    std::set<std::string_view> rows;
    for (const auto& row : rightsTable())
        EXPECT_TRUE(rows.insert(row.selector).second) << row.selector << " stands twice";
    std::set<std::string_view> methods;
    for (std::size_t i = 0; i < okv::Dispatcher<Data>::rowCount; ++i)
        methods.insert(okv::Dispatcher<Data>::selector(i));
    for (std::size_t i = 0; i < okv::Dispatcher<Admin>::rowCount; ++i)
        methods.insert(okv::Dispatcher<Admin>::selector(i));
    EXPECT_EQ(rows, methods);
}

TEST_P(EveryMethod, IsAnsweredOrRefusedAsItsClassTells) {
    if (!LoggedServer::isPossible()) GTEST_SKIP() << "only root can be another account";
    const auto& caller = GetParam();
    LoggedServer server;
    ASSERT_TRUE(server.start(caller.selfService ? std::vector<std::string>{"--self-service"}
                                                : std::vector<std::string>{}));
    furnish();
    const auto before = revision();
    EXPECT_EQ(faults::asAccount(
                  caller.uid, [&] { return mistakesOf(caller); }, caller.groups),
              0);
    if (caller.mayAdminister) {
        EXPECT_EQ(server.process.wait(), 0) << "it was ended";
    } else if (!caller.mayOwn) {
        EXPECT_EQ(revision(), before) << "nothing was changed";
    }
}

INSTANTIATE_TEST_SUITE_P(SentBy, EveryMethod, testing::ValuesIn(kCallers),
                         [](const auto& given) { return std::string(given.param.name); });

TEST(SelfService, ReachesNoFurtherThanTheAccountsOwnUser) {
    if (!LoggedServer::isPossible()) GTEST_SKIP() << "only root can be another account";
    LoggedServer server;
    ASSERT_TRUE(server.start({"--self-service"}));
    furnish();
    const okv::Dictionary settings{{kKey, "theirs"}};
    const okv::Array list{"entry"};
    const std::vector<Row> others{
        {"setOKVDataPT:value:appUid:", Class::own, {kKey, "theirs", kOtherUser}},
        {"setOKVDataPT:value:appUid:", Class::own, {"dc-syscmnf-x", "theirs", kOwnUser}},
        {"setOKVDataPT:value:osUid:", Class::own, {kKey, "theirs", kOtherAccount}},
        {"setOKVDataAllPT:appUid:", Class::own, {settings, kOtherUser}},
        {"setOKVDataAllPT:osUid:", Class::own, {settings, kOtherAccount}},
        {"setOkvUserSettingPT:value:", Class::own, {kOtherUser, list}},
        {"setOkvContentsWordsPT:value:", Class::own, {kOtherUser, list}},
        {"setOkvHammerListPT:value:", Class::own, {kOtherUser, list}},
        {"setOkvBlackExtensionListPT:value:", Class::own, {kOtherUser, list}}};
    const Caller account{"the account", kAccount, {}, true, false, false};
    const auto before = revision();
    EXPECT_EQ(faults::asAccount(kAccount,
                                [&] {
                                    const auto root = faults::connect();
                                    int mistakes = 0;
                                    for (const auto& row : others)
                                        mistakes += holds(*root, account, row) ? 0 : 1;
                                    return mistakes;
                                }),
              0);
    EXPECT_EQ(revision(), before);
}

}  // namespace limits_test
