#pragma once

#include <OKVPlatform/values/Value.h>

#include <charconv>
#include <cstdint>
#include <string>
#include <utility>

/// Where the suite's service endpoints are stored, what holds where nothing is, and the pages that
/// are built from them. Not installed: for the data manager, and for the tool that tells of them.
namespace okv {

struct ServiceEndpoint {
    const char* name;  ///< of the data manager's accessor
    const char* key;
    const char* standard;  ///< of a port, too, a text: read in the same way as a stored value
    bool isPort = false;
};

inline constexpr ServiceEndpoint kArsEncodekey{"arsEncodekey", "dc-syscmnf-ars2_encodekey", ""};
inline constexpr ServiceEndpoint kArsServHost{"arsServHost", "dc-syscmnf-ars2_server_host",
                                              OKV_DEFAULT_ARS_HOST};
inline constexpr ServiceEndpoint kArsServPort{"arsServPort", "dc-syscmnf-ars2_server_port", "80",
                                              true};
inline constexpr ServiceEndpoint kArsLogServPort{"arsLogServPort", "dc-syscmnf-ars2_logserver_port",
                                                 "20083", true};
inline constexpr ServiceEndpoint kSettingServHost{
    "settingServHost", "dc-syscmnf-setting_server_host", OKV_DEFAULT_SETTING_HOST};
inline constexpr ServiceEndpoint kSettingServPort{"settingServPort",
                                                  "dc-syscmnf-setting_server_port", "443", true};
inline constexpr ServiceEndpoint kPasswdForgotUrl{"passwdForgotUrl", "dc-syscmnf-passwd_forgot_url",
                                                  ""};
inline constexpr ServiceEndpoint kPgUpdateServUrl{"pgUpdateServUrl",
                                                  "dc-syscmnf-pg_update_server_url", ""};
inline constexpr ServiceEndpoint kFdUpdateServUrl{"fdUpdateServUrl",
                                                  "dc-syscmnf-fd_update_server_url", ""};

/// All of them, in the order in which they are told.
inline constexpr ServiceEndpoint kServiceEndpoints[] = {
    kArsEncodekey,    kArsServHost,     kArsServPort,     kArsLogServPort, kSettingServHost,
    kSettingServPort, kPasswdForgotUrl, kPgUpdateServUrl, kFdUpdateServUrl};

/// A stored text as it stands, a number as the platform prints it; the standard where nothing is
/// stored, or nothing that is a text.
inline std::string textOf(const ServiceEndpoint& endpoint, Value stored) {
    if (auto* text = stored.getIf<std::string>()) return std::move(*text);
    const auto* real = stored.getIf<double>();
    if (real == nullptr)
        return stored.isNumber() ? std::to_string(stored.longLongValue()) : endpoint.standard;
    char digits[32];
    return std::string(digits, std::to_chars(digits, digits + sizeof digits, *real).ptr);
}

/// What is stored, or else the standard, as its `intValue`.
inline std::int32_t portOf(const ServiceEndpoint& endpoint, const Value& stored) {
    return stored.isMissing() ? intValueOf(endpoint.standard) : stored.intValue();
}

/// The setting server's ports that are spoken to by https.
inline constexpr std::int32_t kSecurePorts[] = {443, 21079};

constexpr const char* schemeOfPort(std::int32_t port) {
    for (const auto secure : kSecurePorts) {
        if (port == secure) return "https";
    }
    return "http";
}

/// The setting server's address, which the pages begin with.
inline std::string settingBase(const std::string& host, std::int32_t port) {
    return std::string(schemeOfPort(port)) + "://" + host + ":" + std::to_string(port);
}

/// A page of the setting server: its address, and a path behind it.
struct ServicePage {
    const char* name;  ///< of the data manager's accessor
    const char* path;
};

inline constexpr ServicePage kSettingBase{"settingBaseUrl", ""};
inline constexpr ServicePage kLoginTop{"loginTopUrl", "/kv6/login"};
inline constexpr ServicePage kForgotPasswd{"forgotPasswdUrl", "/kv6/forgot"};
inline constexpr ServicePage kBpCancel{"bpCancelUrl", "/kv6/cancel_url/request"};
inline constexpr ServicePage kServicePages[] = {kSettingBase, kLoginTop, kForgotPasswd, kBpCancel};

}  // namespace okv
