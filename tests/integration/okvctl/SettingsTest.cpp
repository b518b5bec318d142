#include "ToolRun.h"

#include <JsonForm.h>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <unistd.h>

namespace okvctl_test::settings {

using okv::Value;
using okvctl::parseJson;
using testing::AllOf;
using testing::HasSubstr;
using Words = std::vector<std::string>;

namespace {

constexpr uid_t kNobody = 65533;
const std::string kOwnUid = std::to_string(geteuid());

Ran done(const Words& words, const std::string& input = {}) {
    auto ran = run(words, input);
    EXPECT_EQ(ran.code, 0) << testing::PrintToString(words) << ran.error;
    EXPECT_EQ(ran.error, "");
    return ran;
}

Value json(Words words) {
    words.insert(words.begin(), "--json");
    const auto ran = done(words);
    EXPECT_TRUE(nlohmann::json::accept(ran.out)) << ran.out;
    auto parsed = parseJson(ran.out);
    EXPECT_TRUE(parsed) << parsed.error;
    return parsed ? *parsed.value : Value();
}

struct TypeRow {
    const char* type;
    std::string text;
    const char* printed;
};

}  // namespace

TEST(Settings, OfEveryTypeComeBackAsTheyWereStored) {
    const DataCenter server;
    const TypeRow rows[] = {{"string", "plain", "plain"},
                            {"string", "", ""},
                            {"string", "-5 --json", "-5 --json"},
                            {"string", "line\nquote\"back\\slash=", "line\nquote\"back\\slash="},
                            {"string", "\xFF\xFE bytes", "\xFF\xFE bytes"},
                            {"int", "-9223372036854775808", "-9223372036854775808"},
                            {"bool", "yes", "true"},
                            {"real", "0.1", "0.1"},
                            {"real", "inf", "inf"},
                            {"date", "2026-01-31T23:59:59.25Z", "2026-01-31T23:59:59.25Z"},
                            {"data", "AP8=", "AP8="},
                            {"json", R"([1, {"a": null}, "\u0000"])", R"([1,{"a":null},"\u0000"])"},
                            {"json", R"({"$dictionary": [[1, {"$date": 5}]]})",
                             R"({"$dictionary":[[1,{"$date":"1970-01-01T00:00:05Z"}]]})"}};
    for (const auto& row : rows) {
        done({"set", "--type", row.type, "dc-test-value=" + row.text});
        EXPECT_EQ(done({"get", "dc-test-value"}).out, std::string(row.printed) + "\n");
        const auto stored = json({"get", "dc-test-value"}).as<okv::Dictionary>()["dc-test-value"];
        done({"set", "--type", "json", "dc-test-copy=" + okvctl::jsonText(stored)});
        EXPECT_EQ(json({"get", "dc-test-copy"}).as<okv::Dictionary>()["dc-test-copy"], stored);
        EXPECT_EQ(json({"list", "dc-test-v"}), Value(okv::Dictionary{{"dc-test-value", stored}}));
    }
}

TEST(Settings, AreListedInOrderAndAligned) {
    const DataCenter server;
    done({"set", "dc-b=x", "dc-a-long=two\nlines"});
    done({"set", "--type=int", "other=7"});
    EXPECT_EQ(done({"--no-legend", "list"}).out,
              "dc-a-long  string  \"two\\nlines\"\n"
              "dc-b       string  x\n"
              "other      int     7\n");
    EXPECT_EQ(done({"--no-legend", "list", "oth"}).out, "other  int  7\n");
    EXPECT_EQ(done({"--no-legend", "list", "nothing"}).out, "");
}

TEST(Settings, ThatAreNotSetEndWith10AndAreNamed) {
    const DataCenter server;
    done({"set", "dc-a=1"});
    const auto alone = run({"get", "dc-b"});
    EXPECT_EQ(alone.code, 10);
    EXPECT_EQ(alone.out, "");
    EXPECT_THAT(alone.error, HasSubstr("dc-b: not set"));
    const auto both = run({"get", "dc-a", "dc-b"});
    EXPECT_EQ(both.code, 10);
    EXPECT_EQ(both.out, "KEY   TYPE    VALUE\ndc-a  string  1\n\n1 key\n");
    const auto asJson = run({"--json", "get", "dc-a", "dc-b"});
    EXPECT_EQ(asJson.code, 10);
    EXPECT_EQ(asJson.out, "{\"dc-a\":\"1\",\"dc-b\":null}\n");
}

TEST(Settings, AreUnsetTogetherAndByTheNullObject) {
    const DataCenter server;
    done({"set", "dc-a=1", "dc-b=2", "dc-c=3"});
    done({"unset", "dc-a", "dc-b", "dc-never"});
    done({"set", "--type", "null", "dc-c"});
    EXPECT_EQ(done({"--no-legend", "list"}).out, "");
}

TEST(Settings, AreAllStoredOrNone) {
    const DataCenter server;
    const auto ran = run({"set", "dc-good=1", std::string(300, 'k') + "=2"});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("refused: "));
    EXPECT_EQ(done({"--no-legend", "list"}).out, "");
}

TEST(Settings, OfAUserHideEverybodysUntilAKeyIsLocked) {
    const DataCenter server;
    done({"set", "dc-a=all"});
    done({"set", "--user", "1", "dc-a=own"});
    EXPECT_EQ(done({"get", "dc-a"}).out, "all\n");
    EXPECT_EQ(done({"get", "--user=1", "dc-a"}).out, "own\n");
    done({"lock", "dc-a"});
    EXPECT_EQ(done({"get", "--user=1", "dc-a"}).out, "all\n");
    const auto refused = run({"set", "--user=1", "dc-a=new"});
    EXPECT_EQ(refused.code, 4);
    EXPECT_THAT(refused.error, AllOf(HasSubstr("dc-a: refused: "), HasSubstr("okvctl unlock")));
    EXPECT_THAT(done({"--no-legend", "locks"}).out, HasSubstr("dc-a  " + kOwnUid + "  "));
    done({"unlock", "dc-a"});
    EXPECT_EQ(done({"get", "--user=1", "dc-a"}).out, "own\n");
    EXPECT_EQ(done({"--no-legend", "list", "--user=1"}).out, "dc-a  string  own\n");
}

TEST(Settings, OfAnUnknownUserAreRefused) {
    const DataCenter server;
    EXPECT_EQ(run({"set", "--user=9", "dc-a=1"}).code, 1);
    const auto list = run({"list", "--user=9"});
    EXPECT_EQ(list.code, 1);
    EXPECT_THAT(list.error, HasSubstr("there is no user 9"));
}

TEST(Settings, AreDescribed) {
    const DataCenter server;
    done({"set", "--type=int", "dc-a=5"});
    EXPECT_THAT(done({"describe", "dc-a"}).out,
                AllOf(HasSubstr("value   5\n"), HasSubstr("type    int\n"),
                      HasSubstr("origin  everybody\n"), HasSubstr("locked  false\n")));
    EXPECT_EQ(json({"describe", "dc-none"}).as<okv::Dictionary>()["origin"], Value("none"));
}

TEST(Rights, ARefusedWriteEndsWith4AndChangesNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
    const DataCenter server;
    done({"set", "dc-a=1"});
    for (const Words& words :
         {Words{"set", "dc-a=2"}, Words{"unset", "dc-a"}, Words{"set", "--user=1", "dc-a=2"},
          Words{"lock", "dc-a"}, Words{"users", "assign", "501", "2"}, Words{"clock", "set", "now"},
          Words{"procs", "kill", "add", "a=b"}}) {
        const auto refused = run(words, {}, kNobody);
        EXPECT_EQ(refused.code, 4) << testing::PrintToString(words);
        EXPECT_EQ(refused.out, "");
        EXPECT_THAT(refused.error, HasSubstr("refused: "));
    }
    EXPECT_EQ(run({"get", "dc-a"}, {}, kNobody).out, "1\n");
    EXPECT_EQ(done({"--no-legend", "list"}).out, "dc-a  string  1\n");
    EXPECT_EQ(done({"--no-legend", "users"}).out, "1  default,current  -\n");
    EXPECT_EQ(done({"--no-legend", "locks"}).out, "");
    EXPECT_EQ(run({"clock", "get"}).code, 10);
}

TEST(Lists, AreReplacedAndRead) {
    const DataCenter server;
    const Words get{"lists", "get", "hammer_list", "--user=1"};
    EXPECT_EQ(run(get).code, 10);
    done({"lists", "set", "hammer_list", "--user=1", "--type=json", R"(["a", 1])"});
    EXPECT_EQ(done(get).out, "[\"a\",1]\n");
    done({"lists", "set", "hammer_list", "--user=1", "--type=json"}, "{\"from\": \"input\"}\n");
    EXPECT_EQ(json(get),
              Value(okv::Dictionary{{"hammer_list", okv::Dictionary{{"from", "input"}}}}));
    EXPECT_EQ(run({"lists", "get", "user_setting", "--user=1"}).code, 10);
    done({"lists", "set", "hammer_list", "--user=1", "--type=null"});
    EXPECT_EQ(run(get).code, 10);
    EXPECT_EQ(run({"lists", "set", "hammer_list", "--user=9", "x"}).code, 1);
}

TEST(Users, AreAssignedSwitchedAndRemoved) {
    const DataCenter server;
    done({"users", "assign", "501", "7"});
    EXPECT_EQ(done({"--no-legend", "users", "list"}).out,
              "1  default,current  -\n"
              "7  -                501\n");
    EXPECT_EQ(done({"users", "max"}).out, "7\n");
    EXPECT_EQ(done({"users", "default"}).out, "1\n");
    done({"users", "current", "7"});
    EXPECT_EQ(done({"users", "current"}).out, "7\n");
    done({"users", "switch", "501", "1"});
    EXPECT_EQ(run({"users", "switch", "501", "99"}).code, 1);
    done({"users", "unassign", "501"});
    EXPECT_EQ(run({"users", "unassign", "501"}).code, 10);
    EXPECT_EQ(run({"users", "remove", "1"}).code, 1);
    done({"users", "remove", "7"});
    EXPECT_EQ(done({"--no-legend", "users"}).out, "1  default,current  -\n");
}

TEST(Procs, AreAddedAndRemoved) {
    const DataCenter server;
    for (const auto* list : {"white", "black", "kill"}) {
        done({"procs", list, "add", "A b.app=ProcessA", "x=y=ProcessX"});
        EXPECT_EQ(done({"--no-legend", "procs", list}).out,
                  "A b.app  ProcessA\nx=y      ProcessX\n");
        done({"procs", list, "remove", "A b.app", "x=y"});
        EXPECT_EQ(done({"--no-legend", "procs", list}).out, "");
    }
}

TEST(Clock, IsSetStartedAndStopped) {
    const DataCenter server;
    EXPECT_EQ(run({"clock", "get"}).code, 10);
    done({"clock", "set", "2026-01-31T23:59:59+09:00"});
    EXPECT_EQ(done({"clock", "get"}).out, "2026-01-31T14:59:59Z\n");
    done({"clock", "start"});
    done({"clock", "stop"});
    EXPECT_THAT(done({"clock", "get"}).out, HasSubstr("2026-01-31T1"));
}

TEST(Output, ThatNobodyReadsToItsEndIsNoMistake) {
    const DataCenter server;
    Child filling("/bin/bash",
                  {"-c", "for i in {1..2000}; do echo -n \"dc-$i=" + std::string(200, 'x') +
                             " \"; done | xargs " OKVCTL_PROGRAM " set"});
    ASSERT_EQ(filling.wait(), 0);
    Child shell("/bin/bash",
                {"-c", "set -o pipefail; " OKVCTL_PROGRAM " list 2>&1 | head -n 1; echo $?"});
    EXPECT_THAT(shell.line(), testing::MatchesRegex("KEY +TYPE +VALUE"));
    EXPECT_EQ(shell.line(), "0");
}

TEST(Output, ThatCannotBeWrittenIsAFailure) {
    const DataCenter server;
    done({"set", "dc-a=1"});
    Child shell("/bin/sh", {"-c", OKVCTL_PROGRAM " get dc-a >/dev/full 2>/dev/null"});
    EXPECT_EQ(shell.wait(), 1);
}

}  // namespace okvctl_test::settings
