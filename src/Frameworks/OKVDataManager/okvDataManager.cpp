#include <OKVDataManager/okvDataManager.h>

#include <OKVDataManager/Endpoints.h>
#include <OKVDataManager/okvCmnUtil.h>
#include <OKVDataManager/okvCmnUtilSeams.h>
#include <OKVDataManager/okvSystemProcList.h>
#include <OKVLog/OKVLog.h>
#include <OKVPlatform/system/NSLog.h>
#include <OKVPlatform/values/Lasting.h>

#include <uriparser/Uri.h>

#include <unistd.h>

#include <forward_list>
#include <mutex>

namespace {

constexpr int kConnectTries = 5;
constexpr useconds_t kConnectSleepMicroseconds = 500000;
constexpr int kSwitchLogLevel = 30;
constexpr int kPresenceLogLevel = 10;
constexpr char kFilterOffKey[] = "dc-cmnset-common_filter_off";

// The monitor of the class: it may be entered again by the thread that holds it. It is held for
// seconds while somebody connects, and a fork does not wait for that: the child gets a new one.
struct Monitor {
    static void renew(void* self) { static_cast<Monitor*>(self)->mutexes.emplace_front(); }

    std::forward_list<std::recursive_mutex> mutexes{1};  // behind the first: the parents'
    okv::ForkGuard guard{this, {nullptr, nullptr, &renew}};
};

std::recursive_mutex& classMonitor() {
    static constinit okv::OnDemand<Monitor> monitor;
    return monitor.get().mutexes.front();
}

// Belongs to its class and is not destroyed at process exit.
constinit okv::Lasting<okv::Ref<okvDataManager>> sharedInstance;

// Clears the field where what it holds came from this connection; none of another's.
void dropProxyOf(const okv::Connection& connection, okv::AtomicRef<okv::RemoteObject>& field) {
    const auto proxy = field.load();
    if (proxy && &proxy->port() == &connection) field.clearIf(proxy.get());
}

template <class Create>
okv::Ref<okvDataManager> sharedOrCreated(Create create) {
    const std::lock_guard lock(classMonitor());
    auto& shared = *sharedInstance;
    if (!shared) {
        shared = okv::Ref<okvDataManager>::adopting(create());
    } else if (!(shared->isConnect() ? shared->isValid() : shared->reconnectSrv())) {
        // Not created anew in the same call: that is the next caller's.
        shared = nullptr;
    }
    return shared;
}

}  // namespace

// The one place where a message meets a missing proxy: it then answers the zero value of its
// result.
template <auto Method, class... Arguments>
auto okvDataManager::forward(const Arguments&... arguments) const {
    using Result = decltype(okv::send<Method>(std::declval<okv::RemoteObject&>(), arguments...));
    const auto proxy = _proxySrv.load();
    return proxy ? okv::send<Method>(*proxy, arguments...) : Result();
}

// ---- The shared instance ----

okv::Ref<okvDataManager> okvDataManager::sharedDataManager() {
    return sharedOrCreated([] { return (new okvDataManager)->init(); });
}

okv::Ref<okvDataManager> okvDataManager::sharedDataManagerInit(okv::Object* object) {
    return sharedOrCreated([object] { return (new okvDataManager)->initialize(object); });
}

// ---- Life and connection ----

okvDataManager::okvDataManager() = default;

void okvDataManager::freeInChild(void* self) {
    auto& manager = *static_cast<okvDataManager*>(self);
    manager._proxySrv.freeInChild();
    manager._connectSrv.freeInChild();
}

okvDataManager* okvDataManager::init() {
    auto self = okv::Ref<okvDataManager>::adopting(
        this);  // released on failure and on the way of an exception
    if (!connectSrv()) return nullptr;
    initData();
    return self.leak();
}

okvDataManager* okvDataManager::initialize(okv::Object* object) {
    _myObj = object;
    return init();
}

void okvDataManager::dealloc() {
    okv::ExportedObjects::withdraw(*this);
    okv::NotificationCenter::defaultCenter().removeObserver(*this,
                                                            okv::NSConnectionDidDieNotification);
    if (_proxySrv) disConnectSrv();
    _connectOKVService = nullptr;
    clearData();
}

bool okvDataManager::isValid() const {
    const auto connection = _connectSrv.load();
    return connection && connection->isValid();
}

bool okvDataManager::isConnect() const {
    return static_cast<bool>(_connectSrv);
}

okv::Ref<okv::RemoteObject> okvDataManager::proxyObj() const {
    return isConnect() ? _proxySrv.load() : nullptr;
}

okv::Ref<okv::Connection> okvDataManager::lookUpServer() {
    for (int count = 1; count <= kConnectTries; ++count) {
        usleep(kConnectSleepMicroseconds);  // before the first try, too
        if (const auto connection =
                okv::Connection::connectionWithRegisteredName(kOKVDataServerName)) {
            // A proxy never outlives the connection that it came from, also where the new one
            // fails.
            _proxySrv.store(nullptr);
            _connectSrv.store(connection);
            okv::NSLog("-> connect is ok!");
            return connection;
        }
        _proxySrv.store(nullptr);
        _connectSrv.store(nullptr);
        okv::NSLog("-> retry connection... [%d]", count);
    }
    return nullptr;
}

bool okvDataManager::connectSrv() {
    okv::NSLog("DataFW: connectSrv.");
    _bReconFlg.store(true, std::memory_order_relaxed);
    const auto connection = lookUpServer();
    if (!connection) {
        okv::NSLog("DataSrv is connect fail. (connection fail...)");
        return false;
    }
    const auto proxy = connection->rootProxy();
    _proxySrv.store(proxy);
    // Another thread may have told this one to disconnect meanwhile.
    if (proxy && _connectSrv.load() != connection) _proxySrv.clearIf(proxy.get());
    return proxy && registerWith(*proxy);
}

// The protocol's types are known at compile time: nothing needs to be declared to the proxy before.
bool okvDataManager::registerWith(okv::RemoteObject& proxy) {
    const bool registered = okv::send<&OKVDataMng_protocol::registerAsClient>(
        proxy, okv::lend<OKVClientMng_protocol>(*this));
    // Whatever the answer was, and once more for every connection: the handler does no harm when it
    // is called again.
    okv::NotificationCenter::defaultCenter().addObserver(
        *this, &okvDataManager::removeInvalidServerConnection, okv::NSConnectionDidDieNotification);
    return registered;
}

void okvDataManager::disConnectSrv() {
    okv::NSLog("DataFW: disConnectSrv. ");  // the trailing blank belongs to the line
    _bReconFlg.store(false, std::memory_order_relaxed);
    if (!_connectSrv) return;
    // Released, not invalidated; the observer of its death stays, too.
    _proxySrv.store(nullptr);
    const auto released = _connectSrv.exchange(nullptr);
    // Another thread may have been connecting, and have set its proxy in between.
    if (released) dropProxyOf(*released, _proxySrv);
}

bool okvDataManager::reconnectSrv() {
    okv::NSLog("DataFW: reconnectSrv.");
    if (isConnect()) return true;
    if (!_bReconFlg.load(std::memory_order_relaxed))
        return true;  // told to disconnect, and still fit for use
    if (!connectSrv()) return false;
    initData();
    return true;
}

void okvDataManager::initData() {
    setNowSessionUserId(currentUserId());
    _bReconFlg.store(true, std::memory_order_relaxed);
}

void okvDataManager::removeInvalidServerConnection(const okv::LocalNotification&) {
    const auto connection = _connectSrv.load();
    if (!connection || connection->isValid()) return;
    // Another thread may have connected anew meanwhile: only what was found dead is cleared.
    dropProxyOf(*connection, _proxySrv);
    _connectSrv.clearIf(connection.get());
}

// ---- User identities ----

std::int32_t okvDataManager::defaultUserId() const {
    return forward<&OKVDataMng_protocol::defaultUserIdPT>();
}
std::int32_t okvDataManager::currentUserId() const {
    return forward<&OKVDataMng_protocol::currentUserIdPT>();
}
std::int32_t okvDataManager::maxUserId() const {
    return forward<&OKVDataMng_protocol::maxUserIdPT>();
}

bool okvDataManager::setCurrentUserId(std::int32_t appUid) {
    return forward<&OKVDataMng_protocol::setCurrentUserIdPT>(okv::Value(appUid));
}

bool okvDataManager::setCurrentUserIdForOS(std::int32_t appUid) {
    return forward<&OKVDataMng_protocol::setCurrentUserIdForOSPT>(okv::Value(appUid));
}

void okvDataManager::setUserid_applyUid(std::int32_t userId, std::int32_t appUid) {
    forward<&OKVDataMng_protocol::setUseridPT_applyUid>(userId, appUid);
}

std::int32_t okvDataManager::delUserid(std::int32_t userId) {
    return forward<&OKVDataMng_protocol::delUseridPT>(userId);
}

okv::Value okvDataManager::userIdOSList() const {
    return forward<&OKVDataMng_protocol::uidListPT>();
}

okv::Value okvDataManager::userIdList() const {
    auto list = forward<&OKVDataMng_protocol::useridAppListPT>();
    return list.is<okv::Array>() ? std::move(list) : okv::Value();  // made for this call: no copy
}

void okvDataManager::removeUserInfoAll() {
    forward<&OKVDataMng_protocol::removeUserInfoAllPT>();
}

bool okvDataManager::removeUserInfo(std::int32_t appUid) {
    return forward<&OKVDataMng_protocol::removeUserInfoPT>(okv::Value(appUid));
}

bool okvDataManager::isUserId(std::int32_t appUid) const {
    const auto list = userIdList();
    const auto* users = list.getIf<okv::Array>();
    if (users == nullptr) return false;
    for (const auto& user : *users) {
        if (user.intValue() == appUid) return true;
    }
    return false;
}

std::int32_t okvDataManager::isAppUserIdWithOSId() const {
    const auto list = userIdOSList();
    const auto* accounts = list.getIf<okv::Dictionary>();
    if (accounts == nullptr) return -1;
    for (const auto& [account, user] : *accounts) {
        // Only the low 32 bits count, and the real uid, not the effective one: both intended.
        if (static_cast<std::uint32_t>(account.longLongValue()) == getuid()) return user.intValue();
    }
    return -1;
}

// ---- Session user and server clock ----

void okvDataManager::setNowSessionUserId(std::int32_t appUid) {
    _nowSessionAppUid.store(appUid, std::memory_order_relaxed);
}

std::int32_t okvDataManager::nowSessionUserId() const {
    return _nowSessionAppUid.load(std::memory_order_relaxed);
}

bool okvDataManager::updateNowSessionUserId(std::int32_t appUid) {
    if (isUserId(appUid)) return false;
    setNowSessionUserId(defaultUserId());
    return true;
}

void okvDataManager::updateSessionUserId(const okv::Value& userInformation) {
    const auto* information = userInformation.getIf<okv::Dictionary>();
    if (information == nullptr) return;
    // An account's uid may stand beyond 31 bits: only its low 32 are compared, as everywhere.
    const auto osUid = static_cast<std::int32_t>((*information)["osuserid"].longLongValue());
    const auto sessionUserId = (*information)["session_userid"].intValue();
    OKVSystemLog(kSwitchLogLevel, "->userSwitch! osUid:%d, sessionUserId:%d", osUid, sessionUserId);
    if (static_cast<uid_t>(osUid) == getuid()) setNowSessionUserId(sessionUserId);
}

void okvDataManager::setServerTime(const okv::Value& date) {
    forward<&OKVDataMng_protocol::setServerTimePT>(date);
}

okv::Date okvDataManager::serverTime() const {
    if (isConnect()) {
        const auto answer = forward<&OKVDataMng_protocol::serverTimePT>();
        if (const auto* date = answer.getIf<okv::Date>()) return *date;
    }
    return okv::Date::now();
}

void okvDataManager::startServerTimeTimer() {
    forward<&OKVDataMng_protocol::startServerTimeTimer>();
}
void okvDataManager::stopServerTimeTimer() {
    forward<&OKVDataMng_protocol::stopServerTimeTimer>();
}

// ---- Settings ----

// Before every read for the session user: a user that was removed at the server is not used any
// more.
std::int32_t okvDataManager::refreshedSessionUser() {
    updateNowSessionUserId(nowSessionUserId());
    return nowSessionUserId();
}

void okvDataManager::registerAsSettingNotifi_object(OKVSettingObserver& observer,
                                                    const okv::Value& object) {
    okv::DistributedNotificationCenter::defaultCenter().addObserver(
        observer, &OKVSettingObserver::settingChanged, kOKVSettingNotification, object,
        &OKVSettingObserver::settingChangesMissed);
}

bool okvDataManager::reloadOKVData() {
    return forward<&OKVDataMng_protocol::reloadDataPT>();
}

std::int32_t okvDataManager::userAppuid(std::int32_t osUid) const {
    return forward<&OKVDataMng_protocol::userAppuidPT>(osUid);
}

okv::Value okvDataManager::okvData(std::string_view key) {
    if (key.empty()) return okv::Null{};
    const auto user = refreshedSessionUser();
    return forward<&OKVDataMng_protocol::okvDataPT_appUid>(key, user);
}

okv::Value okvDataManager::okvDataAll(const okv::Value& keys) {
    const auto* array = keys.getIf<okv::Array>();
    if (array == nullptr || array->empty())
        return {};  // nil, where the single read answers the null object: intended
    const auto user = refreshedSessionUser();
    return forward<&OKVDataMng_protocol::okvDataAllPT_appUid>(keys, user);
}

bool okvDataManager::setOKVData_value(std::optional<std::string_view> key,
                                      const okv::Value& value) {
    return setOKVData_value_appUid(key, value,
                                   nowSessionUserId());  // as it stands: writes do not refresh it
}

bool okvDataManager::setOKVData_value_appUid(std::optional<std::string_view> key,
                                             const okv::Value& value, std::int32_t appUid) {
    if (!key || value.isNil()) return false;
    return forward<&OKVDataMng_protocol::setOKVDataPT_value_appUid>(*key, value, appUid);
}

bool okvDataManager::setOKVData_value_osUid(std::optional<std::string_view> key,
                                            const okv::Value& value, std::int32_t osUid) {
    if (!key || value.isNil()) return false;
    return forward<&OKVDataMng_protocol::setOKVDataPT_value_osUid>(*key, value, osUid);
}

bool okvDataManager::setOKVDataAll(const okv::Value& settings) {
    return setOKVDataAll_appUid(settings, nowSessionUserId());
}

bool okvDataManager::setOKVDataAll_appUid(const okv::Value& settings, std::int32_t appUid) {
    return !settings.isNil() &&
           forward<&OKVDataMng_protocol::setOKVDataAllPT_appUid>(settings, appUid);
}

bool okvDataManager::setOKVDataAll_osUid(const okv::Value& settings, std::int32_t osUid) {
    return !settings.isNil() &&
           forward<&OKVDataMng_protocol::setOKVDataAllPT_osUid>(settings, osUid);
}

bool okvDataManager::setAgentRun(bool flag) {
    return forward<&OKVDataMng_protocol::setAgentAutoRunPT>(flag);
}

bool okvDataManager::isFilterOff() {
    return okvData(kFilterOffKey).boolValue();
}

// ---- Per-user lists ----

// By the effective uid, where the account table above is searched by the real one: intended.
std::int32_t okvDataManager::accountUser() const {
    return userAppuid(static_cast<std::int32_t>(geteuid()));
}

template <auto Read>
okv::Value okvDataManager::listOf(std::int32_t appUid) const {
    return forward<Read>(okv::Value(appUid));
}

template <auto Replace>
bool okvDataManager::replaceList(std::int32_t appUid, const okv::Value& value) {
    return !value.isNil() && forward<Replace>(okv::Value(appUid), value);
}

okv::Value okvDataManager::okvCurrentUserSetting() {
    return okvUserSetting(refreshedSessionUser());
}
okv::Value okvDataManager::okvCurrentUserSetting2OSUid() const {
    return okvUserSetting(accountUser());
}
okv::Value okvDataManager::okvUserSetting(std::int32_t appUid) const {
    return listOf<&OKVDataMng_protocol::okvUserSettingPT>(appUid);
}
bool okvDataManager::setOkvUserSetting_value(std::int32_t appUid, const okv::Value& value) {
    return replaceList<&OKVDataMng_protocol::setOkvUserSettingPT_value>(appUid, value);
}

okv::Value okvDataManager::okvCurrentContentsWords() {
    return okvContentsWords(refreshedSessionUser());
}
okv::Value okvDataManager::okvCurrentContentsWords2OSUid() const {
    return okvContentsWords(accountUser());
}
okv::Value okvDataManager::okvContentsWords(std::int32_t appUid) const {
    return listOf<&OKVDataMng_protocol::okvContentsWordsPT>(appUid);
}
bool okvDataManager::setOkvContentsWords_value(std::int32_t appUid, const okv::Value& value) {
    return replaceList<&OKVDataMng_protocol::setOkvContentsWordsPT_value>(appUid, value);
}

okv::Value okvDataManager::okvCurrentHammerList() {
    return okvHammerList(refreshedSessionUser());
}
okv::Value okvDataManager::okvCurrentHammerList2OSUid() const {
    return okvHammerList(accountUser());
}
okv::Value okvDataManager::okvHammerList(std::int32_t appUid) const {
    return listOf<&OKVDataMng_protocol::okvHammerListPT>(appUid);
}
bool okvDataManager::setOkvHammerList_value(std::int32_t appUid, const okv::Value& value) {
    return replaceList<&OKVDataMng_protocol::setOkvHammerListPT_value>(appUid, value);
}

okv::Value okvDataManager::okvCurrentBlackExtensionList() {
    return okvBlackExtensionList(refreshedSessionUser());
}
okv::Value okvDataManager::okvCurrentBlackExtensionList2OSUid() const {
    return okvBlackExtensionList(accountUser());
}
okv::Value okvDataManager::okvBlackExtensionList(std::int32_t appUid) const {
    return listOf<&OKVDataMng_protocol::okvBlackExtensionListPT>(appUid);
}
bool okvDataManager::setOkvBlackExtensionList_value(std::int32_t appUid, const okv::Value& value) {
    return replaceList<&OKVDataMng_protocol::setOkvBlackExtensionListPT_value>(appUid, value);
}

// ---- Process lists ----

template <auto Method>
okv::Array okvDataManager::valuesOf() const {
    const auto answer = forward<Method>();
    okv::Array values;
    if (const auto* dictionary = answer.template getIf<okv::Dictionary>()) {
        for (const auto& entry : *dictionary) values.push_back(entry.value);
    }
    return values;
}

okv::Array okvDataManager::okvKillWebProcList() const {
    return valuesOf<&OKVDataMng_protocol::okvKillWebProcListPT>();
}
okv::Array okvDataManager::okvFltProcBlackList() const {
    return valuesOf<&OKVDataMng_protocol::okvFltProcBlackListPT>();
}
okv::Array okvDataManager::okvFltProcWhiteList() const {
    return valuesOf<&OKVDataMng_protocol::okvFltProcWhiteListPT>();
}
okv::Array okvDataManager::systemBlackProcs() {
    return okvSystemProcList::sysBlockProcBlackLists();
}
okv::Array okvDataManager::systemWhiteProcs() {
    return okvSystemProcList::sysBlockProcWhiteLists();
}

// ---- Service endpoints ----

struct okvDataManager::Endpoint : okv::ServiceEndpoint {};

namespace {

std::optional<std::string> hostOf(std::string_view url) {
    UriUriA uri;
    if (uriParseSingleUriExA(&uri, url.data(), url.data() + url.size(), nullptr) != URI_SUCCESS)
        return std::nullopt;
    std::optional<std::string> host;
    if (uri.hostText.first != nullptr) host.emplace(uri.hostText.first, uri.hostText.afterLast);
    uriFreeUriMembersA(&uri);
    return host;
}

}  // namespace

std::string okvDataManager::textAt(const Endpoint& endpoint) const {
    return okv::textOf(endpoint, forward<&OKVDataMng_protocol::okvDataPT>(endpoint.key));
}

std::int32_t okvDataManager::portAt(const Endpoint& endpoint) const {
    return okv::portOf(endpoint, forward<&OKVDataMng_protocol::okvDataPT>(endpoint.key));
}

std::string okvDataManager::arsEncodekey() const {
    return textAt({okv::kArsEncodekey});
}
std::string okvDataManager::arsServHost() const {
    return textAt({okv::kArsServHost});
}
std::int32_t okvDataManager::arsServPort() const {
    return portAt({okv::kArsServPort});
}
std::int32_t okvDataManager::arsLogServPort() const {
    return portAt({okv::kArsLogServPort});
}
std::string okvDataManager::settingServHost() const {
    return textAt({okv::kSettingServHost});
}
std::int32_t okvDataManager::settingServPort() const {
    return portAt({okv::kSettingServPort});
}
std::string okvDataManager::passwdForgotUrl() const {
    return textAt({okv::kPasswdForgotUrl});
}
std::string okvDataManager::pgUpdateServUrl() const {
    return textAt({okv::kPgUpdateServUrl});
}
std::string okvDataManager::fdUpdateServUrl() const {
    return textAt({okv::kFdUpdateServUrl});
}

std::string okvDataManager::checkHTTPProtocol(std::int32_t port) const {
    return okv::schemeOfPort(port);
}

bool okvDataManager::isOKVServer(std::string_view url) const {
    const auto host = hostOf(url);
    if (!host) return false;
    const auto prefix = settingServHost();
    return !prefix.empty() && host->starts_with(prefix);  // an empty text is the prefix of none
}

std::string okvDataManager::settingBaseUrl() const {
    const auto port = settingServPort();
    return okv::settingBase(settingServHost(), port);
}

std::string okvDataManager::loginTopUrl() const {
    return settingBaseUrl() + okv::kLoginTop.path;
}
std::string okvDataManager::forgotPasswdUrl() const {
    return settingBaseUrl() + okv::kForgotPasswd.path;
}
std::string okvDataManager::bpCancelUrl() const {
    return settingBaseUrl() + okv::kBpCancel.path;
}

// ---- Presence of the data server ----

bool okvDataManager::checkServer() {
    OKVSystemLog(kPresenceLogLevel, "call check DataServer().");
    _bSrvFlg.store(false, std::memory_order_relaxed);
    bool result = false;
    const auto processes = okvCmnUtil::processList();
    for (std::size_t i = 0; i < processes.size() && !result; ++i) {
        if (!okvCmnUtilSeams::isApplication(processes[i], kOKVDataServerBundleName,
                                            kOKVDataServerBundleIdentifier))
            continue;
        OKVSystemLog(kPresenceLogLevel, "->already is server process!");
        _bSrvFlg.store(true, std::memory_order_relaxed);
        result = true;
    }
    if (!_bSrvFlg.load(std::memory_order_relaxed)) {
        // Word for word, although nothing is launched here: those who read the logs look for these
        // lines.
        OKVSystemLog(kPresenceLogLevel, "-> can not stated DataCenter. launch server..");
        OKVSystemLog(kPresenceLogLevel, "->bRet:%d", result ? 1 : 0);
    }
    return result;
}

bool okvDataManager::startSrv() {
    OKVSystemLog(kPresenceLogLevel, "call start DataSrv().");
    return true;
}

bool okvDataManager::stopSrv() {
    OKVSystemLog(kPresenceLogLevel, "call stop DataSrv().");
    disConnectSrv();
    OKVSystemLog(kPresenceLogLevel, "->end Data Server...");
    return true;
}
