#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include <algorithm>

namespace okvctl {

namespace {

using okv::Value;

// The suite's own names for its endpoints, with the defaults that its processes use.
struct Endpoint {
    const char* name;
    const char* key;
    const char* standard;
    bool isPort;
};

constexpr Endpoint kEndpoints[] = {
    {"arsEncodekey", "dc-syscmnf-ars2_encodekey", "", false},
    {"arsServHost", "dc-syscmnf-ars2_server_host", OKV_DEFAULT_ARS_HOST, false},
    {"arsServPort", "dc-syscmnf-ars2_server_port", "80", true},
    {"arsLogServPort", "dc-syscmnf-ars2_logserver_port", "20083", true},
    {"settingServHost", "dc-syscmnf-setting_server_host", OKV_DEFAULT_SETTING_HOST, false},
    {"settingServPort", "dc-syscmnf-setting_server_port", "443", true},
    {"passwdForgotUrl", "dc-syscmnf-passwd_forgot_url", "", false},
    {"pgUpdateServUrl", "dc-syscmnf-pg_update_server_url", "", false},
    {"fdUpdateServUrl", "dc-syscmnf-fd_update_server_url", "", false},
};

struct Page {
    const char* name;
    const char* path;
};

constexpr Page kPages[] = {{"settingBaseUrl", ""},
                           {"loginTopUrl", "/kv6/login"},
                           {"forgotPasswdUrl", "/kv6/forgot"},
                           {"bpCancelUrl", "/kv6/cancel_url/request"}};

constexpr std::int32_t kSecurePorts[] = {443, 21079};

Value readAs(const Endpoint& endpoint, const Value& stored) {
    if (endpoint.isPort) {
        return stored.isMissing() ? okv::intValueOf(endpoint.standard) : stored.intValue();
    }
    if (stored.is<std::string>()) return stored;
    return stored.is<std::int64_t>() ? Value(std::to_string(stored.longLongValue()))
                                     : Value(endpoint.standard);
}

void addPages(okv::Dictionary& urls) {
    const auto port = urls["settingServPort"].intValue();
    const bool secure =
        std::find(std::begin(kSecurePorts), std::end(kSecurePorts), port) != std::end(kSecurePorts);
    const auto base = std::string(secure ? "https" : "http") + "://" +
                      urls["settingServHost"].as<std::string>() + ":" + std::to_string(port);
    for (const auto& page : kPages) urls.set(page.name, base + page.path);
}

ExitCode run(Call& call) {
    expectOperands(call, 0, 0, "");
    expectFormats(call, kTableFormats);
    okv::Array keys;
    for (const auto& endpoint : kEndpoints) keys.emplace_back(endpoint.key);
    const auto answer = call.server.ask<&OKVDataMng_protocol::okvDataAllPT>("", keys);
    okv::Dictionary urls;
    for (const auto& endpoint : kEndpoints)
        urls.set(endpoint.name, readAs(endpoint, dictionaryIn(answer)[endpoint.key]));
    addPages(urls);
    Table table;
    for (const auto& [name, value] : urls) table.add({cellText(name), cellText(value)});
    print(call, urls, table);
    return ExitCode::done;
}

}  // namespace

const Verb kUrls{
    "urls",
    "",
    "tell the service endpoints that are in force",
    "Hosts, ports and addresses as the suite's processes use them: what is stored, else the\n"
    "default. They are the settings dc-syscmnf-...; change them with set.\n",
    kNoOptions,
    run,
};

}  // namespace okvctl
