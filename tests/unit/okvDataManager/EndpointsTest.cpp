#include "Support.h"

#include <map>

// The service endpoints: defaults, stored values of every kind, and the addresses made of them.

namespace dmtest {
namespace {

using okv::Array;
using okv::Null;
using testing::ElementsAre;

constexpr char kHostKey[] = "dc-syscmnf-setting_server_host";
constexpr char kPortKey[] = "dc-syscmnf-setting_server_port";

class EndpointsTest : public ConnectedTest {
protected:
    void store(const std::string& key, const Value& value) {
        stored_[key] = value;
        server().answerBy("okvDataPT:", [stored = stored_](const ReceivedMessage& message) {
            const auto at = stored.find(message.arguments[0].as<std::string>());
            return at == stored.end() ? Value(Null{}) : at->second;
        });
    }

private:
    std::map<std::string, Value> stored_;
};

}  // namespace

TEST_F(EndpointsTest, AnEmptyStoreGivesTheDefaults) {
    for (const Value& missing : {Value(), Value(Null{})}) {
        server().answer("okvDataPT:", missing);
        EXPECT_EQ(manager().arsEncodekey(), "");
        EXPECT_EQ(manager().arsServHost(), OKV_DEFAULT_ARS_HOST);
        EXPECT_EQ(manager().arsServPort(), 80);
        EXPECT_EQ(manager().arsLogServPort(), 20083);
        EXPECT_EQ(manager().settingServHost(), OKV_DEFAULT_SETTING_HOST);
        EXPECT_EQ(manager().settingServPort(), 443);
        EXPECT_EQ(manager().passwdForgotUrl(), "");
        EXPECT_EQ(manager().pgUpdateServUrl(), "");
        EXPECT_EQ(manager().fdUpdateServUrl(), "");
        const std::string base = "https://" OKV_DEFAULT_SETTING_HOST ":443";
        EXPECT_EQ(manager().settingBaseUrl(), base);
        EXPECT_EQ(manager().loginTopUrl(), base + "/kv6/login");
        EXPECT_EQ(manager().forgotPasswdUrl(), base + "/kv6/forgot");
        EXPECT_EQ(manager().bpCancelUrl(), base + "/kv6/cancel_url/request");
    }
}

TEST_F(EndpointsTest, TheTwoPasswordPagesAreDistinct) {
    store("dc-syscmnf-passwd_forgot_url", "https://elsewhere.example/");
    EXPECT_EQ(manager().passwdForgotUrl(), "https://elsewhere.example/");
    EXPECT_EQ(manager().forgotPasswdUrl(), "https://" OKV_DEFAULT_SETTING_HOST ":443/kv6/forgot");
}

TEST_F(EndpointsTest, AStoredEmptyTextIsNoMissingValue) {
    store(kHostKey, "");
    EXPECT_EQ(manager().settingServHost(), "");
    EXPECT_EQ(manager().settingBaseUrl(), "https://:443");
}

TEST_F(EndpointsTest, AStoredPortIsReadAsItsIntegerValue) {
    const std::vector<std::pair<Value, std::int32_t>> ports{
        {8080, 8080},  {"8080", 8080}, {"443abc", 443}, {"abc", 0},
        {"", 0},       {"80.5", 80},   {80.9, 80},      {"99999999999", INT32_MAX},
        {Array{1}, 0}, {true, 1}};
    for (const auto& [stored, port] : ports) {
        store("dc-syscmnf-ars2_server_port", stored);
        store("dc-syscmnf-ars2_logserver_port", stored);
        store(kPortKey, stored);
        EXPECT_EQ(manager().arsServPort(), port);
        EXPECT_EQ(manager().arsLogServPort(), port);
        EXPECT_EQ(manager().settingServPort(), port);
    }
}

TEST_F(EndpointsTest, OnlyTheTwoListedPortsMeanTheSecureScheme) {
    for (const std::int32_t port : {443, 21079})
        EXPECT_EQ(manager().checkHTTPProtocol(port), "https");
    for (const std::int32_t port :
         {442, 444, 21078, 21080, 80, 20083, 0, -443, 44321079, INT32_MAX})
        EXPECT_EQ(manager().checkHTTPProtocol(port), "http") << port;
}

TEST_F(EndpointsTest, TheSchemeFollowsTheStoredPort) {
    store(kHostKey, "h.example");
    const std::vector<std::pair<Value, std::string>> bases{{21079, "https://h.example:21079"},
                                                           {21080, "http://h.example:21080"},
                                                           {"443x", "https://h.example:443"},
                                                           {"x443", "http://h.example:0"},
                                                           {80, "http://h.example:80"}};
    for (const auto& [port, base] : bases) {
        store(kPortKey, port);
        EXPECT_EQ(manager().settingBaseUrl(), base);
    }
}

TEST_F(EndpointsTest, TheBaseReadsThePortOnceAndThenTheHost) {
    manager().settingBaseUrl();
    EXPECT_THAT(sent(), ElementsAre(ReceivedMessage{"okvDataPT:", "@", {kPortKey}},
                                    ReceivedMessage{"okvDataPT:", "@", {kHostKey}}));
}

TEST_F(EndpointsTest, EveryCallReadsTheStoreAnew) {
    store(kHostKey, "one.example");
    EXPECT_EQ(manager().settingServHost(), "one.example");
    store(kHostKey, "two.example");
    EXPECT_EQ(manager().settingServHost(), "two.example");
}

TEST_F(EndpointsTest, AnAddressBelongsToTheServerWhenItsHostBeginsWithTheStoredName) {
    store(kHostKey, "set.example");
    for (const auto* url :
         {"https://set.example", "http://set.example:8080/a?b#c", "ftp://user:pw@set.example/x",
          "https://set.example.evil.test/", "x-own://set.examples"})
        EXPECT_TRUE(manager().isOKVServer(url)) << url;
    for (const auto* url : {"https://other.example/", "https://www.set.example/",
                            "https://set.exampl/", "https://other.example/set.example",
                            "https://set.example@other.example/", "https://SET.example/"})
        EXPECT_FALSE(manager().isOKVServer(url)) << url;
}

TEST(DefaultHosts, ArePlainNamesWithoutSchemeOrPort) {
    for (const std::string_view host : {OKV_DEFAULT_ARS_HOST, OKV_DEFAULT_SETTING_HOST}) {
        EXPECT_FALSE(host.empty());
        EXPECT_EQ(host.find_first_of(":/@?# "), std::string_view::npos) << host;
    }
}

TEST_F(EndpointsTest, WhatIsNoAddressOrHasNoHostIsNotTheServers) {
    store(kHostKey, "set.example");
    for (const auto* url : {"", "set.example", "/set.example", "mailto:a@set.example",
                            "https://set .example/", "https://set.example/%zz", "https:///x"})
        EXPECT_FALSE(manager().isOKVServer(url)) << url;
    store(kHostKey, "");
    EXPECT_FALSE(manager().isOKVServer("https:///x"));
    EXPECT_FALSE(manager().isOKVServer("https://set.example/"))
        << "an empty text is the prefix of none";
}

TEST_F(EndpointsTest, AnAddressIsReadToItsEndNotToItsFirstNul) {
    store(kHostKey, "set.example");
    EXPECT_FALSE(manager().isOKVServer(std::string_view("https://set.example\0/x", 22)));
}

TEST_F(EndpointsTest, AStoredNumberReadsAsItsTextAndAContainerAsNothing) {
    const std::pair<Value, const char*> rows[] = {{8, "8"},
                                                  {true, "1"},
                                                  {false, "0"},
                                                  {2.5, "2.5"},
                                                  {okv::Array{1}, OKV_DEFAULT_SETTING_HOST},
                                                  {okv::Data{1}, OKV_DEFAULT_SETTING_HOST}};
    for (const auto& [stored, text] : rows) {
        store(kHostKey, stored);
        EXPECT_EQ(manager().settingServHost(), text);
    }
}

TEST_F(EndpointsTest, TheDefaultHostDecidesWhereNoneIsStored) {
    EXPECT_TRUE(manager().isOKVServer("https://" OKV_DEFAULT_SETTING_HOST "/kv6/login"));
    EXPECT_FALSE(manager().isOKVServer("https://set.example/"));
}

TEST_F(EndpointsTest, TheSessionUserPlaysNoPart) {
    manager().setNowSessionUserId(99);
    manager().loginTopUrl();
    EXPECT_EQ(manager().nowSessionUserId(), 99);
    EXPECT_EQ(server().count("useridAppListPT"), 0U);
}

}  // namespace dmtest
