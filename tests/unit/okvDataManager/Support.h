#pragma once

#include "support/ForkedChild.h"
#include "support/Serving.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVLog/OKVLog.h>
#include <OKVPlatform/system/NSLog.h>

#include <OKVTesting/FakeDataServer.h>
#include <OKVTesting/RuntimeFolder.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// The private fields, as they stand.
struct okvDataManagerInspector {
    static bool isReconnectPermitted(const okvDataManager& manager) { return manager._bReconFlg; }
    static bool wasServerFound(const okvDataManager& manager) { return manager._bSrvFlg; }
    static okv::Object* myObj(const okvDataManager& manager) { return manager._myObj; }
    static okv::Ref<okv::Connection> connection(const okvDataManager& manager) {
        return manager._connectSrv.load();
    }
    static okv::Ref<okv::RemoteObject> proxy(const okvDataManager& manager) {
        return manager._proxySrv.load();
    }
    static void setProxy(okvDataManager& manager, okv::Ref<okv::RemoteObject> proxy) {
        manager._proxySrv.store(std::move(proxy));
    }
    static bool hasSecondConnection(const okvDataManager& manager) {
        return static_cast<bool>(manager._connectOKVService);
    }
    static void setSecondConnection(okvDataManager& manager, okv::Ref<okv::Connection> connection) {
        manager._connectOKVService = std::move(connection);
    }
};

namespace okv {
struct ConnectionInspector {
    static bool hasTimeout(const Connection& one) {
        return one.requestTimeout_ > 0 || one.replyTimeout_ > 0;
    }
};
struct NotificationCenterInspector {
    static std::size_t registrationsOf(const Object& observer);
};
}  // namespace okv

namespace dmtest {

using okv::Value;
using okv::testing::FakeDataServer;
using okv::testing::ReceivedMessage;
using okv::testing::RuntimeFolder;
using support::serveUntil;
using Strings = std::vector<std::string>;
using Messages = std::vector<ReceivedMessage>;

inline constexpr char kConnectLine[] = "DataFW: connectSrv.";
inline constexpr char kConnectedLine[] = "-> connect is ok!";
inline constexpr char kFailLine[] = "DataSrv is connect fail. (connection fail...)";
inline constexpr char kDisconnectLine[] = "DataFW: disConnectSrv. ";
inline constexpr char kReconnectLine[] = "DataFW: reconnectSrv.";
/// The account that the tests run as.
inline const std::int64_t kAccount = getuid();

/// All lines of NSLog for the life of the object; a watcher sees each as it is logged.
class LoggedLines {
public:
    LoggedLines();
    ~LoggedLines() { okv::setNSLogSink(nullptr); }
    LoggedLines(const LoggedLines&) = delete;
    LoggedLines& operator=(const LoggedLines&) = delete;

    /// The lines since the last call.
    Strings take();
    void watch(std::function<void(std::string_view)> watcher) { watcher_ = std::move(watcher); }

private:
    std::mutex mutex_;
    Strings lines_;
    std::function<void(std::string_view)> watcher_;
};

/// All entries of the suite's log for the life of the object.
class LoggedEntries {
public:
    using Entry = std::pair<int, std::string>;
    LoggedEntries();
    ~LoggedEntries() { okv::setLogSink(nullptr); }
    LoggedEntries(const LoggedEntries&) = delete;
    LoggedEntries& operator=(const LoggedEntries&) = delete;

    std::vector<Entry> take();

private:
    std::mutex mutex_;
    std::vector<Entry> entries_;
};

/// The lines of an attempt that meets no server.
Strings linesOfAFailedConnect();
/// The ten messages that belong to the interface and that a data manager never sends.
const Strings& selectorsNeverSent();
/// Runs this thread's loop for a short while: for what must not happen.
void serveForAWhile();
using support::succeedsInAChild;

/// A private runtime folder and, unless told otherwise, a fake data server in it. All tests of one
/// process share the folder: its default notification centre keeps to the one that it found first.
/// After every test it looks whether anything was sent that never should be.
class ServerTest : public testing::Test {
protected:
    explicit ServerTest(std::optional<FakeDataServer::Options> options = FakeDataServer::Options{});
    void TearDown() override;

    FakeDataServer& server() { return *server_; }
    void startServer(FakeDataServer::Options options = {});
    /// The messages since the last call.
    Messages sent();
    Strings sentSelectors();

    const RuntimeFolder& folder_;
    LoggedLines lines_;
    std::unique_ptr<FakeDataServer> server_;
};

/// A data manager of the test's own, connected to the fake server. Its session user is 7; the
/// server knows the users 3 and 7, and 3 is its default user.
class ConnectedTest : public ServerTest {
protected:
    ConnectedTest();

    okvDataManager& manager() { return *manager_; }
    okv::Ref<okvDataManager> manager_;
};

/// What ten threads get that call for the shared instance at the same moment, by either operation.
std::set<okvDataManager*> instancesOfTenRacers();

/// What reading for the session user asks first.
ReceivedMessage userListMessage();
ReceivedMessage defaultUserMessage();

}  // namespace dmtest
