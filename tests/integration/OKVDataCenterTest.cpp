#include "OKVDataAdmin_protocol.h"
#include "ServerProcess.h"

#include "support/DataServer.h"
#include "support/EveryMethod.h"
#include "support/Files.h"
#include "support/Processes.h"
#include "support/Sockets.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>

using okv::Array;
using okv::Dictionary;
using okv::Value;
using support::asAccount;
using support::bytesOf;
using support::connect;
using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;

namespace {

/// A client that can be told to disconnect.
class Client final : public okv::Object, public OKVClientMng_protocol {
public:
    void disConnectSrv() override {
        ++told;
        okv::RunLoop::current()->stop();
    }
    int told = 0;

protected:
    void dealloc() override { okv::ExportedObjects::withdraw(*this); }
};

okv::detail::LentObject lent(Client& client) {
    return okv::lend<OKVClientMng_protocol>(client);
}

/// Runs the run loop until `stop`; false when that takes too long.
bool runLoop() {
    return okv::RunLoop::current()->runUntil(okv::RunLoop::Clock::now() + std::chrono::seconds(20));
}

template <class Rows>
int sendAllBut(std::string_view left, okv::RemoteObject& root, Client& client, const Rows& rows) {
    int sent = 0;
    support::forEveryMethod(root, lent(client), rows, [&](std::string_view selector, auto send) {
        if (selector == left) return;
        send();
        ++sent;
    });
    return sent;
}

}  // namespace

TEST(OKVDataCenter, AnswersEveryMethodOfBothProtocols) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto root = connect();
    const auto client = okv::make<Client>();
    EXPECT_EQ(sendAllBut("endServer", *root, *client, okv::protocol<Data>),
              static_cast<int>(okv::Dispatcher<Data>::rowCount) - 1);
    EXPECT_EQ(sendAllBut("", *root, *client, okv::protocol<Admin>),
              static_cast<int>(okv::Dispatcher<Admin>::rowCount));
    okv::send<&Data::endServer>(*root);
    EXPECT_EQ(server.wait(), 0);
}

TEST(OKVDataCenter, KeepsWhatItAcknowledgedThroughBeingKilled) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    for (int i = 0; i < 20; ++i) {
        const auto root = connect();
        EXPECT_TRUE((okv::send<&Data::setOKVDataPT_value_appUid>(*root, "k", i, 1)));
        if (i % 5 != 4) continue;
        server.signal(SIGKILL);
        EXPECT_EQ(server.wait(), -SIGKILL);
        ASSERT_TRUE(server.start());
        EXPECT_EQ((okv::send<&Data::okvDataPT_appUid>(*connect(), "k", 1)), Value(i));
    }
}

TEST(OKVDataCenter, LosesAndRepeatsNoRevisionWhateverManyWritersDo) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    constexpr int kWriters = 8, kWrites = 25;
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([writer] {
            const auto root = connect();
            for (int i = 0; i < kWrites; ++i) {
                const auto key = "k" + std::to_string(writer);
                EXPECT_TRUE((okv::send<&Data::setOKVDataPT_value_appUid>(*root, key, i, 1)));
                EXPECT_EQ((okv::send<&Data::okvDataPT_appUid>(*root, key, 1)), Value(i));
            }
        });
    }
    for (auto& writer : writers) writer.join();
    const auto answer = okv::send<&Admin::changesPT>(*connect(), 0).as<Dictionary>();
    const auto& changes = answer["changes"].as<Array>();
    ASSERT_EQ(changes.size(), std::size_t{kWriters * kWrites});
    for (std::size_t i = 0; i < changes.size(); ++i)
        EXPECT_EQ(changes[i].as<Dictionary>()["revision"], Value(i + 1));
}

TEST(OKVDataCenter, TellsItsClientsToDisconnectWhenItIsEnded) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto client = okv::make<Client>();
    const auto root = connect();
    EXPECT_TRUE(okv::send<&Data::registerAsClient>(*root, lent(*client)));
    EXPECT_TRUE(okv::send<&Data::registerAsClient>(*root, lent(*client)));
    const auto other = connect();
    EXPECT_EQ(okv::send<&Data::connectCount>(*other), 1);
    okv::send<&Data::endServer>(*other);
    EXPECT_TRUE(runLoop());
    EXPECT_EQ(client->told, 1);
    EXPECT_EQ(server.wait(), 0);
}

TEST(OKVDataCenter, ForgetsAClientWhoseConnectionEnded) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto client = okv::make<Client>();
    const auto root = connect();
    {
        const auto gone = connect();
        EXPECT_TRUE(okv::send<&Data::registerAsClient>(*gone, lent(*client)));
        EXPECT_EQ(okv::send<&Data::connectCount>(*root), 1);
    }
    while (okv::send<&Data::connectCount>(*root) != 0) std::this_thread::yield();
}

TEST(OKVDataCenter, ASignalEndsItWithoutAWordSoThatClientsComeBack) {
    for (const int number : {SIGTERM, SIGINT}) {
        ServerProcess server;
        ASSERT_TRUE(server.start());
        const auto client = okv::make<Client>();
        const auto root = connect();
        EXPECT_TRUE(okv::send<&Data::registerAsClient>(*root, lent(*client)));
        server.signal(number);
        EXPECT_EQ(server.wait(), 0);
        EXPECT_THROW(okv::send<&Data::connectCount>(*root), okv::ConnectionError);
        okv::RunLoop::current()->dispatch();
        EXPECT_EQ(client->told, 0);
        ASSERT_TRUE(server.start());
        EXPECT_EQ(okv::send<&Data::connectCount>(*connect()), 0);
    }
}

TEST(OKVDataCenter, RefusesWritesOfNobodyAndOfOtherAccounts) {
    if (geteuid() != 0) GTEST_SKIP() << "other accounts take root";
    ServerProcess server;
    ASSERT_TRUE(server.start());
    EXPECT_TRUE((okv::send<&Data::setOKVDataPT_value_appUid>(*connect(), "k", "root's", 1)));
    for (const uid_t uid : {uid_t{65534}, uid_t{12345}}) {
        EXPECT_EQ(asAccount(uid,
                            [] {
                                const auto root = connect();
                                const auto answer =
                                    okv::sendForAnswer<&Data::setOKVDataPT_value_appUid>(*root, "k",
                                                                                         "mine", 1);
                                const auto read = okv::send<&Data::okvDataPT_appUid>(*root, "k", 1);
                                if (answer.value || !answer.refusal) return 1;
                                if (answer.refusal->kind != okv::Refusal::Kind::notAllowed)
                                    return 2;
                                return read == Value("root's") ? 0 : 3;
                            }),
                  0)
            << uid;
    }
    EXPECT_EQ((okv::send<&Data::okvDataPT_appUid>(*connect(), "k", 1)), Value("root's"));
}

TEST(OKVDataCenter, WithSelfServiceAnAccountChangesItsOwnUser) {
    if (geteuid() != 0) GTEST_SKIP() << "other accounts take root";
    ServerProcess server;
    ASSERT_TRUE(server.start({"--self-service"}));
    okv::send<&Data::setUseridPT_applyUid>(*connect(), 12345, 2);
    EXPECT_EQ(asAccount(12345,
                        [] {
                            const auto root = connect();
                            const bool own =
                                okv::send<&Data::setOKVDataPT_value_appUid>(*root, "k", 1, 2);
                            const bool other =
                                okv::send<&Data::setOKVDataPT_value_appUid>(*root, "k", 1, 1);
                            return own && !other ? 0 : 1;
                        }),
              0);
}

namespace {

/// Keeps the notices; with a server, reads the setting inside of each.
class Observer final : public okv::Object {
public:
    Observer(okv::DistributedNotificationCenter& center, okv::Ref<okv::RemoteObject> root)
        : center_(center), root_(std::move(root)) {
        center_.addObserver(*this, &Observer::settingChanged, "jp.nrm.okv6.notification");
    }

    void settingChanged(const okv::Notification& notice) {
        notices.push_back(notice.userInfo.as<Dictionary>());
        if (root_) read.push_back(okv::send<&Data::okvDataPT_appUid>(*root_, "k", 1));
        okv::RunLoop::current()->stop();
    }
    std::vector<Dictionary> notices;
    std::vector<Value> read;

protected:
    void dealloc() override { center_.removeObserver(*this); }

private:
    okv::DistributedNotificationCenter& center_;
    okv::Ref<okv::RemoteObject> root_;
};

}  // namespace

TEST(OKVDataCenter, WhoHearsANoticeReadsTheNewValue) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto root = connect();
    okv::DistributedNotificationCenter center(server.runtimeFolder());
    const auto observer = okv::make<Observer>(center, root);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE((okv::send<&Data::setOKVDataPT_value_appUid>(*root, "k", i, 1)));
        ASSERT_TRUE(runLoop());
        EXPECT_EQ(observer->read.back(), Value(i));
        const auto& notice = observer->notices.back();
        EXPECT_EQ(notice["revision"], Value(i + 1));
        EXPECT_EQ(notice["osuserid"], Value(-1));
        EXPECT_EQ(notice["session_userid"], Value(0));
        EXPECT_EQ(notice["keys"], Value(Array{"k"}));
    }
    server.signal(SIGHUP);
    ASSERT_TRUE(runLoop());
    EXPECT_FALSE(observer->notices.back().contains("keys"));
}

TEST(OKVDataCenter, TellsThatItStartedWithItsRevisionAndNoKeys) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    EXPECT_TRUE((okv::send<&Data::setOKVDataPT_value_appUid>(*connect(), "k", 1, 1)));
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
    okv::DistributedNotificationCenter center(server.runtimeFolder());
    const auto observer = okv::make<Observer>(center, nullptr);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(runLoop());
    const auto& notice = observer->notices.at(0);
    EXPECT_EQ(notice["revision"], Value(1));
    EXPECT_EQ(notice["osuserid"], Value(-1));
    EXPECT_TRUE(notice["epoch"].is<std::string>());
    EXPECT_FALSE(notice.contains("keys"));
}

TEST(OKVDataCenter, SaysWhatIsWrongWithItsArgumentsInOneLine) {
    std::string errors;
    EXPECT_EQ(ServerProcess::run({}, errors), 2);
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    EXPECT_EQ(ServerProcess::run({"--help"}, errors), 0);
    EXPECT_EQ(ServerProcess::run({"--version"}, errors), 0);
}

TEST(OKVDataCenter, DoesNotStartOnADamagedStoreAndLeavesItAsItIs) {
    ServerProcess server;
    const std::string bytes(10000, 'x');
    support::write(server.storeFile(), bytes);
    std::string errors;
    EXPECT_EQ(ServerProcess::run(
                  {"--store", server.storeFile(), "--runtime-dir", server.runtimeFolder()}, errors),
              1);
    EXPECT_NE(errors.find(server.storeFile()), std::string::npos) << errors;
    EXPECT_EQ(bytesOf(server.storeFile()), bytes);
    EXPECT_EQ(ServerProcess::run({"--store", server.file("missing/store.db")}, errors), 1);
    EXPECT_NE(errors.find("No such file"), std::string::npos) << errors;
}

TEST(OKVDataCenter, IsAloneOnItsStoreAndOnItsName) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    std::string errors;
    EXPECT_EQ(ServerProcess::run(
                  {"--store", server.storeFile(), "--runtime-dir", server.file("run2")}, errors),
              1);
    EXPECT_NE(errors.find("another server"), std::string::npos) << errors;
    EXPECT_EQ(
        ServerProcess::run(
            {"--store", server.file("other.db"), "--runtime-dir", server.runtimeFolder()}, errors),
        1);
    EXPECT_FALSE(okv::send<&Data::useridAppListPT>(*connect()).isNil());
}

TEST(OKVDataCenter, MakesItsRuntimeFolderForEverybodyToReach) {
    ServerProcess server;
    const auto before = umask(077);
    ASSERT_TRUE(server.start());
    umask(before);
    EXPECT_EQ(std::filesystem::status(server.runtimeFolder()).permissions(),
              std::filesystem::perms(0755));
    EXPECT_EQ(std::filesystem::status(server.storeFile()).permissions(),
              std::filesystem::perms(0600));
}

TEST(OKVDataCenter, ServesTheSocketThatAServiceManagerHandsOver) {
    ServerProcess server;
    std::filesystem::create_directory(server.runtimeFolder());
    {
        const support::BoundSocket listener(SOCK_STREAM,
                                            server.runtimeFolder() + "/" + kOKVDataServerName);
        ASSERT_EQ(listen(listener.get(), 8), 0);
        ASSERT_TRUE(server.startWithSocket(listener.get()));
    }
    EXPECT_EQ(okv::send<&Data::defaultUserIdPT>(*connect()), 1);
}

TEST(OKVDataCenter, TellsTheServiceManagerWhenItServesThatItLivesAndWhenItEnds) {
    ServerProcess server;
    const auto path = server.file("notify");
    const support::BoundSocket manager(SOCK_DGRAM, path);
    {
        const support::Environment toldAt("NOTIFY_SOCKET", path);
        const support::Environment watched("WATCHDOG_USEC", "20000");
        ASSERT_TRUE(server.start());
    }
    const auto said = [&] {
        char text[256];
        const auto size = recv(manager.get(), text, sizeof text, 0);
        return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    };
    EXPECT_EQ(said(), "READY=1");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(said(), "WATCHDOG=1");
    server.signal(SIGTERM);
    auto last = said();
    while (last == "WATCHDOG=1") last = said();
    EXPECT_EQ(last, "STOPPING=1");
    EXPECT_EQ(server.wait(), 0);
}

TEST(OKVDataCenter, RunsOutOfAnApplicationBundle) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto executable =
        std::filesystem::read_symlink("/proc/" + std::to_string(server.pid()) + "/exe");
    const auto contents = executable.parent_path().parent_path();
    EXPECT_TRUE(contents.string().ends_with("OKVDataCenter.app/Contents")) << executable;
    EXPECT_EQ(executable.parent_path().filename(), "Linux");
    const auto plist = bytesOf(contents / "Info.plist");
    EXPECT_NE(plist.find("<string>jp.nrm.okv6.OKVDataCenter</string>"), std::string::npos);
    EXPECT_NE(plist.find("<key>CFBundleName</key>\n\t<string>OKVDataCenter</string>"),
              std::string::npos);
}
