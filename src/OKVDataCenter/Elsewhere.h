#pragma once

#include "OKVDataAdmin_protocol.h"

#include <OKVDataManager/okvDataManager.h>

#include <stdexcept>

namespace datacenter {

/// Each protocol is carried out by two objects: one answers reads from memory, the other makes
/// changes in the store. What one of them does not override is the other's business; a request that
/// reaches it all the same was sent to the wrong thread.
[[noreturn]] inline void elsewhere() {
    throw std::logic_error("this method is carried out elsewhere");
}

class DataElsewhere : public OKVDataMng_protocol {
public:
    using Value = okv::Value;
    bool registerAsClient(okv::RemoteObject&) override { elsewhere(); }
    void removeAsClient(okv::RemoteObject&) override { elsewhere(); }
    std::int32_t connectCount() override { elsewhere(); }
    void endServer() override { elsewhere(); }
    Value okvDataPT(const Value&) override { elsewhere(); }
    Value okvDataPT_osUid(const Value&, std::int32_t) override { elsewhere(); }
    Value okvDataPT_appUid(const Value&, std::int32_t) override { elsewhere(); }
    Value okvDataAllPT(const Value&) override { elsewhere(); }
    Value okvDataAllPT_osUid(const Value&, std::int32_t) override { elsewhere(); }
    Value okvDataAllPT_appUid(const Value&, std::int32_t) override { elsewhere(); }
    bool setOKVDataPT_value_appUid(const Value&, const Value&, std::int32_t) override {
        elsewhere();
    }
    bool setOKVDataPT_value_osUid(const Value&, const Value&, std::int32_t) override {
        elsewhere();
    }
    bool setOKVDataAllPT_appUid(const Value&, std::int32_t) override { elsewhere(); }
    bool setOKVDataAllPT_osUid(const Value&, std::int32_t) override { elsewhere(); }
    bool reloadDataPT() override { elsewhere(); }
    Value filterSettingsDataPT() override { elsewhere(); }
    Value systemConfDataPT() override { elsewhere(); }
    Value cmnSettingsDataPT() override { elsewhere(); }
    bool setAgentAutoRunPT(bool) override { elsewhere(); }
    Value okvUserSettingPT(const Value&) override { elsewhere(); }
    bool setOkvUserSettingPT_value(const Value&, const Value&) override { elsewhere(); }
    Value okvContentsWordsPT(const Value&) override { elsewhere(); }
    bool setOkvContentsWordsPT_value(const Value&, const Value&) override { elsewhere(); }
    Value okvHammerListPT(const Value&) override { elsewhere(); }
    bool setOkvHammerListPT_value(const Value&, const Value&) override { elsewhere(); }
    Value okvBlackExtensionListPT(const Value&) override { elsewhere(); }
    bool setOkvBlackExtensionListPT_value(const Value&, const Value&) override { elsewhere(); }
    Value okvFltProcWhiteListPT() override { elsewhere(); }
    Value okvFltProcBlackListPT() override { elsewhere(); }
    Value okvKillWebProcListPT() override { elsewhere(); }
    std::int32_t defaultUserIdPT() override { elsewhere(); }
    std::int32_t currentUserIdPT() override { elsewhere(); }
    std::int32_t maxUserIdPT() override { elsewhere(); }
    bool setCurrentUserIdPT(const Value&) override { elsewhere(); }
    bool setCurrentUserIdForOSPT(const Value&) override { elsewhere(); }
    std::int32_t userAppuidPT(std::int32_t) override { elsewhere(); }
    void setUseridPT_applyUid(std::int32_t, std::int32_t) override { elsewhere(); }
    std::int32_t delUseridPT(std::int32_t) override { elsewhere(); }
    Value uidListPT() override { elsewhere(); }
    Value useridAppListPT() override { elsewhere(); }
    void useridUpdatePT() override { elsewhere(); }
    bool removeUserInfoPT(const Value&) override { elsewhere(); }
    void removeUserInfoAllPT() override { elsewhere(); }
    Value serverTimePT() override { elsewhere(); }
    void setServerTimePT(const Value&) override { elsewhere(); }
    void startServerTimeTimer() override { elsewhere(); }
    void stopServerTimeTimer() override { elsewhere(); }
};

class AdminElsewhere : public OKVDataAdmin_protocol {
public:
    using Value = okv::Value;
    bool setOKVCommonDataAllPT(const Value&) override { elsewhere(); }
    Value okvDataListPT(const Value&) override { elsewhere(); }
    Value okvDataListPT_appUid(const Value&, std::int32_t) override { elsewhere(); }
    Value okvDataInfoPT(const Value&) override { elsewhere(); }
    Value okvDataInfoPT_appUid(const Value&, std::int32_t) override { elsewhere(); }
    bool lockOKVDataPT(const Value&) override { elsewhere(); }
    bool unlockOKVDataPT(const Value&) override { elsewhere(); }
    Value lockListPT() override { elsewhere(); }
    bool setOkvFltProcWhiteListPT(const Value&) override { elsewhere(); }
    bool setOkvFltProcBlackListPT(const Value&) override { elsewhere(); }
    bool setOkvKillWebProcListPT(const Value&) override { elsewhere(); }
    bool setCurrentUserIdPT_osUid(const Value&, std::int32_t) override { elsewhere(); }
    Value changesPT(const Value&) override { elsewhere(); }
    Value exportDataPT() override { elsewhere(); }
    bool importDataPT(const Value&) override { elsewhere(); }
    Value serverStatusPT() override { elsewhere(); }
};

}  // namespace datacenter
