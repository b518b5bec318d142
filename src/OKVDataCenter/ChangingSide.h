#pragma once

#include "Elsewhere.h"
#include "Ledger.h"

namespace datacenter {

/// The methods that change the store, on the writer's thread. Each checks, carries its steps out
/// through the ledger, and answers; whether it comes to be is decided by the commit.
class ChangingSide final : public DataElsewhere {
public:
    explicit ChangingSide(Ledger& ledger) : ledger_(ledger) {}

    bool setOKVDataPT_value_appUid(const Value& key, const Value& value,
                                   std::int32_t appUid) override;
    bool setOKVDataPT_value_osUid(const Value& key, const Value& value,
                                  std::int32_t osUid) override;
    bool setOKVDataAllPT_appUid(const Value& settings, std::int32_t appUid) override;
    bool setOKVDataAllPT_osUid(const Value& settings, std::int32_t osUid) override;
    bool reloadDataPT() override;
    bool setAgentAutoRunPT(bool flag) override;
    bool setOkvUserSettingPT_value(const Value& user, const Value& list) override;
    bool setOkvContentsWordsPT_value(const Value& user, const Value& list) override;
    bool setOkvHammerListPT_value(const Value& user, const Value& list) override;
    bool setOkvBlackExtensionListPT_value(const Value& user, const Value& list) override;
    bool setCurrentUserIdPT(const Value& user) override;
    bool setCurrentUserIdForOSPT(const Value& user) override;
    void setUseridPT_applyUid(std::int32_t osUid, std::int32_t appUid) override;
    std::int32_t delUseridPT(std::int32_t osUid) override;
    void useridUpdatePT() override;
    bool removeUserInfoPT(const Value& user) override;
    void removeUserInfoAllPT() override;
    void setServerTimePT(const Value& date) override;
    void startServerTimeTimer() override;
    void stopServerTimeTimer() override;

private:
    std::int32_t assignedUser(std::int32_t osUid) const;
    bool setSettings(const Value& given, std::int32_t appUid);
    bool setWithinRoom(const Value& key, const Value& value, std::int32_t appUid);
    bool setOne(const Value& key, const Value& value, std::int32_t appUid);
    bool mayWrite(const std::string& key, std::int32_t appUid);
    bool setList(const Value& user, UserList list, const Value& value);
    bool assign(std::int32_t osUid, std::int32_t appUid);
    void setClock(const Clock& clock);
    void runClock(bool running);

    Ledger& ledger_;
};

/// The administration's changes, and the export, which reads the store beside the reads.
class AdminChangingSide final : public AdminElsewhere {
public:
    explicit AdminChangingSide(Ledger& ledger) : ledger_(ledger) {}

    bool setOKVCommonDataAllPT(const Value& settings) override;
    bool lockOKVDataPT(const Value& keys) override;
    bool unlockOKVDataPT(const Value& keys) override;
    bool setOkvFltProcWhiteListPT(const Value& processes) override;
    bool setOkvFltProcBlackListPT(const Value& processes) override;
    bool setOkvKillWebProcListPT(const Value& processes) override;
    bool setCurrentUserIdPT_osUid(const Value& user, std::int32_t osUid) override;
    Value exportDataPT() override;
    bool importDataPT(const Value& store) override;

private:
    bool setCommon(const Value& given);
    bool setLocks(const Value& keys, bool locked);
    bool setProcesses(ProcessList list, const Value& processes);
    bool setProcess(ProcessList list, const Value& name, const Value& identifier,
                    std::vector<step::Process>& steps);
    void tellProcesses(ProcessList list, std::vector<step::Process> steps);
    Value exported();

    Ledger& ledger_;
};

}  // namespace datacenter
