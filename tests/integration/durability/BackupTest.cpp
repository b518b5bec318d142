#include "Support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>

using namespace durability;
using faults::connect;
using faults::set;
using okv::Value;
using testing::HasSubstr;
using testing::SizeIs;

namespace {

mode_t modeOf(const std::string& file) {
    struct stat status {};
    EXPECT_EQ(stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777U;
}

ino_t inodeOf(const std::string& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
}

std::string nameAt(int number, std::time_t time) {
    char moment[32];
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::strftime(moment, sizeof moment, "%Y%m%dT%H%M%SZ", &parts);
    char name[64];
    std::snprintf(name, sizeof name, "%06d-%s.db", number, moment);
    return name;
}

// A server's first backup, from another time than it is.
void leaveABackupOf(ServerProcess& server, std::time_t time) {
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(awaitBackups(*connect(), 1));
    server.signal(SIGTERM);
    ASSERT_EQ(server.wait(), 0);
    ASSERT_THAT(backupsOf(server), SizeIs(1));
    std::filesystem::rename(backupsOf(server).front(),
                            backupFolder(server) + "/" + nameAt(1, time));
}

std::string unfinished(const ServerProcess& server) {
    return backupFolder(server) + "/unfinished";
}

constexpr std::time_t kDay = 24 * 60 * 60;

}  // namespace

TEST(ABackup, IsMadeAtTheFirstStartForTheOwnerAloneAndNamedByTheTime) {
    ServerProcess server;
    const auto before = std::time(nullptr);
    ASSERT_TRUE(server.start());
    const auto root = connect();
    ASSERT_TRUE(awaitBackups(*root, 1));
    ASSERT_THAT(backupsOf(server), SizeIs(1));
    const auto file = backupsOf(server).front();
    EXPECT_THAT(file, testing::ContainsRegex("/000001-[0-9]{8}T[0-9]{6}Z[.]db$"));
    EXPECT_GE(file.substr(file.rfind('/') + 1), nameAt(1, before));
    EXPECT_EQ(modeOf(file), 0600U);
    EXPECT_EQ(modeOf(backupFolder(server)), 0700U);
    EXPECT_THAT(filesOf(backupFolder(server)), SizeIs(1)) << "nothing else";
    EXPECT_GE(backupState(*root)["time"].as<okv::Date>().secondsSince1970,
              static_cast<double>(before));
    EXPECT_EQ(backupState(*root)["interval"], Value(kDay));
    EXPECT_FALSE(backupState(*root).contains("failure"));
}

TEST(ABackup, IsOneFileWithAllThatWasCommittedThoughItStandsInTheLogStill) {
    ServerProcess server;
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));
    ASSERT_TRUE(set(*connect(), "dc-gui-colour", "blue"));
    server.signal(SIGKILL);
    server.wait();
    ASSERT_NE(bytesOf(server.storeFile() + "-wal"), "");
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(awaitBackups(*connect(), 1));
    const auto copy = server.file("copy.db");
    std::filesystem::copy_file(backupsOf(server).front(), copy);
    server.signal(SIGTERM);
    server.wait();
    ASSERT_TRUE(server.start({"--store", copy}));
    EXPECT_EQ(faults::get(*connect(), "dc-gui-colour"), Value("blue"));
}

TEST(ABackup, GoesToAnotherDiskThroughALink) {
    ServerProcess server;
    std::filesystem::create_directory(server.file("elsewhere"));
    std::filesystem::create_directory_symlink(server.file("elsewhere"), backupFolder(server));
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(awaitBackups(*connect(), 1));
    EXPECT_THAT(filesOf(server.file("elsewhere"), "000001-"), SizeIs(1));
    EXPECT_TRUE(std::filesystem::is_symlink(backupFolder(server)));
}

TEST(ABackup, IsNotMadeAtTheStartWhileTheNewestIsYoungerThanADay) {
    ServerProcess server;
    leaveABackupOf(server, std::time(nullptr) - kDay + 3600);
    ASSERT_TRUE(server.start());
    const auto root = connect();
    for (int i = 0; i < 200; ++i) EXPECT_EQ(backupState(*root)["kept"], Value(1));
    EXPECT_FALSE(std::filesystem::exists(unfinished(server)));
    EXPECT_THAT(backupsOf(server), SizeIs(1));
}

TEST(ABackup, IsMadeAtTheStartWhenTheNewestIsADayOld) {
    ServerProcess server;
    leaveABackupOf(server, std::time(nullptr) - kDay);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(awaitBackups(*connect(), 2));
    EXPECT_THAT(backupsOf(server).back(), HasSubstr("/000002-"));
}

TEST(AClockThatWasPutBack, LeadsToOneBackupAndNotToOneAtEveryStart) {
    ServerProcess server;
    leaveABackupOf(server, std::time(nullptr) + 1000 * kDay);
    for (int start = 0; start < 3; ++start) {
        ASSERT_TRUE(server.start());
        const auto root = connect();
        ASSERT_TRUE(awaitBackups(*root, 2));
        for (int i = 0; i < 50; ++i) EXPECT_EQ(backupState(*root)["kept"], Value(2));
        server.signal(SIGTERM);
        server.wait();
    }
    EXPECT_THAT(backupsOf(server).back(), HasSubstr("/000002-"));
}

TEST(TheNewestSeven, AreKeptByTheOrderInWhichTheyWereMadeWhateverTimeTheyBear) {
    ServerProcess server;
    leaveABackupOf(server, std::time(nullptr) + 1000 * kDay);
    const auto first = backupsOf(server).front();
    for (int number = 2; number <= 9; ++number)
        std::filesystem::copy_file(first,
                                   backupFolder(server) + "/" +
                                       nameAt(number, std::time(nullptr) + (1000 - number) * kDay));
    write(backupFolder(server) + "/note-of-the-administrator", "keep");
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(eventually([&] { return backupsOf(server).size() == 7; }));
    const auto kept = backupsOf(server);
    EXPECT_THAT(kept.front(), HasSubstr("/000004-"));
    EXPECT_THAT(kept.back(), HasSubstr("/000010-"));
    EXPECT_EQ(bytesOf(backupFolder(server) + "/note-of-the-administrator"), "keep");
    EXPECT_TRUE(eventually([&] { return backupState(*connect())["kept"] == Value(7); }));
}

TEST(TheInterval, MakesOneBackupAfterTheOther) {
    ServerProcess server;
    ASSERT_TRUE(server.start({"--backup-interval", "1"}));
    const auto root = connect();
    ASSERT_TRUE(set(*root, "k", 1));
    EXPECT_TRUE(awaitBackups(*root, 3));
}

TEST(TheInterval, OfZeroMakesNone) {
    ServerProcess server;
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));
    const auto root = connect();
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(set(*root, "k", i));
    EXPECT_EQ(backupState(*root)["interval"], Value(0));
    EXPECT_EQ(backupState(*root)["time"], Value(okv::Null{}));
    EXPECT_FALSE(std::filesystem::exists(backupFolder(server)));
}

namespace {

// So large that copying it takes a while, of so few settings that reading them does not; no server
// runs on it, and there is no backup.
void leaveALargeStore(ServerProcess& server) {
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));
    server.signal(SIGTERM);
    server.wait();
    fill(server, 20, 100, 8000);
}

}  // namespace

TEST(AWrite, IsAcknowledgedWhileABackupIsUnderWay) {
    ServerProcess server;
    leaveALargeStore(server);
    ASSERT_TRUE(server.start({"--backup-interval", "1"}));
    const auto root = connect();
    int number = 0;
    const bool met = eventually([&] {
        const auto before = inodeOf(unfinished(server));
        EXPECT_TRUE(set(*root, "k", ++number));
        EXPECT_EQ(faults::get(*root, "k"), Value(number));
        return before != 0 && inodeOf(unfinished(server)) == before;
    });
    EXPECT_TRUE(met) << number;
}

TEST(AnEndingServer, GivesABackupUpAndLeavesNothingOfIt) {
    ServerProcess server;
    leaveALargeStore(server);
    bool isGivenUp = false;  // rather than finished before the signal came
    for (int tries = 0; !isGivenUp && tries < 20; ++tries) {
        std::filesystem::remove_all(backupFolder(server));
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(eventually([&] {
            return std::filesystem::exists(unfinished(server)) || !backupsOf(server).empty();
        }));
        server.signal(SIGTERM);
        EXPECT_EQ(server.wait(), 0);
        EXPECT_FALSE(std::filesystem::exists(unfinished(server)));
        EXPECT_FALSE(std::filesystem::exists(unfinished(server) + "-journal"));
        isGivenUp = backupsOf(server).empty();
    }
    EXPECT_TRUE(isGivenUp);
}

TEST(AKilledServer, LeavesHalfABackupThatTheNextOneTakesAway) {
    ServerProcess server;
    leaveABackupOf(server, std::time(nullptr));
    write(unfinished(server), "half a backup");
    write(unfinished(server) + "-journal", "and its journal");
    ASSERT_TRUE(server.start());
    EXPECT_TRUE(eventually([&] { return filesOf(backupFolder(server)).size() == 1; }));
    EXPECT_THAT(backupsOf(server), SizeIs(1));
}

TEST(ABackupThatFails, IsToldWithItsReasonDisturbsNothingAndIsTriedAgain) {
    ServerProcess server;
    write(backupFolder(server), "a file where the folder belongs");
    ASSERT_TRUE(server.start({"--backup-interval", "1"}));
    const auto root = connect();
    ASSERT_TRUE(eventually([&] { return backupState(*root).contains("failure"); }));
    EXPECT_THAT(backupState(*root)["failure"].as<std::string>(), HasSubstr("Not a directory"));
    EXPECT_TRUE(backupState(*root)["failed"].is<okv::Date>());
    EXPECT_TRUE(set(*root, "k", 1));
    EXPECT_EQ(faults::get(*root, "k"), Value(1));
    std::filesystem::remove(backupFolder(server));
    ASSERT_TRUE(awaitBackups(*root, 1));
    EXPECT_FALSE(backupState(*root).contains("failure"));
}

TEST(ADamagedStoreThatIsInUse, PushesNoGoodBackupOut) {
    ServerProcess server;
    leaveABackupOf(server, std::time(nullptr) - 2 * kDay);
    fill(server, 20, 500);
    const auto good = backupsOf(server).front();
    const auto bytes = bytesOf(good);
    ASSERT_TRUE(server.start({"--backup-interval", "1"}));
    const auto root = connect();
    ASSERT_TRUE(awaitBackups(*root, 2));
    {
        auto damaged = bytesOf(server.storeFile());
        for (auto at = damaged.size() / 3; at < damaged.size() * 2 / 3; at += 512)
            damaged.replace(at, 64, 64, '\x5A');
        std::fstream file(server.storeFile(), std::ios::binary | std::ios::in | std::ios::out);
        file << damaged;
    }
    ASSERT_TRUE(eventually([&] { return backupState(*root).contains("failure"); }));
    EXPECT_EQ(bytesOf(good), bytes);
    EXPECT_FALSE(std::filesystem::exists(unfinished(server)));
}

TEST(TheStatus, TellsOfTheBackupsThroughTheTool) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(awaitBackups(*connect(), 1));
    const auto ran = runTool(server, {"status"});
    EXPECT_EQ(ran.code, 0);
    for (const char* name : {"backup.time ", "backup.kept ", "backup.interval "})
        EXPECT_THAT(ran.out, HasSubstr(name));
}
