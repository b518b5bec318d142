#include "Support.h"

#include "support/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <csignal>
#include <filesystem>

using namespace faults;
using okv::Value;
using support::bytesOf;
using support::write;
using testing::HasSubstr;

namespace {

int runOn(const ServerProcess& server, const std::vector<std::string>& more, std::string& errors) {
    std::vector<std::string> arguments{"--store", server.storeFile(), "--runtime-dir",
                                       server.runtimeFolder()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return ServerProcess::run(arguments, errors);
}

// The file's name where a damaged store was moved to; empty when there is none.
std::string setAside(const ServerProcess& server) {
    const auto wanted = std::filesystem::path(server.storeFile()).filename().string() + ".damaged-";
    const auto folder = std::filesystem::path(server.storeFile()).parent_path();
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const auto name = entry.path().filename().string();
        if (name.rfind(wanted, 0) == 0 && !name.ends_with("-wal") && !name.ends_with("-shm"))
            return entry.path();
    }
    return {};
}

// A store with 200 settings in it, as a server left it that was ended, or killed: then a part of
// it is still in the log beside it.
void leaveAStore(ServerProcess& server, int signal) {
    ASSERT_TRUE(server.start());
    const auto root = connect();
    okv::Dictionary settings;
    for (int i = 0; i < 200; ++i) settings.insert("key" + std::to_string(i), std::string(300, 'v'));
    ASSERT_TRUE(okv::send<&Data::setOKVDataAllPT_appUid>(*root, Value(settings), 1));
    server.signal(signal);
    server.wait();
}

std::string withGarbageInTheMiddle(std::string bytes) {
    for (auto at = bytes.size() / 3; at < bytes.size() * 2 / 3; at += 512)
        bytes.replace(at, 64, 64, '\x5A');
    return bytes;
}

struct Damage {
    const char* name;
    std::function<std::string(std::string)> inflict;
};

const Damage kDamages[] = {
    {"cut off in the middle",
     [](const std::string& good) { return good.substr(0, good.size() / 2); }},
    {"cut off in its first page", [](const std::string& good) { return good.substr(0, 700); }},
    {"cut off to nothing", [](const std::string&) { return std::string(); }},
    {"garbage in the middle", withGarbageInTheMiddle},
    {"not a database", [](const std::string&) { return std::string(20000, 'x'); }},
};

}  // namespace

TEST(ADamagedStore, KeepsTheServerFromStartingAndIsNotTouched) {
    for (const auto& damage : kDamages) {
        ServerProcess server;
        leaveAStore(server, SIGTERM);
        const auto bytes = damage.inflict(bytesOf(server.storeFile()));
        write(server.storeFile(), bytes);
        std::string errors;
        EXPECT_EQ(runOn(server, {}, errors), 1) << damage.name;
        EXPECT_THAT(errors, HasSubstr("the store " + server.storeFile() + " is damaged: "))
            << damage.name;
        EXPECT_THAT(errors, HasSubstr("--begin-afresh")) << damage.name;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
        EXPECT_EQ(bytesOf(server.storeFile()), bytes) << damage.name;
        EXPECT_EQ(setAside(server), "") << damage.name;
    }
}

TEST(ADamagedStore, IsSetAsideUntouchedWhenTheServerIsToldToBeginAfresh) {
    for (const auto& damage : kDamages) {
        ServerProcess server;
        leaveAStore(server, SIGTERM);
        const auto bytes = damage.inflict(bytesOf(server.storeFile()));
        write(server.storeFile(), bytes);
        ASSERT_TRUE(server.start({"--begin-afresh"})) << damage.name;
        EXPECT_EQ(get(*connect(), "key1"), Value(okv::Null{})) << damage.name;
        EXPECT_TRUE(set(*connect(), "key1", "anew")) << damage.name;
        EXPECT_EQ(bytesOf(setAside(server)), bytes) << damage.name;
        server.signal(SIGKILL);
        server.wait();
        ASSERT_TRUE(server.start()) << damage.name;
        EXPECT_EQ(get(*connect(), "key1"), Value("anew")) << damage.name;
    }
}

TEST(ADamagedStore, ThatAKilledServerLeftKeepsItsLogToo) {
    ServerProcess server;
    leaveAStore(server, SIGKILL);
    const auto log = bytesOf(server.storeFile() + "-wal");
    ASSERT_FALSE(log.empty());
    write(server.storeFile(), "");
    std::string errors;
    EXPECT_EQ(runOn(server, {}, errors), 1);
    EXPECT_EQ(bytesOf(server.storeFile() + "-wal"), log);
    ASSERT_TRUE(server.start({"--begin-afresh"}));
    EXPECT_EQ(bytesOf(setAside(server) + "-wal"), log);
}

TEST(ASoundStore, IsNotSetAsideByTheOption) {
    ServerProcess server;
    leaveAStore(server, SIGKILL);
    ASSERT_TRUE(server.start({"--begin-afresh"}));
    EXPECT_EQ(get(*connect(), "key1"), Value(std::string(300, 'v')));
    EXPECT_EQ(setAside(server), "");
}

TEST(AStoreOfANewerVersion, KeepsTheServerFromStartingWhateverItIsToldAndIsNotTouched) {
    ServerProcess server;
    leaveAStore(server, SIGTERM);
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(server.storeFile().c_str(), &database), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(database, "PRAGMA user_version=99", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    const auto bytes = bytesOf(server.storeFile());
    for (const auto& more :
         {std::vector<std::string>{}, std::vector<std::string>{"--begin-afresh"}}) {
        std::string errors;
        EXPECT_EQ(runOn(server, more, errors), 1);
        EXPECT_THAT(errors, HasSubstr("version 99, newer than this server's"));
        EXPECT_EQ(bytesOf(server.storeFile()), bytes);
        EXPECT_EQ(setAside(server), "");
    }
}
