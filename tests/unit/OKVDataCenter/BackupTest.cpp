#include "BackupFolder.h"
#include "BackupKeeper.h"
#include "Harness.h"

#include "support/Serving.h"

#include <fstream>

using datacenter::Backup;
using std::chrono::seconds;

namespace {

constexpr std::int64_t kNow = 1780283045;  // 2026-06-01T03:04:05Z
constexpr seconds kDay{86400};

std::vector<Backup> newestFrom(std::int64_t time) {
    return {{9, time, "newest"}, {8, time + 5, "before"}};
}

// So large that copying it takes a while.
void makeLarge(const std::string& store) {
    datacenter::Database database(store, SQLITE_OPEN_READWRITE);
    database.execute(
        "WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k WHERE i < 2000) "
        "INSERT INTO settings SELECT 1, 'k' || i, zeroblob(10000), 0, 0.0 FROM k");
}

/// Waits until there is something of a backup; false when there is nothing in time.
bool isBegun(const std::string& backups) {
    support::Patience patience(seconds(30));
    std::error_code missing;
    while (std::filesystem::directory_iterator(backups, missing) ==
           std::filesystem::directory_iterator()) {
        if (!patience.isLeft()) return false;
    }
    return true;
}

}  // namespace

TEST(ABackupsName, TellsNumberAndTime) {
    EXPECT_EQ(datacenter::backupName(42, kNow), "000042-20260601T030405Z.db");
    const auto backup = datacenter::backupNamed("000042-20260601T030405Z.db");
    ASSERT_TRUE(backup);
    EXPECT_EQ(backup->number, 42);
    EXPECT_EQ(backup->time, kNow);
    EXPECT_EQ(datacenter::backupNamed(datacenter::backupName(123456789, 0))->number, 123456789);
}

TEST(ABackupsName, IsNoOtherName) {
    for (const char* name :
         {"", "unfinished", "-20260601T030405Z.db", "000042-20260601T030405Z", "000042-.db",
          "000042-20260601T030405Z.db-journal", "x00042-20260601T030405Z.db",
          "000000-20260601T030405Z.db", "-00042-20260601T030405Z.db", "000042-20261301T030405Z.db",
          "000042-2026060AT030405Z.db", "9999999999999999-20260601T030405Z.db"})
        EXPECT_FALSE(datacenter::backupNamed(name)) << name;
}

TEST(TheFirstBackup, IsDueAtOnceUnlessTheNewestIsYoung) {
    const struct {
        const char* name;
        std::vector<Backup> backups;
        std::int64_t seconds;
    } lines[] = {
        {"there is none", {}, 0},
        {"just made", newestFrom(kNow), 86400},
        {"an hour old", newestFrom(kNow - 3600), 82800},
        {"a second before a day", newestFrom(kNow - 86399), 1},
        {"a day old", newestFrom(kNow - 86400), 0},
        {"a year old", newestFrom(kNow - 365 * 86400), 0},
        {"from the time to come", newestFrom(kNow + 1), 0},
        {"from far in the time to come", newestFrom(kNow + 1000 * 86400), 0},
    };
    for (const auto& [name, backups, wanted] : lines)
        EXPECT_EQ(datacenter::untilFirstBackup(backups, kNow, kDay).count(), wanted) << name;
}

TEST(TheKeeperOfBackups, LogsAFailureOnceWithItsReasonAndThatItIsOver) {
    const support::TempFolder folder;
    const auto file = folder / "s";
    const datacenter::Store store(file, datacenter::Limits());
    std::filesystem::create_directory(folder / "s.backups");
    // What cannot be replaced by a file.
    std::filesystem::create_directory(folder / "s.backups/unfinished");
    std::vector<std::string> log;
    const auto keeper = okv::make<datacenter::BackupKeeper>(
        file, seconds(1), [&](const std::string& line) { log.push_back(line); });
    keeper->start();
    ASSERT_TRUE(support::serveUntil([&] { return keeper->state().contains("failure"); }));
    const auto first = keeper->state()["failed"];
    ASSERT_TRUE(support::serveUntil([&] { return keeper->state()["failed"] != first; }));
    ASSERT_EQ(log.size(), 1U) << "the same reason again is not told again";
    EXPECT_NE(log[0].find("s.backups/unfinished"), std::string::npos) << log[0];
    EXPECT_NE(log[0].find("Is a directory"), std::string::npos) << log[0];
    std::filesystem::remove(folder / "s.backups/unfinished");
    ASSERT_TRUE(support::serveUntil([&] { return keeper->state()["kept"] == okv::Value(1); }));
    ASSERT_EQ(log.size(), 2U);
    EXPECT_EQ(log[1], "backups of the store are made again");
    EXPECT_FALSE(keeper->state().contains("failure"));
}

TEST(TheKeeperOfBackups, MayGoWhileOneIsUnderWay) {
    const support::TempFolder folder;
    const auto backups = folder / "s.backups";
    const datacenter::Store store(folder / "s", datacenter::Limits());
    makeLarge(folder / "s");
    bool isGivenUp = false;  // rather than finished before
    for (int tries = 0; !isGivenUp && tries < 20; ++tries) {
        {
            const auto keeper =
                okv::make<datacenter::BackupKeeper>(folder / "s", seconds(1), [](const auto&) {});
            keeper->start();
            EXPECT_TRUE(isBegun(backups));
        }
        EXPECT_FALSE(std::filesystem::exists(backups + "/unfinished"));
        isGivenUp = std::filesystem::is_empty(backups);
        std::filesystem::remove_all(backups);
    }
    EXPECT_TRUE(isGivenUp);
    okv::RunLoop::current()->dispatch();
}
