#pragma once

#include "Clients.h"
#include "Elsewhere.h"
#include "Limits.h"
#include "View.h"

#include <functional>

namespace datacenter {

/// What the reading methods need beside the view; the server fills it.
struct ServerState {
    Clients clients;
    bool ending = false;
    std::function<void()> end = [] {};  ///< asks the server to end, once this request is answered
    std::function<double()> now;
    std::function<okv::Dictionary()> status = [] { return okv::Dictionary(); };
};

/// The methods that are answered from memory, on the thread that reads requests.
class ReadingSide final : public DataElsewhere {
public:
    ReadingSide(const View& view, ServerState& state, Limits limits)
        : view_(view), state_(state), limits_(limits) {}

    bool registerAsClient(okv::RemoteObject& client) override;
    void removeAsClient(okv::RemoteObject& client) override;
    std::int32_t connectCount() override;
    void endServer() override;
    Value okvDataPT(const Value& key) override;
    Value okvDataPT_osUid(const Value& key, std::int32_t osUid) override;
    Value okvDataPT_appUid(const Value& key, std::int32_t appUid) override;
    Value okvDataAllPT(const Value& keys) override;
    Value okvDataAllPT_osUid(const Value& keys, std::int32_t osUid) override;
    Value okvDataAllPT_appUid(const Value& keys, std::int32_t appUid) override;
    Value filterSettingsDataPT() override;
    Value systemConfDataPT() override;
    Value cmnSettingsDataPT() override;
    Value okvUserSettingPT(const Value& user) override;
    Value okvContentsWordsPT(const Value& user) override;
    Value okvHammerListPT(const Value& user) override;
    Value okvBlackExtensionListPT(const Value& user) override;
    Value okvFltProcWhiteListPT() override;
    Value okvFltProcBlackListPT() override;
    Value okvKillWebProcListPT() override;
    std::int32_t defaultUserIdPT() override;
    std::int32_t currentUserIdPT() override;
    std::int32_t maxUserIdPT() override;
    std::int32_t userAppuidPT(std::int32_t osUid) override;
    Value uidListPT() override;
    Value useridAppListPT() override;
    Value serverTimePT() override;

private:
    Value list(const Value& user, UserList list) const;

    const View& view_;
    ServerState& state_;
    const Limits limits_;
};

/// The administration's reads.
class AdminReadingSide final : public AdminElsewhere {
public:
    AdminReadingSide(const View& view, const ServerState& state, Limits limits)
        : view_(view), state_(state), limits_(limits) {}

    Value okvDataListPT(const Value& prefix) override;
    Value okvDataListPT_appUid(const Value& prefix, std::int32_t appUid) override;
    Value okvDataInfoPT(const Value& key) override;
    Value okvDataInfoPT_appUid(const Value& key, std::int32_t appUid) override;
    Value lockListPT() override;
    Value changesPT(const Value& revision) override;
    Value serverStatusPT() override;

private:
    const View& view_;
    const ServerState& state_;
    const Limits limits_;
};

/// A change as `changesPT` and the notices tell it: "revision", "osuserid", "session_userid" and,
/// where they apply, "appuid" and "keys".
okv::Dictionary describe(const Change& change);

}  // namespace datacenter
