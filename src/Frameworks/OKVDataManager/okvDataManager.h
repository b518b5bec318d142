#pragma once

#include <OKVPlatform/ipc/Protocol.h>
#include <OKVPlatform/values/Value.h>

#include <cstdint>

/// The name under which the data server vends its root object.
inline constexpr char kOKVDataServerName[] = "jp.nrm.okv6.dataConnection";

/// What the data server's root object answers. The data manager sends all of it but the methods
/// marked "served, never sent by the data manager". Two ways of carrying a user id stand side by
/// side on purpose: the settings by key and `userAppuidPT`, `setUseridPT_applyUid`, `delUseridPT`
/// take a plain int; the per-user lists, `setCurrentUserIdPT`, `setCurrentUserIdForOSPT` and
/// `removeUserInfoPT` a number object. Six names lack the ending PT; they are meant so. No method
/// is one-way.
class OKVDataMng_protocol {
public:
    virtual ~OKVDataMng_protocol() = default;

    // Clients and server control
    virtual bool registerAsClient(okv::RemoteObject& client) = 0;
    virtual void removeAsClient(
        okv::RemoteObject& client) = 0;       // served, never sent by the data manager
    virtual std::int32_t connectCount() = 0;  // served, never sent by the data manager
    virtual void endServer() = 0;             // served, never sent by the data manager

    // Settings by key
    virtual okv::Value okvDataPT(const okv::Value& key) = 0;
    virtual okv::Value okvDataPT_osUid(
        const okv::Value& key, std::int32_t osUid) = 0;  // served, never sent by the data manager
    virtual okv::Value okvDataPT_appUid(const okv::Value& key, std::int32_t appUid) = 0;
    virtual okv::Value okvDataAllPT(
        const okv::Value& keys) = 0;  // served, never sent by the data manager
    virtual okv::Value okvDataAllPT_osUid(
        const okv::Value& keys, std::int32_t osUid) = 0;  // served, never sent by the data manager
    virtual okv::Value okvDataAllPT_appUid(const okv::Value& keys, std::int32_t appUid) = 0;
    virtual bool setOKVDataPT_value_appUid(const okv::Value& key, const okv::Value& value,
                                           std::int32_t appUid) = 0;
    virtual bool setOKVDataPT_value_osUid(const okv::Value& key, const okv::Value& value,
                                          std::int32_t osUid) = 0;
    virtual bool setOKVDataAllPT_appUid(const okv::Value& settings, std::int32_t appUid) = 0;
    virtual bool setOKVDataAllPT_osUid(const okv::Value& settings, std::int32_t osUid) = 0;
    virtual bool reloadDataPT() = 0;
    virtual okv::Value filterSettingsDataPT() = 0;  // served, never sent by the data manager
    virtual okv::Value systemConfDataPT() = 0;      // served, never sent by the data manager
    virtual okv::Value cmnSettingsDataPT() = 0;     // served, never sent by the data manager
    virtual bool setAgentAutoRunPT(bool flag) = 0;

    // Per-user lists
    virtual okv::Value okvUserSettingPT(const okv::Value& user) = 0;
    virtual bool setOkvUserSettingPT_value(const okv::Value& user, const okv::Value& list) = 0;
    virtual okv::Value okvContentsWordsPT(const okv::Value& user) = 0;
    virtual bool setOkvContentsWordsPT_value(const okv::Value& user, const okv::Value& list) = 0;
    virtual okv::Value okvHammerListPT(const okv::Value& user) = 0;
    virtual bool setOkvHammerListPT_value(const okv::Value& user, const okv::Value& list) = 0;
    virtual okv::Value okvBlackExtensionListPT(const okv::Value& user) = 0;
    virtual bool setOkvBlackExtensionListPT_value(const okv::Value& user,
                                                  const okv::Value& list) = 0;

    // Filtering process lists
    virtual okv::Value okvFltProcWhiteListPT() = 0;
    virtual okv::Value okvFltProcBlackListPT() = 0;
    virtual okv::Value okvKillWebProcListPT() = 0;

    // User identities
    virtual std::int32_t defaultUserIdPT() = 0;
    virtual std::int32_t currentUserIdPT() = 0;
    virtual std::int32_t maxUserIdPT() = 0;
    virtual bool setCurrentUserIdPT(const okv::Value& user) = 0;
    virtual bool setCurrentUserIdForOSPT(const okv::Value& user) = 0;
    virtual std::int32_t userAppuidPT(std::int32_t osUid) = 0;
    virtual void setUseridPT_applyUid(std::int32_t osUid, std::int32_t appUid) = 0;
    virtual std::int32_t delUseridPT(std::int32_t osUid) = 0;
    virtual okv::Value uidListPT() = 0;
    virtual okv::Value useridAppListPT() = 0;
    virtual void useridUpdatePT() = 0;  // served, never sent by the data manager
    virtual bool removeUserInfoPT(const okv::Value& user) = 0;
    virtual void removeUserInfoAllPT() = 0;

    // Server clock
    virtual okv::Value serverTimePT() = 0;
    virtual void setServerTimePT(const okv::Value& date) = 0;
    virtual void startServerTimeTimer() = 0;
    virtual void stopServerTimeTimer() = 0;
};

template <>
inline constexpr auto okv::protocol<OKVDataMng_protocol> = okv::protocolTable(
    okv::row<&OKVDataMng_protocol::registerAsClient>("registerAsClient:"),
    okv::row<&OKVDataMng_protocol::removeAsClient>("removeAsClient:"),
    okv::row<&OKVDataMng_protocol::connectCount>("connectCount"),
    okv::row<&OKVDataMng_protocol::endServer>("endServer"),
    okv::row<&OKVDataMng_protocol::okvDataPT>("okvDataPT:"),
    okv::row<&OKVDataMng_protocol::okvDataPT_osUid>("okvDataPT:osUid:"),
    okv::row<&OKVDataMng_protocol::okvDataPT_appUid>("okvDataPT:appUid:"),
    okv::row<&OKVDataMng_protocol::okvDataAllPT>("okvDataAllPT:"),
    okv::row<&OKVDataMng_protocol::okvDataAllPT_osUid>("okvDataAllPT:osUid:"),
    okv::row<&OKVDataMng_protocol::okvDataAllPT_appUid>("okvDataAllPT:appUid:"),
    okv::row<&OKVDataMng_protocol::setOKVDataPT_value_appUid>("setOKVDataPT:value:appUid:"),
    okv::row<&OKVDataMng_protocol::setOKVDataPT_value_osUid>("setOKVDataPT:value:osUid:"),
    okv::row<&OKVDataMng_protocol::setOKVDataAllPT_appUid>("setOKVDataAllPT:appUid:"),
    okv::row<&OKVDataMng_protocol::setOKVDataAllPT_osUid>("setOKVDataAllPT:osUid:"),
    okv::row<&OKVDataMng_protocol::reloadDataPT>("reloadDataPT"),
    okv::row<&OKVDataMng_protocol::filterSettingsDataPT>("filterSettingsDataPT"),
    okv::row<&OKVDataMng_protocol::systemConfDataPT>("systemConfDataPT"),
    okv::row<&OKVDataMng_protocol::cmnSettingsDataPT>("cmnSettingsDataPT"),
    okv::row<&OKVDataMng_protocol::setAgentAutoRunPT>("setAgentAutoRunPT:"),
    okv::row<&OKVDataMng_protocol::okvUserSettingPT>("okvUserSettingPT:"),
    okv::row<&OKVDataMng_protocol::setOkvUserSettingPT_value>("setOkvUserSettingPT:value:"),
    okv::row<&OKVDataMng_protocol::okvContentsWordsPT>("okvContentsWordsPT:"),
    okv::row<&OKVDataMng_protocol::setOkvContentsWordsPT_value>("setOkvContentsWordsPT:value:"),
    okv::row<&OKVDataMng_protocol::okvHammerListPT>("okvHammerListPT:"),
    okv::row<&OKVDataMng_protocol::setOkvHammerListPT_value>("setOkvHammerListPT:value:"),
    okv::row<&OKVDataMng_protocol::okvBlackExtensionListPT>("okvBlackExtensionListPT:"),
    okv::row<&OKVDataMng_protocol::setOkvBlackExtensionListPT_value>(
        "setOkvBlackExtensionListPT:value:"),
    okv::row<&OKVDataMng_protocol::okvFltProcWhiteListPT>("okvFltProcWhiteListPT"),
    okv::row<&OKVDataMng_protocol::okvFltProcBlackListPT>("okvFltProcBlackListPT"),
    okv::row<&OKVDataMng_protocol::okvKillWebProcListPT>("okvKillWebProcListPT"),
    okv::row<&OKVDataMng_protocol::defaultUserIdPT>("defaultUserIdPT"),
    okv::row<&OKVDataMng_protocol::currentUserIdPT>("currentUserIdPT"),
    okv::row<&OKVDataMng_protocol::maxUserIdPT>("maxUserIdPT"),
    okv::row<&OKVDataMng_protocol::setCurrentUserIdPT>("setCurrentUserIdPT:"),
    okv::row<&OKVDataMng_protocol::setCurrentUserIdForOSPT>("setCurrentUserIdForOSPT:"),
    okv::row<&OKVDataMng_protocol::userAppuidPT>("userAppuidPT:"),
    okv::row<&OKVDataMng_protocol::setUseridPT_applyUid>("setUseridPT:applyUid:"),
    okv::row<&OKVDataMng_protocol::delUseridPT>("delUseridPT:"),
    okv::row<&OKVDataMng_protocol::uidListPT>("uidListPT"),
    okv::row<&OKVDataMng_protocol::useridAppListPT>("useridAppListPT"),
    okv::row<&OKVDataMng_protocol::useridUpdatePT>("useridUpdatePT"),
    okv::row<&OKVDataMng_protocol::removeUserInfoPT>("removeUserInfoPT:"),
    okv::row<&OKVDataMng_protocol::removeUserInfoAllPT>("removeUserInfoAllPT"),
    okv::row<&OKVDataMng_protocol::serverTimePT>("serverTimePT"),
    okv::row<&OKVDataMng_protocol::setServerTimePT>("setServerTimePT:"),
    okv::row<&OKVDataMng_protocol::startServerTimeTimer>("startServerTimeTimer"),
    okv::row<&OKVDataMng_protocol::stopServerTimeTimer>("stopServerTimeTimer"));

/// What a client answers to the data server that it registered with.
class OKVClientMng_protocol {
public:
    virtual ~OKVClientMng_protocol() = default;

    /// The client drops its connection and does not reconnect by itself.
    virtual void disConnectSrv() = 0;
};

template <>
inline constexpr auto okv::protocol<OKVClientMng_protocol> =
    okv::protocolTable(okv::row<&OKVClientMng_protocol::disConnectSrv>("disConnectSrv"));
