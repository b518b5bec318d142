#include "ToolRun.h"

#include "support/Processes.h"
#include "support/Sanitizers.h"

#include <OKVDataManager/okvDataManager.h>

#include <OKVPlatform/ipc/RegisteredName.h>

#include <OKVTesting/FakeDataServer.h>
#include <OKVTesting/RuntimeFolder.h>
#include <OKVTesting/ServiceThread.h>

#include <JsonForm.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace okvctl_test::silent_server {

using okv::Value;
using okv::testing::FakeDataServer;
using okv::testing::RuntimeFolder;
using okv::testing::ServiceThread;
using testing::HasSubstr;

namespace {

/// Takes every request and answers none of them.
struct Silence {
    std::mutex mutex;
    std::vector<okv::Ref<okv::IncomingRequest>> kept;

    okv::RootObject root() {
        okv::RootObject root;
        root.target = this;
        root.handler = [](void* self, okv::IncomingRequest& request) {
            auto& silence = *static_cast<Silence*>(self);
            const std::lock_guard lock(silence.mutex);
            silence.kept.push_back(okv::Ref<okv::IncomingRequest>::retaining(&request));
        };
        return root;
    }
};

}  // namespace

TEST(SilentServer, EndsAfterTheTimeoutWith3) {
    const RuntimeFolder folder;
    Silence silence;
    ServiceThread service(kOKVDataServerName, silence.root());
    for (const auto& words : {std::vector<std::string>{"get", "dc-a-b"}, {"set", "dc-a-b=1"}}) {
        auto arguments = words;
        arguments.insert(arguments.end(), {"--timeout", "0.1"});
        const auto ran = run(arguments);
        EXPECT_EQ(ran.code, 3);
        EXPECT_EQ(ran.out, "");
        EXPECT_THAT(ran.error, HasSubstr("dc-a-b: no answer within 0.1 s"));
    }
    // While there is somebody to answer that they were given up.
    service.on([&](okv::Publication&) { silence.kept.clear(); });
    service.on([](okv::Publication&) {});
}

namespace {

/// Holds the data server's name, where everybody is connected and nobody greeted: a stopped one.
struct Stopped {
    std::string why;
    std::unique_ptr<okv::PublishedName> name =
        okv::PublishedName::publish(kOKVDataServerName, {}, why);
};

}  // namespace

TEST(StoppedServer, EndsEveryVerbAfterTheTimeoutWith3) {
    const RuntimeFolder folder;
    const Stopped server;
    ASSERT_TRUE(server.name) << server.why;
    using Words = std::vector<std::string>;
    for (auto arguments : {Words{"ping"}, Words{"ping", "--wait"}, Words{"get", "a"},
                           Words{"import", "-"}, Words{"import", "--dry-run", "-"}}) {
        const auto verb = arguments[0];
        arguments.insert(arguments.end(), {"--timeout", "0.1"});
        const auto ran = run(arguments, R"({"format": 1, "users": {}})");
        EXPECT_EQ(ran.code, 3) << verb;
        EXPECT_EQ(ran.out, "") << verb;
        EXPECT_THAT(ran.error, testing::StartsWith("okvctl: " + verb + ": ")) << verb;
        EXPECT_THAT(ran.error, HasSubstr("no answer within 0.1 s")) << verb;
    }
}

TEST(StoppedServer, IsWhatDoctorFinds) {
    const RuntimeFolder folder;
    const Stopped server;
    ASSERT_TRUE(server.name) << server.why;
    const auto ran = run({"--timeout", "0.1", "--json", "doctor"});
    EXPECT_EQ(ran.code, 3);
    EXPECT_EQ(ran.error, "");
    const auto checks = nlohmann::json::parse(ran.out)["checks"];
    ASSERT_EQ(checks.size(), 7U);
    EXPECT_EQ(checks[2]["check"], "registered name");
    EXPECT_EQ(checks[2]["result"], "bad");
    EXPECT_THAT(checks[2]["found"].get<std::string>(), HasSubstr("no answer within 0.1 s"));
    EXPECT_THAT(run({"--timeout", "0.1", "doctor"}).out, HasSubstr("no answer within 0.1 s"));
}

TEST(FullServer, IsWhatDoctorFinds) {
    const RuntimeFolder folder;
    okv::PublicationOptions options;
    options.maxConnections = 0;
    const ServiceThread service(kOKVDataServerName, {}, options);
    const auto ran = run({"--json", "doctor"});
    EXPECT_EQ(ran.code, 8);
    EXPECT_EQ(ran.error, "");
    const auto checks = nlohmann::json::parse(ran.out)["checks"];
    EXPECT_EQ(checks[2]["result"], "bad");
    EXPECT_EQ(checks[2]["found"], "the data server cannot be used: too many connections: 0");
    EXPECT_THAT(checks[2]["remedy"].get<std::string>(), HasSubstr("too many"));
}

TEST(StrangersServer, IsNotSaidToBeMissing) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
    constexpr uid_t kStranger = 65533;
    const RuntimeFolder folder;
    ASSERT_EQ(chown(folder.path().c_str(), kStranger, kStranger), 0);
    const support::Child server([](const auto& ready) {
        if (!support::becomeAccount(kStranger)) return;
        const Stopped published;
        if (published.name) ready();
        for (;;) pause();
    });
    ASSERT_TRUE(server.isReady());
    const auto ran = run({"get", "a"});
    EXPECT_EQ(ran.code, 8);
    EXPECT_EQ(ran.error,
              "okvctl: get: the data server cannot be used: served by uid 65533, "
              "which is not trusted\n");
    const auto examined = run({"doctor"});
    EXPECT_EQ(examined.code, 8);
    EXPECT_THAT(examined.out, testing::Not(HasSubstr("start OKVDataCenter")));
    EXPECT_THAT(examined.out, testing::Not(HasSubstr("another folder")));
}

TEST(ClosedFolder, IsNotSaidToHaveNoServer) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
    const RuntimeFolder folder;
    std::filesystem::permissions(folder.path(), std::filesystem::perms(0700));
    const auto ran = run({"get", "a"}, {}, 65533);
    EXPECT_EQ(ran.code, 8);
    EXPECT_THAT(ran.error, HasSubstr("get: the data server cannot be used: "));
    EXPECT_THAT(ran.error, testing::EndsWith("Permission denied\n"));
}

TEST(OddServer, ThatHangsUpIsAFailureOfUnknownOutcome) {
    const RuntimeFolder folder;
    FakeDataServer server;
    server.hangUpAt("okvDataAllPT:");
    const auto ran = run({"get", "dc-a-b"});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("went away before it answered"));
}

TEST(OddServer, ThatDoesNotKnowARequestIsSaidToBe) {
    const RuntimeFolder folder;
    FakeDataServer server;
    const auto ran = run({"list"});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("does not know this request"));
}

// A run that a sanitizer ends has an exit code like that of one that fails as it should.
TEST(ARun, FailsItsTestWhenASanitizerReportsSomething) {
    for (const auto* report : {"==7==ERROR: AddressSanitizer: heap-use-after-free on address 0x6",
                               "==7==ERROR: LeakSanitizer: detected memory leaks",
                               "WARNING: ThreadSanitizer: data race (pid=7)",
                               "Verb.cpp:3:5: runtime error: signed integer overflow: 1 + 2"})
        EXPECT_TRUE(support::isReport(std::string("okvctl: trouble\n") + report)) << report;
    EXPECT_FALSE(support::isReport("okvctl: dc-a-b: no answer within 0.1 s\n"));
}

TEST(OddServer, ThatAnswersNonsenseMakesNoVerbCrash) {
    const RuntimeFolder folder;
    for (const Value& nonsense : {Value(5), Value(okv::Array{1, "x"}), Value("text"), Value(),
                                  Value(okv::Dictionary{{1, okv::Array{}}})}) {
        FakeDataServer server;
        for (const auto* selector :
             {"okvDataAllPT:", "okvDataListPT:", "okvDataInfoPT:", "lockListPT", "uidListPT",
              "useridAppListPT", "okvKillWebProcListPT", "serverStatusPT",
              "changesPT:", "exportDataPT"})
            server.answer(selector, nonsense);
        for (const auto* verb : {"list", "locks", "users", "urls", "status", "export", "doctor"})
            EXPECT_LE(run({verb}).code, 10) << verb;
        EXPECT_LE(run({"get", "a"}).code, 10);
        EXPECT_LE(run({"describe", "a"}).code, 10);
        EXPECT_LE(run({"import", "--dry-run", "-"}, R"({"format": 1, "users": {}})").code, 10);
        EXPECT_EQ(run({"complete", "bash", "--", "get", ""}).code, 0);
        EXPECT_EQ(run({"complete", "bash", "--", "users", "remove", ""}).code, 0);
        EXPECT_LE(run({"procs", "kill"}).code, 10);
    }
}

TEST(OddServer, ThatVendsNoRootObjectIsAFailure) {
    const RuntimeFolder folder;
    FakeDataServer server({false});
    const auto ran = run({"ping"});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("no root object"));
}

namespace {

/// Answers these settings to every read.
void answerFrom(FakeDataServer& server, const okv::Dictionary& stored) {
    const auto read = [stored](const Value& key) {
        const auto* value = stored.find(key);
        return value != nullptr ? *value : Value(okv::Null{});
    };
    server.answerBy("okvDataPT:",
                    [read](const auto& message) { return read(message.arguments[0]); });
    server.answerBy("okvDataAllPT:", [read](const auto& message) {
        okv::Dictionary values;
        for (const auto& key : message.arguments[0].template as<okv::Array>())
            values.set(key, read(key));
        return Value(values);
    });
}

okv::Dictionary urlsOf(okvDataManager& manager) {
    return {{"arsEncodekey", manager.arsEncodekey()},
            {"arsServHost", manager.arsServHost()},
            {"arsServPort", manager.arsServPort()},
            {"arsLogServPort", manager.arsLogServPort()},
            {"settingServHost", manager.settingServHost()},
            {"settingServPort", manager.settingServPort()},
            {"passwdForgotUrl", manager.passwdForgotUrl()},
            {"pgUpdateServUrl", manager.pgUpdateServUrl()},
            {"fdUpdateServUrl", manager.fdUpdateServUrl()},
            {"settingBaseUrl", manager.settingBaseUrl()},
            {"loginTopUrl", manager.loginTopUrl()},
            {"forgotPasswdUrl", manager.forgotPasswdUrl()},
            {"bpCancelUrl", manager.bpCancelUrl()}};
}

}  // namespace

TEST(Urls, AreThoseThatTheSuitesProcessesUse) {
    const RuntimeFolder folder;
    FakeDataServer server;
    const auto manager = okvDataManager::sharedDataManager();
    ASSERT_TRUE(manager);
    const okv::Dictionary stores[] = {
        {},
        {{"dc-syscmnf-setting_server_port", "21079x"}, {"dc-syscmnf-setting_server_host", "h"}},
        {{"dc-syscmnf-setting_server_port", "none"}, {"dc-syscmnf-ars2_server_port", 8080}},
        {{"dc-syscmnf-setting_server_host", ""}, {"dc-syscmnf-ars2_encodekey", 7}},
        {{"dc-syscmnf-passwd_forgot_url", "u"}, {"dc-syscmnf-ars2_server_host", okv::Array{}}},
        {{"dc-syscmnf-setting_server_host", true}, {"dc-syscmnf-ars2_server_host", false}},
        {{"dc-syscmnf-setting_server_host", 1.5}, {"dc-syscmnf-ars2_encodekey", 1e300}},
        {{"dc-syscmnf-setting_server_port", 80.9}, {"dc-syscmnf-ars2_server_port", true}},
        {{"dc-syscmnf-setting_server_host", okv::Date{1}},
         {"dc-syscmnf-ars2_encodekey", okv::Data{1}}}};
    for (const auto& stored : stores) {
        answerFrom(server, stored);
        const auto ran = run({"--json", "urls"});
        const auto urls = okvctl::parseJson(ran.out);
        ASSERT_TRUE(urls) << ran.out << ran.error;
        EXPECT_EQ(*urls.value, Value(urlsOf(*manager)));
    }
}

}  // namespace okvctl_test::silent_server
