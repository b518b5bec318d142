#include "ToolRun.h"

#include <JsonForm.h>

#include <gmock/gmock.h>

#include <unistd.h>

#include <csignal>

namespace okvctl_test::watch {

using okv::Value;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

const std::string kOwnUid = std::to_string(geteuid());

okv::Dictionary change(Child& watch) {
    const auto line = watch.line();
    const auto parsed = okvctl::parseJson(line);
    EXPECT_TRUE(parsed) << line;
    if (!parsed || !parsed.value->is<okv::Dictionary>()) return {};
    return parsed.value->as<okv::Dictionary>();
}

}  // namespace

TEST(Watch, ReplaysThenTellsWhatChanges) {
    const DataCenter server;
    run({"set", "dc-a=1"});
    Child watch(OKVCTL_PROGRAM, {"--json", "watch", "--since", "0"});
    EXPECT_EQ(change(watch)["keys"], Value(okv::Array{"dc-a"}));
    run({"set", "--user=1", "dc-b=1", "dc-c=2"});
    const auto second = change(watch);
    EXPECT_EQ(second["revision"], Value(2));
    EXPECT_EQ(second["appuid"], Value(1));
    EXPECT_EQ(second["osuserid"], Value(-1));
    EXPECT_EQ(second["keys"], Value(okv::Array{"dc-b", "dc-c"}));
    run({"users", "switch", "501", "1"});
    const auto third = change(watch);
    EXPECT_EQ(third["osuserid"], Value(501));
    EXPECT_EQ(third["session_userid"], Value(1));
}

TEST(Watch, TellsEachChangeOnALineInWords) {
    const DataCenter server;
    run({"set", "dc-a=1", "dc-b=2"});
    run({"set", "--user=1", "dc-c=1"});
    run({"users", "switch", "501", "1"});
    Child watch(OKVCTL_PROGRAM, {"watch", "--since=0"});
    EXPECT_THAT(watch.line(), MatchesRegex("1 .*Z " + kOwnUid + " everybody: dc-a dc-b"));
    EXPECT_THAT(watch.line(), MatchesRegex("2 .*Z " + kOwnUid + " user 1: dc-c"));
    EXPECT_THAT(watch.line(), MatchesRegex("3 .*Z " + kOwnUid + " account 501: user 1"));
}

TEST(Watch, GoesOnOverARestartOfTheServer) {
    DataCenter server;
    run({"set", "dc-a=1"});
    Child watch(OKVCTL_PROGRAM, {"--json", "watch", "--since", "0"});
    EXPECT_EQ(change(watch)["revision"], Value(1));
    server.stop();
    server.start();
    run({"set", "dc-b=1"});
    const auto second = change(watch);
    EXPECT_EQ(second["revision"], Value(2));
    EXPECT_EQ(second["keys"], Value(okv::Array{"dc-b"}));
}

TEST(Watch, SaysResyncForARevisionThatTheServerDoesNotKnow) {
    const DataCenter server;
    run({"set", "dc-a=1"});
    Child watch(OKVCTL_PROGRAM, {"watch", "--since", "99"});
    EXPECT_EQ(watch.line(), "resync 1");
    Child asJson(OKVCTL_PROGRAM, {"--json", "watch", "--since", "99"});
    const auto resync = change(asJson);
    EXPECT_EQ(resync["resync"], Value(true));
    EXPECT_EQ(resync["revision"], Value(1));
}

TEST(Watch, EndsWhenNobodyReads) {
    const DataCenter server;
    run({"set", "dc-a=1"});
    Child watch(OKVCTL_PROGRAM, {"watch", "--since=0"});
    EXPECT_THAT(watch.line(), StartsWith("1 "));
    watch.stopReading();
    EXPECT_EQ(watch.wait(), 0);
}

TEST(Watch, EndsWithTheSignalThatItGets) {
    const DataCenter server;
    run({"set", "dc-a=1"});
    Child watch(OKVCTL_PROGRAM, {"watch", "--since=0"});
    watch.line();
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(), 128 + SIGINT);
}

}  // namespace okvctl_test::watch
