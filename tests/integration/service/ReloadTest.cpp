#include "Support.h"

#include "support/Files.h"
#include "support/ForkedChild.h"
#include "unit/okvCmnUtil/PrivateRoot.h"

#include <fcntl.h>
#include <sqlite3.h>

#include <csignal>
#include <thread>

using namespace service;
using okv::Value;

namespace {

/// Changes the store behind the server's back.
void execute(const std::string& file, const char* statement) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, statement, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(database);
}

constexpr char kSeven[] = "UPDATE settings SET value = x'07'";
constexpr char kNoValue[] = "UPDATE settings SET value = x'FF'";

/// A server that a manager looks after, with a setting "k" of 1.
struct ServedStore {
    ServedStore() {
        if (!server.start() || manager.next() != "READY=1") throw std::runtime_error("no server");
        root = connect();
        if (!set(*root, "k", 1)) throw std::runtime_error("nothing is stored");
    }
    ServerProcess server;
    const Manager manager{server};
    okv::Ref<okv::RemoteObject> root;
};

/// What the manager is told at the end of a reload.
std::string reload(const ServerProcess& server, const Manager& manager) {
    server.signal(SIGHUP);
    const auto begun = manager.next();
    EXPECT_TRUE(begun.starts_with("RELOADING=1\n")) << begun;
    return manager.next();
}

}  // namespace

TEST(AReload, ReadsTheStoreAndTheUsersAgainAndTellsTheServiceManager) {
    const ServedStore served;
    execute(served.server.storeFile(), kSeven);
    execute(served.server.storeFile(), "INSERT INTO scopes(id) VALUES(31)");
    EXPECT_EQ(get(*served.root, "k"), Value(1));
    EXPECT_EQ(reload(served.server, served.manager), "READY=1\nSTATUS=");
    EXPECT_EQ(get(*served.root, "k"), Value(7));
    EXPECT_EQ(okv::send<&Data::useridAppListPT>(*served.root), Value(okv::Array{1, 31}));
}

TEST(AReload, ThatFailsKeepsWhatWasReadAndTellsWhy) {
    const ServedStore served;
    execute(served.server.storeFile(), kNoValue);
    const auto told = reload(served.server, served.manager);
    EXPECT_TRUE(told.starts_with("READY=1\nSTATUS=The last reload failed: ")) << told;
    EXPECT_EQ(get(*served.root, "k"), Value(1));
    EXPECT_TRUE(set(*served.root, "other", 2)) << "and changes go on";
    execute(served.server.storeFile(), kSeven);
    EXPECT_EQ(reload(served.server, served.manager), "READY=1\nSTATUS=");
}

namespace {

void writeMainteFile(int level) {
    const std::string folder = "/Library/Application Support/NRM/okv6";
    std::filesystem::create_directories(folder);
    support::write(folder + "/jp.nrm.okv6.mainte.plist",
                   "<plist version=\"1.0\"><dict><key>logLevel</key><integer>" +
                       std::to_string(level) + "</integer></dict></plist>");
}

int failuresIn(const std::string& file) {
    const std::string what = "could not be read again", text = support::bytesOf(file);
    int count = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
    return count;
}

// The lines of failed reloads under two levels, in a process whose root is its own.
void reloadUnderTwoLevels() {
    ASSERT_TRUE(privateroot::enter());
    writeMainteFile(0);
    ServerProcess server;
    const Manager manager(server);
    const int lines = open(server.file("lines").c_str(), O_WRONLY | O_CREAT, 0600);
    dup2(lines, STDERR_FILENO);
    ASSERT_TRUE(server.start());
    EXPECT_EQ(manager.next(), "READY=1");
    ASSERT_TRUE(set(*connect(), "k", 1));
    execute(server.storeFile(), kNoValue);
    // A line is written a little later, under the level of then: each is awaited before the next.
    writeMainteFile(10);
    reload(server, manager);
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (failuresIn(server.file("lines")) == 0 && Clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(failuresIn(server.file("lines")), 1);
    writeMainteFile(0);
    reload(server, manager);
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);  // by now all lines are written
    EXPECT_EQ(failuresIn(server.file("lines")), 1);
}

}  // namespace

TEST(AReload, TakesTheLogLevelThatIsSetNow) {
    if (geteuid() != 0) GTEST_SKIP() << "a root of its own takes root";
    if (access("/run/systemd/journal/socket", F_OK) == 0)
        GTEST_SKIP() << "the journal has the lines";
    EXPECT_TRUE(support::succeedsInAChild(&reloadUnderTwoLevels));
}
