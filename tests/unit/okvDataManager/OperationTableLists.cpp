#include "OperationTable.h"

#include <OKVDataManager/okvSystemProcList.h>

#include <unistd.h>

#include <iterator>

// The rows of the per-user lists, the process lists and the service endpoints, and how a row is
// carried out.

namespace dmtest {

namespace {

using okv::Array;
using okv::Dictionary;
using okv::Null;
using Manager = okvDataManager;

struct ListFamily {
    std::string name;
    Value (Manager::*current)();
    Value (Manager::*byAccount)() const;
    Value (Manager::*byUser)(std::int32_t) const;
    bool (Manager::*replace)(std::int32_t, const Value&);
    std::string read;
    std::string write;
};

const ListFamily kFamilies[] = {
    {"UserSetting", &Manager::okvCurrentUserSetting, &Manager::okvCurrentUserSetting2OSUid,
     &Manager::okvUserSetting, &Manager::setOkvUserSetting_value,
     "okvUserSettingPT:", "setOkvUserSettingPT:value:"},
    {"ContentsWords", &Manager::okvCurrentContentsWords, &Manager::okvCurrentContentsWords2OSUid,
     &Manager::okvContentsWords, &Manager::setOkvContentsWords_value,
     "okvContentsWordsPT:", "setOkvContentsWordsPT:value:"},
    {"HammerList", &Manager::okvCurrentHammerList, &Manager::okvCurrentHammerList2OSUid,
     &Manager::okvHammerList, &Manager::setOkvHammerList_value,
     "okvHammerListPT:", "setOkvHammerListPT:value:"},
    {"BlackExtensionList", &Manager::okvCurrentBlackExtensionList,
     &Manager::okvCurrentBlackExtensionList2OSUid, &Manager::okvBlackExtensionList,
     &Manager::setOkvBlackExtensionList_value,
     "okvBlackExtensionListPT:", "setOkvBlackExtensionListPT:value:"},
};

std::vector<Operation> readsOf(const ListFamily& family) {
    const Value list = Array{"a", Dictionary{{"b", Null{}}}};
    const auto account = static_cast<std::int32_t>(geteuid());
    return {
        sessionRead(
            "okvCurrent" + family.name, [=](Manager& m) { return (m.*family.current)(); },
            {family.read, "@", {kSessionUser}}, list, Value()),
        {"okvCurrent" + family.name + "2OSUid",
         [=](Manager& m) { return (m.*family.byAccount)(); },
         {{"userAppuidPT:", "i", {account}}, {family.read, "@", {3}}},
         {{"userAppuidPT:", 3}, {family.read, list}},
         list,
         Value()},
        forwarding(
            "okv" + family.name, [=](Manager& m) { return (m.*family.byUser)(3); },
            {family.read, "@", {3}}, list, Value()),
        forwarding(
            "okv" + family.name + "OfANegativeUser",
            [=](Manager& m) { return (m.*family.byUser)(-1); }, {family.read, "@", {-1}}, Value(),
            Value()),
        forwarding(
            "okv" + family.name + "AnsweredByTheNullObject",
            [=](Manager& m) { return (m.*family.byUser)(7); }, {family.read, "@", {7}}, Null{},
            Value()),
        sessionRead(
            "okvCurrent" + family.name + "AnsweredByTheNullObject",
            [=](Manager& m) { return (m.*family.current)(); }, {family.read, "@", {kSessionUser}},
            Null{}, Value()),
        {"okvCurrent" + family.name + "2OSUidAnsweredByTheNullObject",
         [=](Manager& m) { return (m.*family.byAccount)(); },
         {{"userAppuidPT:", "i", {account}}, {family.read, "@", {3}}},
         {{"userAppuidPT:", 3}, {family.read, Null{}}},
         Null{},
         Value()},
    };
}

std::vector<Operation> replacementsOf(const ListFamily& family) {
    const auto replacing = [&](const std::string& what, std::int32_t user, const Value& list) {
        return forwarding(
            "setOkv" + family.name + "_value" + what,
            [=](Manager& m) { return Value((m.*family.replace)(user, list)); },
            {family.write, "@@", {user, list}}, true, false);
    };
    return {
        replacing("", 3, Dictionary{{"k", 1.5}}),
        replacing("OfAnEmptyArray", 3, Array{}),
        replacing("OfTheNullObject", -1, Null{}),
        silent(
            "setOkv" + family.name + "_valueOfNothing",
            [=](Manager& m) { return Value((m.*family.replace)(3, Value())); }, false),
    };
}

void append(std::vector<Operation>& all, std::vector<Operation> more) {
    std::move(more.begin(), more.end(), std::back_inserter(all));
}

using EndpointCall = std::function<Value(const Manager&)>;

// Stored under the key, and the standard where nothing is.
Operation endpoint(std::string name, EndpointCall call, const std::string& key, Value stored,
                   Value standard) {
    return forwarding(std::move(name), std::move(call), {"okvDataPT:", "@", {key}},
                      std::move(stored), std::move(standard));
}

ReceivedMessage reading(const char* key) {
    return {"okvDataPT:", "@", {key}};
}

// The server answers the same for port and host: a text that is both.
Operation page(std::string name, EndpointCall call, const std::string& path) {
    return {std::move(name),
            std::move(call),
            {reading("dc-syscmnf-setting_server_port"), reading("dc-syscmnf-setting_server_host")},
            {{"okvDataPT:", "21079.example"}},
            "https://21079.example:21079" + path,
            "https://" OKV_DEFAULT_SETTING_HOST ":443" + path};
}

}  // namespace

std::vector<Operation> listOperations() {
    std::vector<Operation> all;
    for (const auto& family : kFamilies) {
        append(all, readsOf(family));
        append(all, replacementsOf(family));
    }
    return all;
}

std::vector<Operation> processListOperations() {
    const auto row = [](std::string name, okv::Array (Manager::*call)() const,
                        const std::string& selector) {
        return Operation{std::move(name),
                         [=](Manager& m) { return Value((m.*call)()); },
                         {{selector, "", {}}},
                         {{selector, Dictionary{{"a", "ProcessA"}, {"b", "ProcessA"}}}},
                         Array{"ProcessA", "ProcessA"},
                         Array{}};
    };
    return {
        row("okvKillWebProcList", &Manager::okvKillWebProcList, "okvKillWebProcListPT"),
        row("okvFltProcBlackList", &Manager::okvFltProcBlackList, "okvFltProcBlackListPT"),
        row("okvFltProcWhiteList", &Manager::okvFltProcWhiteList, "okvFltProcWhiteListPT"),
        silent(
            "systemBlackProcs", [](Manager&) { return Value(Manager::systemBlackProcs()); },
            Array{}),
        silent(
            "systemWhiteProcs", [](Manager&) { return Value(Manager::systemWhiteProcs()); },
            okvSystemProcList::sysBlockProcWhiteLists()),
    };
}

std::vector<Operation> endpointOperations() {
    const std::string standardHost = OKV_DEFAULT_SETTING_HOST;
    return {
        endpoint("arsEncodekey", &Manager::arsEncodekey, "dc-syscmnf-ars2_encodekey", "k", ""),
        endpoint("arsServHost", &Manager::arsServHost, "dc-syscmnf-ars2_server_host", "h",
                 OKV_DEFAULT_ARS_HOST),
        endpoint("arsServPort", &Manager::arsServPort, "dc-syscmnf-ars2_server_port", 81, 80),
        endpoint("arsLogServPort", &Manager::arsLogServPort, "dc-syscmnf-ars2_logserver_port", -1,
                 20083),
        endpoint("settingServHost", &Manager::settingServHost, "dc-syscmnf-setting_server_host", "",
                 standardHost),
        endpoint("settingServPort", &Manager::settingServPort, "dc-syscmnf-setting_server_port",
                 8080, 443),
        endpoint("passwdForgotUrl", &Manager::passwdForgotUrl, "dc-syscmnf-passwd_forgot_url",
                 "https://a.example/", ""),
        endpoint("pgUpdateServUrl", &Manager::pgUpdateServUrl, "dc-syscmnf-pg_update_server_url",
                 "https://b.example/", ""),
        endpoint("fdUpdateServUrl", &Manager::fdUpdateServUrl, "dc-syscmnf-fd_update_server_url",
                 "https://c.example/", ""),
        {"isOKVServer",
         [](Manager& m) { return Value(m.isOKVServer("ftp://a.example/x")); },
         {reading("dc-syscmnf-setting_server_host")},
         {{"okvDataPT:", "a.example"}},
         true,
         false},
        silent(
            "isOKVServerOfNoAddress",
            [](Manager& m) { return Value(m.isOKVServer("not an address")); }, false),
        silent(
            "checkHTTPProtocol", [](Manager& m) { return Value(m.checkHTTPProtocol(443)); },
            "https"),
        page("settingBaseUrl", &Manager::settingBaseUrl, ""),
        page("loginTopUrl", &Manager::loginTopUrl, "/kv6/login"),
        page("forgotPasswdUrl", &Manager::forgotPasswdUrl, "/kv6/forgot"),
        page("bpCancelUrl", &Manager::bpCancelUrl, "/kv6/cancel_url/request"),
    };
}

const std::vector<Operation>& allOperations() {
    static const auto all = [] {
        std::vector<Operation> joined;
        for (const auto family :
             {currentUserOperations, userListOperations, membershipOperations, sessionOperations,
              clockOperations, readingOperations, writingOperations, writingForAccountOperations,
              writingAllOperations, writingHardlyAnythingOperations, switchOperations,
              listOperations, processListOperations, endpointOperations})
            append(joined, family());
        return joined;
    }();
    return all;
}

void runOperation(okvDataManager& manager, OperationServer& server, const Operation& operation) {
    const bool applies = server.prepare(operation);
    manager.setNowSessionUserId(kSessionUser);
    server.beginRecord();
    const auto result = operation.call(manager);
    server.checkRecord(operation);
    EXPECT_EQ(result.type(), operation.result.type());
    if (applies) {
        EXPECT_EQ(result, operation.result);
    }
}

}  // namespace dmtest
