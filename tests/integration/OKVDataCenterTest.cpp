#include "OKVDataAdmin_protocol.h"
#include "ServerProcess.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

using okv::Array;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;

namespace {

okv::Ref<okv::RemoteObject> connect() {
    std::string why;
    const auto connection =
        okv::Connection::connectionWithRegisteredName(kOKVDataServerName, std::nullopt, &why);
    if (!connection) throw std::runtime_error(why);
    return connection->rootProxy();
}

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

/// Runs the body in a child under another account; what it answers is the child's exit code.
int asAccount(uid_t uid, const std::function<int()>& body) {
    const auto pid = fork();
    if (pid == 0) {
        int code = 99;
        if (setgroups(0, nullptr) == 0 && setgid(uid) == 0 && setuid(uid) == 0) {
            try {
                code = body();
            } catch (const std::exception&) {
                code = 98;
            }
        }
        _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string bytesOf(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream bytes;
    bytes << stream.rdbuf();
    return bytes.str();
}

// An argument of each kind that a method can take.
template <class T>
auto anArgument(Client& client) {
    if constexpr (std::is_same_v<T, okv::RemoteObject>) {
        return lent(client);
    } else if constexpr (std::is_same_v<T, Value>) {
        return Value("dc-cmnset-x");
    } else {
        return T{};
    }
}

template <auto Method, class... A>
void sendOne(okv::RemoteObject& root, Client& client, const std::tuple<A...>*) {
    okv::send<Method>(root, anArgument<std::remove_cvref_t<A>>(client)...);
}

template <auto... Method>
int sendAllBut(std::string_view left, okv::RemoteObject& root, Client& client,
               const std::tuple<okv::Row<Method>...>& rows) {
    int sent = 0;
    const auto one = [&]<auto M>(const okv::Row<M>& row) {
        if (row.selector == left) return;
        using Parameters = typename okv::detail::MethodTraits<M>::Parameters;
        sendOne<M>(root, client, static_cast<const Parameters*>(nullptr));
        ++sent;
    };
    (one(std::get<okv::Row<Method>>(rows)), ...);
    return sent;
}

}  // namespace

TEST(OKVDataCenter, AnswersEveryMethodOfBothProtocols) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto root = connect();
    const auto client = okv::make<Client>();
    EXPECT_EQ(sendAllBut("endServer", *root, *client, okv::protocol<Data>), 46);
    EXPECT_EQ(sendAllBut("", *root, *client, okv::protocol<Admin>), 16);
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
    std::ofstream(server.storeFile()) << bytes;
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
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const auto path = server.runtimeFolder() + "/" + kOKVDataServerName;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 8), 0);
    ASSERT_TRUE(server.startWithSocket(listener));
    close(listener);
    EXPECT_EQ(okv::send<&Data::defaultUserIdPT>(*connect()), 1);
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
