#include "Support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>

using namespace durability;
using faults::connect;
using faults::get;
using faults::set;
using faults::status;
using okv::Null;
using okv::Value;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr char kKey[] = "dc-gui-colour";

void end(ServerProcess& server, int signal = SIGTERM) {
    server.signal(signal);
    server.wait();
}

/// A store whose value is "third", with backups in which it was "first" and "second".
class AStoreWithBackups : public testing::Test {
protected:
    AStoreWithBackups() {
        for (const char* value : {"first", "second"}) {
            if (!server.start({"--backup-interval", "0"}) || !set(*connect(), kKey, value))
                throw std::runtime_error("no store");
            end(server);
            if (backupsOf(server).empty()) fill(server, 1, 1000);  // enough to be damaged
            makeOneBackup();
        }
        if (!server.start()) throw std::runtime_error("no server");
        set(*connect(), kKey, "third");
        epoch = status(*connect())["epoch"].as<std::string>();
        end(server, SIGKILL);  // a part is in the log beside the store
    }
    void makeOneBackup() {
        const auto before = backupsOf(server).size();
        server.start({"--backup-interval", "1"});
        if (!awaitBackups(*connect(), static_cast<std::int64_t>(before) + 1))
            throw std::runtime_error("no backup");
        end(server);
        const auto after = backupsOf(server);
        for (auto i = before + 1; i < after.size(); ++i) std::filesystem::remove(after[i]);
    }
    std::string newest() const { return backupsOf(server).back(); }
    Ran restore() const { return runServer(server, {"--restore"}); }
    std::vector<std::string> replaced() const {
        return filesOf(server.file(""), "store.db.replaced-");
    }
    /// Nothing of the folder has changed since it had this content, but what the run wrote.
    template <class Content>
    void expectUntouched(const Content& before) {
        auto after = contentOf(server.file(""));
        for (const char* ofTheRun : {"said", "complained"}) after.erase(server.file(ofTheRun));
        EXPECT_EQ(after, before);
        ASSERT_TRUE(server.start());
        EXPECT_EQ(get(*connect(), kKey), Value("third"));
        EXPECT_EQ(status(*connect())["epoch"], Value(epoch));
    }
    void expectServed(const Value& value) {
        ASSERT_TRUE(server.start());
        const auto root = connect();
        EXPECT_EQ(get(*root, kKey), value);
        EXPECT_NE(status(*root)["epoch"], Value(epoch));
        EXPECT_TRUE(set(*root, "afterwards", 1));
    }

    ServerProcess server;
    std::string epoch;
};

void damageInTheMiddle(const std::string& file) {
    auto bytes = bytesOf(file);
    for (auto at = bytes.size() / 3; at < bytes.size() * 2 / 3; at += 512)
        bytes.replace(at, 64, 64, '\x5A');
    write(file, bytes);
}

struct Damage {
    const char* name;
    void (*inflict)(const std::string& file);
    const char* reason;
};

const Damage kDamages[] = {
    {"cut off", [](const std::string& file) { std::filesystem::resize_file(file, 9000); },
     "damaged"},
    {"empty", [](const std::string& file) { write(file, ""); }, "empty"},
    {"garbage in the middle", damageInTheMiddle, "damaged"},
    {"a database with nothing in it",
     [](const std::string& file) {
         std::filesystem::remove(file);
         change(file, "VACUUM");
     },
     "empty"},
    {"no database", [](const std::string& file) { write(file, std::string(9000, 'x')); },
     "damaged"},
    {"a row that no server writes",
     [](const std::string& file) {
         change(file, "INSERT INTO settings VALUES(5, 'k', x'01', 0, 0)");
     },
     "belongs to nothing"},
    {"an index that lost an entry",
     [](const std::string& file) {
         change(file,
                "INSERT INTO processes VALUES(0, 'p', x'01');"
                "PRAGMA writable_schema=ON;"
                "UPDATE sqlite_schema SET rootpage = (SELECT rootpage FROM sqlite_schema WHERE "
                "name = 'changes') WHERE name = 'sqlite_autoindex_processes_1'");
     },
     "damaged"},
    {"of a newer version", [](const std::string& file) { change(file, "PRAGMA user_version=99"); },
     "newer than this server's"},
    {"somebody else's", [](const std::string& file) { change(file, "PRAGMA application_id=7"); },
     "no store of this server"},
};

}  // namespace

TEST_F(AStoreWithBackups, IsBroughtBackUnderAnotherEpochAndTheFormerFilesAreKeptAsTheyWere) {
    const auto former = bytesOf(server.storeFile());
    const auto log = bytesOf(server.storeFile() + "-wal");
    ASSERT_NE(log, "");
    const auto backups = contentOf(backupFolder(server));
    const auto ran = restore();
    EXPECT_EQ(ran.code, 0) << ran.error;
    EXPECT_EQ(ran.error, "");
    ASSERT_THAT(replaced(), SizeIs(3)) << "with what the engine keeps beside it";
    EXPECT_EQ(bytesOf(replaced()[0]), former);
    EXPECT_EQ(bytesOf(replaced()[0] + "-wal"), log);
    EXPECT_THAT(ran.out, HasSubstr("the former store is now " + replaced()[0] + "\n"));
    EXPECT_EQ(contentOf(backupFolder(server)), backups);
    EXPECT_THAT(filesOf(server.file(""), "store.db.restoring"), SizeIs(0));
    expectServed("second");
}

TEST_F(AStoreWithBackups, SaysFromWhichTimeTheBackupIsAndWhichRevisionAndEpochItHas) {
    const auto renamed = backupFolder(server) + "/000007-20260601T030405Z.db";
    std::filesystem::rename(newest(), renamed);
    const auto ran = restore();
    EXPECT_THAT(ran.out, HasSubstr("the backup of 2026-06-01 03:04:05 UTC, " + renamed));
    EXPECT_THAT(ran.out, HasSubstr("revision 2,"));
    ASSERT_TRUE(server.start());
    EXPECT_THAT(ran.out,
                HasSubstr("new epoch " + status(*connect())["epoch"].as<std::string>() + "\n"));
    EXPECT_EQ(status(*connect())["revision"], Value(2));
}

TEST_F(AStoreWithBackups, RestoresADamagedStoreThatKeptTheServerFromStartingAndSaidHow) {
    damageInTheMiddle(server.storeFile());
    std::filesystem::remove(server.storeFile() + "-wal");
    std::filesystem::remove(server.storeFile() + "-shm");
    const auto before = contentOf(server.file(""));
    const auto refused = runServer(server, {});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.error, HasSubstr("is damaged: "));
    EXPECT_THAT(refused.error, HasSubstr("--restore"));
    EXPECT_THAT(refused.error, HasSubstr("--begin-afresh"));
    const auto damaged = before.at(server.storeFile());
    EXPECT_EQ(bytesOf(server.storeFile()), damaged);
    EXPECT_EQ(restore().code, 0);
    EXPECT_EQ(bytesOf(replaced().at(0)), damaged);
    expectServed("second");
}

TEST_F(AStoreWithBackups, SkipsABadNewestBackupWithALineThatSaysSo) {
    const auto good = bytesOf(newest());
    const auto files = contentOf(server.file(""));
    for (const auto& damage : kDamages) {
        write(newest(), good);
        damage.inflict(newest());
        const auto bad = bytesOf(newest());
        const auto ran = restore();
        EXPECT_EQ(ran.code, 0) << damage.name;
        EXPECT_THAT(ran.error, HasSubstr("the backup " + newest() + " is skipped: "))
            << damage.name;
        EXPECT_THAT(ran.error, HasSubstr(damage.reason)) << damage.name;
        EXPECT_THAT(ran.error, Not(HasSubstr(".restoring"))) << damage.name;
        EXPECT_EQ(std::count(ran.error.begin(), ran.error.end(), '\n'), 1) << ran.error;
        EXPECT_EQ(bytesOf(newest()), bad) << damage.name;
        expectServed("first");
        end(server);
    }
}

TEST_F(AStoreWithBackups, IsLeftAsItIsWhenNoBackupIsGood) {
    for (const auto& backup : backupsOf(server)) write(backup, "bad");
    const auto before = contentOf(server.file(""));
    const auto ran = restore();
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("no backup of the store " + server.storeFile() + " is good"));
    EXPECT_THAT(ran.error, HasSubstr("nothing was changed"));
    expectUntouched(before);
}

TEST_F(AStoreWithBackups, IsLeftAsItIsWhenAPartOfItCannotBeSetAside) {
    // At the name of what would be moved last, whenever within ten minutes.
    const auto now = std::time(nullptr);
    for (auto time = now; time < now + 600; ++time) {
        char name[64];
        std::strftime(name, sizeof name, ".replaced-%Y%m%dT%H%M%SZ-shm", std::gmtime(&time));
        std::filesystem::create_directory(server.storeFile() + name);
    }
    const auto before = contentOf(server.file(""));
    ASSERT_TRUE(before.contains(server.storeFile() + "-shm"));
    const auto ran = restore();
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("cannot set " + server.storeFile() + "-shm aside"));
    expectUntouched(before);
}

TEST_F(AStoreWithBackups, IsNotRestoredWhileAServerHasItOpen) {
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));
    const auto ran = restore();
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("is open in another server"));
    EXPECT_THAT(replaced(), SizeIs(0));
    const auto root = connect();
    EXPECT_EQ(get(*root, kKey), Value("third"));
    EXPECT_TRUE(set(*root, kKey, "fourth"));
    EXPECT_EQ(status(*root)["epoch"], Value(epoch));
}

TEST_F(AStoreWithBackups, ThatIsGoneKeepsTheServerFromStartingUntilItIsToldWhatToDo) {
    for (const char* end : {"", "-wal", "-shm"}) std::filesystem::remove(server.storeFile() + end);
    const auto refused = runServer(server, {});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.error, HasSubstr("it is gone"));
    EXPECT_THAT(refused.error, HasSubstr("--restore"));
    EXPECT_FALSE(std::filesystem::exists(server.storeFile()));
    const auto ran = restore();
    EXPECT_EQ(ran.code, 0);
    EXPECT_THAT(ran.out, HasSubstr("there was no store before"));
    expectServed("second");
}

TEST_F(AStoreWithBackups, ThatIsGoneIsBegunAfreshOnlyWhenTold) {
    for (const char* end : {"", "-wal", "-shm"}) std::filesystem::remove(server.storeFile() + end);
    ASSERT_TRUE(server.start({"--begin-afresh"}));
    EXPECT_EQ(get(*connect(), kKey), Value(Null{}));
    end(server);
    ASSERT_TRUE(server.start());
    EXPECT_THAT(backupsOf(server), SizeIs(testing::Ge(2U))) << "the backups stay";
}

// Killed after the store was set aside, before the copy took its place.
TEST_F(AStoreWithBackups, CanBeRestoredAgainAfterARestoreThatWasKilled) {
    for (const char* end : {"", "-wal", "-shm"})
        std::filesystem::rename(server.storeFile() + end,
                                server.storeFile() + ".replaced-20260101T000000Z" + end);
    write(server.storeFile() + ".restoring", "a part of the copy");
    write(server.storeFile() + ".restoring-wal", "and of its log");
    EXPECT_EQ(runServer(server, {}).code, 1);
    EXPECT_EQ(restore().code, 0);
    EXPECT_THAT(filesOf(server.file(""), "store.db.restoring"), SizeIs(0));
    EXPECT_THAT(replaced(), SizeIs(3)) << "what had been set aside stays";
    expectServed("second");
}

TEST_F(AStoreWithBackups, IsRestoredTwiceInOneSecondAndBothFormerOnesAreKept) {
    EXPECT_EQ(restore().code, 0);
    EXPECT_EQ(restore().code, 0);
    EXPECT_THAT(replaced(), SizeIs(4)) << "one with what the engine keeps beside it";
    expectServed("second");
}

TEST_F(AStoreWithBackups, BelongsToItsOwnerStillWhenTheAdministratorRestoresIt) {
    if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    constexpr uid_t kOwner = 12345;
    ASSERT_EQ(chown(server.storeFile().c_str(), kOwner, kOwner), 0);
    std::filesystem::remove(server.storeFile() + ".guard");
    ASSERT_EQ(restore().code, 0);
    for (const char* end : {"", ".guard"}) {
        struct stat status {};
        ASSERT_EQ(stat((server.storeFile() + end).c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, kOwner) << end;
        EXPECT_EQ(status.st_mode & 07777U, 0600U) << end;
    }
}

TEST_F(AStoreWithBackups, BelongsToItsOwnerStillWhenTheAdministratorBeginsAfresh) {
    if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    constexpr uid_t kOwner = 12345;
    ASSERT_EQ(chown(server.storeFile().c_str(), kOwner, kOwner), 0);
    write(server.storeFile(), "damaged");
    for (const char* end : {".guard", "-wal", "-shm"})
        std::filesystem::remove(server.storeFile() + end);
    std::filesystem::remove_all(backupFolder(server));
    ASSERT_TRUE(server.start({"--begin-afresh"}));
    ASSERT_TRUE(awaitBackups(*connect(), 1));
    ASSERT_TRUE(set(*connect(), kKey, "first of it"));
    server.signal(SIGKILL);  // so that the log stays, too
    server.wait();
    auto made = filesOf(server.file(""), "store.db");
    const auto backups = backupsOf(server);
    made.insert(made.end(), backups.begin(), backups.end());
    EXPECT_THAT(made, SizeIs(7)) << "log, index, guard, folder, backup, both stores";
    for (const auto& file : made) {
        struct stat status {};
        ASSERT_EQ(stat(file.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, kOwner) << file;
        EXPECT_EQ(status.st_gid, kOwner) << file;
    }
}

TEST(AStoreWithoutBackups, IsLeftAsItIsByARestore) {
    ServerProcess server;
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));
    ASSERT_TRUE(set(*connect(), kKey, "only"));
    end(server);
    const auto before = bytesOf(server.storeFile());
    const auto ran = runServer(server, {"--restore"});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("there is no backup of the store in " + backupFolder(server)));
    EXPECT_EQ(std::count(ran.error.begin(), ran.error.end(), '\n'), 1) << ran.error;
    EXPECT_EQ(bytesOf(server.storeFile()), before);
    EXPECT_FALSE(std::filesystem::exists(backupFolder(server)));
}
