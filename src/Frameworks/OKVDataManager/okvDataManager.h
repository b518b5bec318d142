#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/NotificationCenter.h>
#include <OKVPlatform/ipc/Protocol.h>
#include <OKVPlatform/values/AtomicRef.h>
#include <OKVPlatform/values/ForkGuard.h>
#include <OKVPlatform/values/Value.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The name under which the data server vends its root object.
inline constexpr char kOKVDataServerName[] = "jp.nrm.okv6.dataConnection";
/// What a process of the data server is known by: the name and the identifier of its bundle.
inline constexpr char kOKVDataServerBundleName[] = "OKVDataCenter";
inline constexpr char kOKVDataServerBundleIdentifier[] = "jp.nrm.okv6.OKVDataCenter";
/// The distributed notification that tells every process of changed settings.
inline constexpr char kOKVSettingNotification[] = "jp.nrm.okv6.notification";

/// What the data server's root object answers. The data manager sends all of it but the methods
/// marked "never sent by the data manager". Two ways of carrying a user id stand side by
/// side on purpose: the settings by key and `userAppuidPT`, `setUseridPT_applyUid`, `delUseridPT`
/// take a plain int; the per-user lists, `setCurrentUserIdPT`, `setCurrentUserIdForOSPT` and
/// `removeUserInfoPT` a number object. Six names lack the ending PT; they are meant so. No method
/// is one-way.
class OKVDataMng_protocol {
public:
    virtual ~OKVDataMng_protocol() = default;

    // Clients and server control
    /// Counts the connection as a client's, once however often it is sent, and tells it later to
    /// disconnect; NO when the server is ending.
    virtual bool registerAsClient(okv::RemoteObject& client) = 0;
    /// Forgets the client. Never sent by the data manager.
    virtual void removeAsClient(okv::RemoteObject& client) = 0;
    /// How many connections are registered. Never sent by the data manager.
    virtual std::int32_t connectCount() = 0;
    /// Sends `disConnectSrv` to every registered client, then ends the server. Never sent by the
    /// data manager.
    virtual void endServer() = 0;

    // Settings by key
    /// Everybody's value of the key, or the null object.
    virtual okv::Value okvDataPT(const okv::Value& key) = 0;
    /// The value for the account's user, else for the default user. Never sent by the data manager.
    virtual okv::Value okvDataPT_osUid(const okv::Value& key, std::int32_t osUid) = 0;
    /// The value for the user: its own, else everybody's, else the null object.
    virtual okv::Value okvDataPT_appUid(const okv::Value& key, std::int32_t appUid) = 0;
    /// Everybody's values of an array of keys: a dictionary, the null object where there is none;
    /// nil when it is no array of strings. Never sent by the data manager.
    virtual okv::Value okvDataAllPT(const okv::Value& keys) = 0;
    /// The same for the account's user, else for the default user. Never sent by the data manager.
    virtual okv::Value okvDataAllPT_osUid(const okv::Value& keys, std::int32_t osUid) = 0;
    /// The same for the user.
    virtual okv::Value okvDataAllPT_appUid(const okv::Value& keys, std::int32_t appUid) = 0;
    /// Stores the user's value; the null object takes it away. NO when it was not stored.
    virtual bool setOKVDataPT_value_appUid(const okv::Value& key, const okv::Value& value,
                                           std::int32_t appUid) = 0;
    /// The same for the account's user; NO when the account has none.
    virtual bool setOKVDataPT_value_osUid(const okv::Value& key, const okv::Value& value,
                                          std::int32_t osUid) = 0;
    /// Stores a dictionary of keys to values, all or, with NO, none.
    virtual bool setOKVDataAllPT_appUid(const okv::Value& settings, std::int32_t appUid) = 0;
    /// The same for the account's user; NO when the account has none.
    virtual bool setOKVDataAllPT_osUid(const okv::Value& settings, std::int32_t osUid) = 0;
    /// Reads the store again; NO keeps what was read before.
    virtual bool reloadDataPT() = 0;
    /// Everybody's values of all groups but "cmnset" and "syscmnf", key to value. Never sent by the
    /// data manager.
    virtual okv::Value filterSettingsDataPT() = 0;
    /// Everybody's values of the group "syscmnf", key to value. Never sent by the data manager.
    virtual okv::Value systemConfDataPT() = 0;
    /// Everybody's values of the group "cmnset", key to value. Never sent by the data manager.
    virtual okv::Value cmnSettingsDataPT() = 0;
    /// Stores for everybody whether the agent is started by itself.
    virtual bool setAgentAutoRunPT(bool flag) = 0;

    // Per-user lists
    /// The user's own settings as they are stored, as a whole; nil without them. The three below
    /// answer in the same way.
    virtual okv::Value okvUserSettingPT(const okv::Value& user) = 0;
    /// Replaces them; NO for an unknown user. The three below answer in the same way.
    virtual bool setOkvUserSettingPT_value(const okv::Value& user, const okv::Value& list) = 0;
    /// The user's content words.
    virtual okv::Value okvContentsWordsPT(const okv::Value& user) = 0;
    /// Replaces them.
    virtual bool setOkvContentsWordsPT_value(const okv::Value& user, const okv::Value& list) = 0;
    /// The user's list for the process blocker.
    virtual okv::Value okvHammerListPT(const okv::Value& user) = 0;
    /// Replaces it.
    virtual bool setOkvHammerListPT_value(const okv::Value& user, const okv::Value& list) = 0;
    /// The user's blocked extensions.
    virtual okv::Value okvBlackExtensionListPT(const okv::Value& user) = 0;
    /// Replaces them.
    virtual bool setOkvBlackExtensionListPT_value(const okv::Value& user,
                                                  const okv::Value& list) = 0;

    // Filtering process lists
    /// The filter's white list: process names to identifiers.
    virtual okv::Value okvFltProcWhiteListPT() = 0;
    /// The filter's black list, in the same form.
    virtual okv::Value okvFltProcBlackListPT() = 0;
    /// The web processes to kill, in the same form.
    virtual okv::Value okvKillWebProcListPT() = 0;

    // User identities
    /// The default user.
    virtual std::int32_t defaultUserIdPT() = 0;
    /// The user last set for the caller's account, else the account's user, else the one that is
    /// current for all.
    virtual std::int32_t currentUserIdPT() = 0;
    /// The highest id ever given.
    virtual std::int32_t maxUserIdPT() = 0;
    /// Makes the user current for all; NO for an unknown one.
    virtual bool setCurrentUserIdPT(const okv::Value& user) = 0;
    /// Makes the user current for the caller's account, and posts a notice; NO for an unknown one.
    virtual bool setCurrentUserIdForOSPT(const okv::Value& user) = 0;
    /// The account's user, else the default user.
    virtual std::int32_t userAppuidPT(std::int32_t osUid) = 0;
    /// Gives the account the user, made where it is new, and posts a notice. Nothing for ids below
    /// 1 and negative accounts.
    virtual void setUseridPT_applyUid(std::int32_t osUid, std::int32_t appUid) = 0;
    /// Takes the account's user away; answers which it was, or -1.
    virtual std::int32_t delUseridPT(std::int32_t osUid) = 0;
    /// Accounts to users, a dictionary of numbers.
    virtual okv::Value uidListPT() = 0;
    /// The users' ids, ascending.
    virtual okv::Value useridAppListPT() = 0;
    /// Reads users and accounts from the store again. Never sent by the data manager.
    virtual void useridUpdatePT() = 0;
    /// Removes the user with values, lists and assignments; NO for the default user and unknown
    /// ones.
    virtual bool removeUserInfoPT(const okv::Value& user) = 0;
    /// Removes all users but the default one, which is emptied.
    virtual void removeUserInfoAllPT() = 0;

    // Server clock
    /// The server's clock, a date; nil until it was set.
    virtual okv::Value serverTimePT() = 0;
    /// Sets the server's clock to a date.
    virtual void setServerTimePT(const okv::Value& date) = 0;
    /// Has the server's clock run with real time, also over a restart.
    virtual void startServerTimeTimer() = 0;
    /// Has the server's clock stand.
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

/// An object of the client that wants to hear of changed settings, in its run loop. The centre
/// keeps no reference to it: one that goes away is skipped, and withdraws its registrations in its
/// `dealloc`:
///
///     okv::DistributedNotificationCenter::defaultCenter().removeObserver(*this);
class OKV_EXPORT OKVSettingObserver : public okv::Object {
public:
    /// "jp.nrm.okv6.notification" was posted; hand its user information to `updateSessionUserId`.
    virtual void settingChanged(const okv::Notification& notification) = 0;
    /// So many notices, of whatever name, were posted while this process did not run, and cannot be
    /// read any more. Any setting may have changed meanwhile, and the user of this process's
    /// account may have been switched: `setNowSessionUserId(currentUserId())` follows that.
    virtual void settingChangesMissed(std::uint64_t /*count*/) {}
};

/// A process's way to its settings: one shared object that is connected to the data server.
///
///     auto manager = okvDataManager::sharedDataManager();
///     if (!manager) return;  // no data server; the next call tries again
///     okv::Value colour = manager->okvData("dc-gui-colour");
///
/// Life. `sharedDataManager` creates the shared instance at its first call (five tries, half a
/// second of sleep before each), checks it at every later one, reconnects it when its connection
/// has died, and discards it when that fails: the call answers null, and the next creates anew.
/// Every connection registers the data manager as a client, and every one but a direct `connectSrv`
/// seeds the session user with the server's current user. After `disConnectSrv`, which the data
/// server sends too, it stays unconnected until a client sends `connectSrv` itself.
///
/// Without a connection every operation answers its zero value (NO, 0, nil; the service endpoints
/// their defaults), sends nothing, and does not try to connect. A connection that is held but dead
/// throws okv::ConnectionError, as every failed call does. Values that cannot be sent, because they
/// are nested deeper than 64 or make a message of more than 16 MiB, throw std::length_error, and
/// nothing is sent. Nothing is caught here.
///
/// Threads. The two class operations hold one monitor, also while they sleep. Instance operations
/// take no lock and may be called from any thread. `disConnectSrv` of the server is served by the
/// run loop of the thread that connected. In a forked child the inherited connection is dead: the
/// first `sharedDataManager` there discards the inherited instance, whatever other threads of the
/// parent were doing, and the next one makes the child's own.
class OKV_EXPORT okvDataManager final : public okv::Object, public OKVClientMng_protocol {
public:
    // ---- The shared instance ----

    /// The shared data manager, or null when there is no connection to be had.
    static okv::Ref<okvDataManager> sharedDataManager();
    /// The same; the object is handed to a newly created instance and ignored otherwise. It is not
    /// retained.
    static okv::Ref<okvDataManager> sharedDataManagerInit(okv::Object* object);

    // ---- Life and connection ----

    /// Not connected; `init` or `initialize` comes next.
    okvDataManager();
    /// Connects and seeds the session user. Answers this, or null when there is no connection: then
    /// the instance has been released.
    okvDataManager* init();
    /// Stores the object, then as `init`.
    okvDataManager* initialize(okv::Object* object);

    /// Whether the connection is held and alive; NO without one.
    bool isValid() const;
    /// Whether a connection is held, dead or alive.
    bool isConnect() const;
    /// The server's root object while connected, else null.
    okv::Ref<okv::RemoteObject> proxyObj() const;
    /// Connects anew and registers: up to five tries, half a second of sleep before each. Answers
    /// what the server answers to the registration. It does not seed the session user.
    bool connectSrv();
    /// Drops the connection and forbids reconnecting. The data server sends it to its clients, too.
    void disConnectSrv() override;
    /// Connects again where that is permitted and needed. YES as well where it is not permitted: a
    /// data manager that was told to disconnect is still fit for use.
    bool reconnectSrv();
    /// Seeds the session user with the server's current user and permits reconnecting.
    void initData();
    /// Does nothing; a hook that the teardown calls.
    void clearData() {}
    /// Drops the connection if it has died, whichever connection the notice is about.
    void removeInvalidServerConnection(const okv::LocalNotification& notification);

    // ---- User identities: every operation asks the server anew ----

    /// The server's default user.
    std::int32_t defaultUserId() const;
    /// The user that this process's account acts for, as the server has it.
    std::int32_t currentUserId() const;
    /// The highest id that the server ever gave.
    std::int32_t maxUserId() const;
    /// Makes the user current for all accounts; NO where the server does not.
    bool setCurrentUserId(std::int32_t appUid);
    /// Makes the user current for this process's account; NO where the server does not.
    bool setCurrentUserIdForOS(std::int32_t appUid);
    /// Gives the account (first) the application user (second), which is made where it is new.
    void setUserid_applyUid(std::int32_t userId, std::int32_t appUid);
    /// The server's integer as it comes, negative ones included.
    std::int32_t delUserid(std::int32_t userId);
    /// Accounts to application users, as the server gives it; nil without one.
    okv::Value userIdOSList() const;
    /// The application users; nil, not an empty array, when the server gives none.
    okv::Value userIdList() const;
    /// Removes all users but the default one, which is emptied.
    void removeUserInfoAll();
    /// Removes the user with all that is stored for it; NO for the default user and unknown ones.
    bool removeUserInfo(std::int32_t appUid);
    /// Whether the id is among the application users.
    bool isUserId(std::int32_t appUid) const;
    /// Despite its name no yes or no: the application user of this process's real uid, or -1.
    std::int32_t isAppUserIdWithOSId() const;

    // ---- Session user and server clock ----

    /// Stores the id unchecked.
    void setNowSessionUserId(std::int32_t appUid);
    /// The session user as it stands; nothing is asked.
    std::int32_t nowSessionUserId() const;
    /// Makes the server's default user the session user when the id is no known user; answers
    /// whether it did. The id is only tested, never stored.
    bool updateNowSessionUserId(std::int32_t appUid);
    /// Applies a switch of user from a notice's user information ("osuserid", "session_userid"; a
    /// missing entry reads as 0) when it concerns this process's real uid. Anything but a
    /// dictionary is ignored.
    void updateSessionUserId(const okv::Value& userInformation);
    /// Sets the server's clock. Whatever the value is, nil included, is sent.
    void setServerTime(const okv::Value& date);
    /// The server's clock, or the local one where the server has no answer.
    okv::Date serverTime() const;
    /// Has the server's clock run with real time.
    void startServerTimeTimer();
    /// Has the server's clock stand.
    void stopServerTimeTimer();

    // ---- Settings. Reads for the session user make sure that it still exists; writes take it as
    // it stands ----

    /// Has the observer's `settingChanged` called for the notices of this sender (nil: of any), by
    /// the run loop of the calling thread. No record is kept here, and nothing here undoes it.
    void registerAsSettingNotifi_object(OKVSettingObserver& observer,
                                        const okv::Value& object = {});
    /// Has the server read its store again; NO when it could not.
    bool reloadOKVData();
    /// The account's application user, else the default user.
    std::int32_t userAppuid(std::int32_t osUid) const;
    /// The null object for an empty key, else what the server answers, nil included.
    okv::Value okvData(std::string_view key);
    /// Nil (not the null object: intended) for no keys, else what the server answers.
    okv::Value okvDataAll(const okv::Value& keys);
    /// NO when the key or the value is missing (nil); an empty key and the null object are sent.
    bool setOKVData_value(std::optional<std::string_view> key, const okv::Value& value);
    /// The same for this user.
    bool setOKVData_value_appUid(std::optional<std::string_view> key, const okv::Value& value,
                                 std::int32_t appUid);
    /// The same for this account's user.
    bool setOKVData_value_osUid(std::optional<std::string_view> key, const okv::Value& value,
                                std::int32_t osUid);
    /// NO when the settings are missing (nil); an empty collection is sent.
    bool setOKVDataAll(const okv::Value& settings);
    /// The same for this user.
    bool setOKVDataAll_appUid(const okv::Value& settings, std::int32_t appUid);
    /// The same for this account's user.
    bool setOKVDataAll_osUid(const okv::Value& settings, std::int32_t osUid);
    /// Stores whether the agent is started by itself; NO when the server did not.
    bool setAgentRun(bool flag);
    /// The boolean reading of "dc-cmnset-common_filter_off"; NO without a value or with the null
    /// object.
    bool isFilterOff();

    // ---- Per-user lists: for the session user, for the account of the effective uid, for any
    // user. What is in them is carried, and neither read nor checked here ----

    /// What is stored as the session user's own settings, as a whole, after making sure of the
    /// user; nil without it.
    okv::Value okvCurrentUserSetting();
    /// The same for the user of the account of the effective uid.
    okv::Value okvCurrentUserSetting2OSUid() const;
    /// The same for this user.
    okv::Value okvUserSetting(std::int32_t appUid) const;
    /// Replaces it; NO for nil, which is not sent, and where the server does not.
    bool setOkvUserSetting_value(std::int32_t appUid, const okv::Value& value);
    /// The session user's content words, as `okvCurrentUserSetting`.
    okv::Value okvCurrentContentsWords();
    /// The same for the user of the account of the effective uid.
    okv::Value okvCurrentContentsWords2OSUid() const;
    /// The same for this user.
    okv::Value okvContentsWords(std::int32_t appUid) const;
    /// Replaces it; NO for nil, which is not sent, and where the server does not.
    bool setOkvContentsWords_value(std::int32_t appUid, const okv::Value& value);
    /// The session user's list for the process blocker, as `okvCurrentUserSetting`.
    okv::Value okvCurrentHammerList();
    /// The same for the user of the account of the effective uid.
    okv::Value okvCurrentHammerList2OSUid() const;
    /// The same for this user.
    okv::Value okvHammerList(std::int32_t appUid) const;
    /// Replaces it; NO for nil, which is not sent, and where the server does not.
    bool setOkvHammerList_value(std::int32_t appUid, const okv::Value& value);
    /// The session user's blocked extensions, as `okvCurrentUserSetting`.
    okv::Value okvCurrentBlackExtensionList();
    /// The same for the user of the account of the effective uid.
    okv::Value okvCurrentBlackExtensionList2OSUid() const;
    /// The same for this user.
    okv::Value okvBlackExtensionList(std::int32_t appUid) const;
    /// Replaces it; NO for nil, which is not sent, and where the server does not.
    bool setOkvBlackExtensionList_value(std::int32_t appUid, const okv::Value& value);

    // ---- Process lists: the values of the server's dictionary; empty for any other answer ----

    /// The identifiers of the web processes to kill.
    okv::Array okvKillWebProcList() const;
    /// The identifiers of the filter's black list.
    okv::Array okvFltProcBlackList() const;
    /// The identifiers of the filter's white list.
    okv::Array okvFltProcWhiteList() const;
    /// The compiled-in names of processes to block; it needs neither an instance nor a server.
    static okv::Array systemBlackProcs();
    /// The compiled-in names of those that must never be blocked; as above.
    static okv::Array systemWhiteProcs();

    // ---- Service endpoints: read anew at every call, with a fixed default where nothing is stored
    // ----

    /// The key for the ARS server; "" where none is stored.
    std::string arsEncodekey() const;
    /// The ARS server's name, else the one built in.
    std::string arsServHost() const;
    /// The ARS server's port, else 80.
    std::int32_t arsServPort() const;
    /// The port of the ARS log server, else 20083.
    std::int32_t arsLogServPort() const;
    /// The setting server's name, else the one built in.
    std::string settingServHost() const;
    /// The setting server's port, else 443.
    std::int32_t settingServPort() const;
    /// A stored address; not to be confused with `forgotPasswdUrl`, which is built.
    std::string passwdForgotUrl() const;
    /// What is stored under "dc-syscmnf-pg_update_server_url", an address; "" without it.
    std::string pgUpdateServUrl() const;
    /// What is stored under "dc-syscmnf-fd_update_server_url", an address; "" without it.
    std::string fdUpdateServUrl() const;
    /// "https" for the ports 443 and 21079, else "http".
    std::string checkHTTPProtocol(std::int32_t port) const;
    /// Whether the host of the address begins with the setting server's name. A prefix is enough:
    /// intended.
    bool isOKVServer(std::string_view url) const;
    /// Scheme, host and port of the setting server; the port is always written.
    std::string settingBaseUrl() const;
    /// `settingBaseUrl` with "/kv6/login".
    std::string loginTopUrl() const;
    /// `settingBaseUrl` with "/kv6/forgot".
    std::string forgotPasswdUrl() const;
    /// `settingBaseUrl` with "/kv6/cancel_url/request".
    std::string bpCancelUrl() const;

    // ---- Presence of the data server ----

    /// Whether a data server process was found among the applications, during this call. It starts
    /// none, whatever its log lines say.
    bool checkServer();
    /// YES; it starts nothing.
    bool startSrv();
    /// Ends this client's link to the data server, as `disConnectSrv` does, and answers YES; the
    /// server itself goes on.
    bool stopSrv();

protected:
    void dealloc() override;

private:
    friend struct okvDataManagerInspector;  // the tests' view of the fields

    static void freeInChild(void* self);
    okv::Ref<okv::Connection> lookUpServer();
    bool registerWith(okv::RemoteObject& proxy);
    std::int32_t refreshedSessionUser();
    std::int32_t accountUser() const;
    struct Endpoint;
    std::string textAt(const Endpoint& endpoint) const;
    std::int32_t portAt(const Endpoint& endpoint) const;
    template <auto Read>
    okv::Value listOf(std::int32_t appUid) const;
    template <auto Replace>
    bool replaceList(std::int32_t appUid, const okv::Value& value);
    template <auto Method, class... Arguments>
    auto forward(const Arguments&... arguments) const;
    template <auto Method>
    okv::Array valuesOf() const;

    okv::Ref<okv::Connection>
        _connectOKVService;                       // a second slot that nothing in this library sets
    okv::AtomicRef<okv::Connection> _connectSrv;  // set before the proxy and cleared after it
    okv::AtomicRef<okv::RemoteObject> _proxySrv;  // holds its connection itself
    std::atomic<bool> _bSrvFlg{false};
    std::atomic<bool> _bReconFlg{false};
    std::atomic<std::int32_t> _nowSessionAppUid{0};
    okv::Object* _myObj = nullptr;  // kept for the client, read by nothing here, not retained
    okv::ForkGuard _forkGuard{this, {nullptr, nullptr, &freeInChild}};
};
