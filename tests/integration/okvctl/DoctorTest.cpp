#include "ToolRun.h"

#include <OKVTesting/FakeDataServer.h>
#include <OKVTesting/RuntimeFolder.h>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <unistd.h>

namespace okvctl_test::doctor {

using nlohmann::json;
using okv::testing::FakeDataServer;
using okv::testing::RuntimeFolder;
using testing::HasSubstr;

namespace {

constexpr uid_t kNobody = 65533;

/// The checks by their names.
json checksOf(const Ran& ran) {
    json checks;
    const auto answer = json::parse(ran.out);
    for (const auto& check : answer["checks"]) checks[check["check"]] = check;
    return checks;
}

}  // namespace

TEST(Doctor, FindsAHealthyServerInOrder) {
    const DataCenter server;
    run({"set", "dc-a=1"});
    const auto ran = run({"--json", "doctor"});
    EXPECT_EQ(ran.code, 0) << ran.out;
    EXPECT_EQ(json::parse(ran.out)["healthy"], true);
    const auto checks = checksOf(ran);
    EXPECT_EQ(checks.size(), 7U);
    for (const auto& check : checks) {
        EXPECT_EQ(check["result"], "ok") << check;
        EXPECT_EQ(check["remedy"], "") << check;
    }
    EXPECT_THAT(checks["store"]["found"].get<std::string>(), HasSubstr("revision 1, 1 settings"));
    EXPECT_EQ(checks["log level"]["found"], "10");
}

TEST(Doctor, WithoutAServerEndsWith8AndSaysWhatToDo) {
    const RuntimeFolder folder;
    const auto ran = run({"--json", "doctor"});
    EXPECT_EQ(ran.code, 8);
    EXPECT_EQ(json::parse(ran.out)["healthy"], false);
    const auto checks = checksOf(ran);
    EXPECT_EQ(checks["runtime folder"]["result"], "ok");
    EXPECT_EQ(checks["registered name"]["result"], "bad");
    EXPECT_NE(checks["registered name"]["remedy"], "");
    EXPECT_EQ(checks["store"]["result"], "doubtful");
}

TEST(Doctor, NamesAFolderThatIsMissingOrOpenToStrangers) {
    const auto ran = run({"--json", "doctor", "--runtime-dir", "/no/such/folder"});
    EXPECT_EQ(ran.code, 8);
    const auto missing = checksOf(ran)["runtime folder"];
    EXPECT_EQ(missing["result"], "bad");
    EXPECT_THAT(missing["found"].get<std::string>(), HasSubstr("/no/such/folder"));
    EXPECT_THAT(missing["remedy"].get<std::string>(), HasSubstr("--runtime-dir"));
    const auto shared = checksOf(run({"--json", "doctor", "--runtime-dir", "/tmp"}));
    EXPECT_EQ(shared["runtime folder"]["result"], "bad");
}

TEST(Doctor, TellsAnAccountWithoutRightsHowToGetThem) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
    const DataCenter server;
    const auto ran = run({"--json", "doctor"}, {}, kNobody);
    EXPECT_EQ(ran.code, 0) << ran.out;
    const auto rights = checksOf(ran)["rights"];
    EXPECT_EQ(rights["result"], "doubtful");
    EXPECT_THAT(rights["found"].get<std::string>(), HasSubstr("may only read"));
    EXPECT_THAT(rights["remedy"].get<std::string>(), HasSubstr("okvadmin"));
}

TEST(Doctor, SeesASickServer) {
    const RuntimeFolder folder;
    FakeDataServer server;
    server.answer("serverStatusPT", okv::Dictionary{{"version", "5.0.0"}, {"waiting", 5000}});
    const auto ran = run({"--json", "doctor"});
    EXPECT_EQ(ran.code, 0) << ran.out;
    const auto checks = checksOf(ran);
    EXPECT_EQ(checks["versions"]["result"], "doubtful");
    EXPECT_THAT(checks["versions"]["found"].get<std::string>(), HasSubstr("data server 5.0.0"));
    EXPECT_EQ(checks["store"]["result"], "doubtful");
    server.answer("serverStatusPT",
                  okv::Dictionary{{"backup", okv::Dictionary{{"failure", "disk full"}}}});
    const auto unsaved = checksOf(run({"--json", "doctor"}))["store"];
    EXPECT_EQ(unsaved["result"], "doubtful");
    EXPECT_THAT(unsaved["found"].get<std::string>(), HasSubstr("backup failed: disk full"));
    server.hangUpAt("serverStatusPT");
    const auto sick = run({"--json", "doctor"});
    EXPECT_EQ(sick.code, 1);
    EXPECT_EQ(checksOf(sick)["store"]["result"], "bad");
}

TEST(Doctor, IsATableForPeople) {
    const DataCenter server;
    const auto ran = run({"doctor"});
    EXPECT_THAT(ran.out, testing::StartsWith("CHECK "));
    EXPECT_THAT(ran.out, HasSubstr("\nrights "));
    EXPECT_THAT(ran.out, testing::EndsWith("\n\n7 checks\n"));
}

}  // namespace okvctl_test::doctor
