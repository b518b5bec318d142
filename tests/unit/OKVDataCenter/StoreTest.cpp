#include "Harness.h"
#include "StoreGuard.h"
#include "View.h"

#include "support/Files.h"
#include "support/ForkedChild.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>

using datacenter::Limits;
using datacenter::Store;
using datacenter::StoreError;
using okv::Value;
using support::bytesOf;
using support::write;
namespace step = datacenter::step;

namespace {

mode_t modeOf(const std::string& file) {
    struct stat status {};
    EXPECT_EQ(stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777U;
}

std::string whyNotOpened(const std::string& file) {
    try {
        const Store store(file, Limits());
        return "it was opened";
    } catch (const StoreError& error) {
        return error.what();
    }
}

void commit(Store& store, const datacenter::Step& one) {
    store.begin();
    store.carryOut(one);
    store.commit();
}

step::Setting setting(datacenter::Scope scope, const std::string& key, const Value& value) {
    return {scope, key, value, okv::encodeCbor(value), {77, 5.5}};
}

// A sound store with something in it, closed.
void makeStore(const std::string& file) {
    Store store(file, Limits());
    store.begin();
    for (int i = 0; i < 200; ++i)
        store.carryOut(setting(1, "key" + std::to_string(i), std::string(100, 'v')));
    store.commit();
}

}  // namespace

TEST(Store, IsNotOpenedWhereNoWriteAheadLogCanBeKept) {
    const support::TempFolder folder;
    auto* const usual = sqlite3_vfs_find(nullptr);
    // It shares no memory, which the log needs.
    ASSERT_EQ(sqlite3_vfs_register(sqlite3_vfs_find("unix-dotfile"), 1), SQLITE_OK);
    const auto why = whyNotOpened(folder / "s");
    ASSERT_EQ(sqlite3_vfs_register(usual, 1), SQLITE_OK);
    EXPECT_NE(why.find("no write-ahead log"), std::string::npos) << why;
    EXPECT_EQ(whyNotOpened(folder / "s"), "it was opened") << "where one can be";
}

TEST(MovingAStore, LeavesAllOfItWhereAPartCannotBeMoved) {
    const support::TempFolder folder;
    for (const char* beside : {"", "-wal", "-shm"}) write(folder / "s" + beside, beside);
    for (const char* obstacle : {"-wal", "-shm"}) {
        const auto target = folder / "t" + obstacle;
        std::filesystem::create_directory(target);
        EXPECT_THROW(datacenter::moveStore(folder / "s", folder / "t"), StoreError);
        for (const char* beside : {"", "-wal", "-shm"})
            EXPECT_EQ(bytesOf(folder / "s" + beside), beside) << obstacle;
        std::filesystem::remove(target);
        EXPECT_FALSE(std::filesystem::exists(folder / "t")) << obstacle;
    }
    datacenter::moveStore(folder / "s", folder / "t");
    EXPECT_EQ(bytesOf(folder / "t-wal"), "-wal");
}

TEST(Store, IsMadeForItsOwnerAloneWithOneUser) {
    const support::TempFolder folder;
    Store store(folder / "s", Limits());
    commit(store, setting(1, "k", 1));
    for (const char* name : {"s", "s-wal", "s-shm", "s.guard"})
        EXPECT_EQ(modeOf(folder / name), 0600U) << name;
    EXPECT_EQ(store.userCount(), 1);
    EXPECT_TRUE(store.hasUser(1));
    EXPECT_EQ(store.highestUser(), 1);
    EXPECT_EQ(store.revision(), 0);
    EXPECT_EQ(store.epoch().size(), 32U);
}

TEST(Store, TakesRightsAwayThatOthersHaveOnItsFile) {
    const support::TempFolder folder;
    makeStore(folder / "s");
    chmod((folder / "s").c_str(), 0644);
    const Store store(folder / "s", Limits());
    EXPECT_EQ(modeOf(folder / "s"), 0600U);
}

TEST(Store, AnEmptyFileIsAFreshStore) {
    const support::TempFolder folder;
    write(folder / "s", "");
    Store store(folder / "s", Limits());
    EXPECT_TRUE(store.hasUser(1));
}

TEST(Store, NeedsItsFolder) {
    const support::TempFolder folder;
    EXPECT_NE(whyNotOpened(folder / "missing/s").find("No such file"), std::string::npos);
}

TEST(Store, KeepsEverythingThroughBeingClosedAndOpened) {
    const support::TempFolder folder;
    std::string epoch;
    {
        Store store(folder / "s", Limits());
        epoch = store.epoch();
        commit(store, step::AddUser{9});
        commit(store, setting(9, "k", okv::Array{1, "two", okv::Null{}}));
        commit(store, step::Lock{"k", true, {77, 6}});
    }
    Store store(folder / "s", Limits());
    const auto view = store.load();
    EXPECT_EQ(store.epoch(), epoch);
    const auto& held = view->user(9)->settings.at("k");
    EXPECT_EQ(held.value, Value(okv::Array{1, "two", okv::Null{}}));
    EXPECT_EQ(held.stamp.writer, 77);
    EXPECT_EQ(held.stamp.time, 5.5);
    EXPECT_NE(view->lock("k"), nullptr);
}

TEST(Store, RefusesADamagedFileAndLeavesItAsItWas) {
    const support::TempFolder folder;
    makeStore(folder / "good");
    const auto good = bytesOf(folder / "good");
    auto torn = good;
    for (std::size_t i = 4096 * 2; i < torn.size(); i += 512) torn.replace(i, 64, 64, '\x5A');
    const struct {
        const char* name;
        std::string bytes;
        const char* why;
    } lines[] = {
        {"not_a_database", "These are the settings of yore.\n" + std::string(5000, 'x'),
         "not a database"},
        {"cut_off", good.substr(0, good.size() / 2), "damaged"},
        {"torn_pages", torn, "damaged"},
    };
    for (const auto& [name, bytes, why] : lines) {
        write(folder / name, bytes);
        const auto said = whyNotOpened(folder / name);
        EXPECT_TRUE(said.find(why) != std::string::npos ||
                    said.find("malformed") != std::string::npos)
            << name << ": " << said;
        EXPECT_EQ(bytesOf(folder / name), bytes) << name;
    }
}

TEST(Store, RefusesSomebodyElsesDatabaseAndANewerStore) {
    const support::TempFolder folder;
    const struct {
        const char* name;
        const char* script;
        const char* why;
    } lines[] = {
        {"other", "CREATE TABLE t(x); PRAGMA application_id=77;", "no store of this server"},
        {"unmarked", "CREATE TABLE t(x);", "no store of this server"},
        {"newer", "CREATE TABLE t(x); PRAGMA application_id=0x4F4B5636; PRAGMA user_version=99;",
         "newer than this server's"},
    };
    for (const auto& [name, script, why] : lines) {
        datacenter::Database(folder / name, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)
            .execute(script);
        const auto before = bytesOf(folder / name);
        EXPECT_NE(whyNotOpened(folder / name).find(why), std::string::npos) << name;
        EXPECT_EQ(bytesOf(folder / name), before) << name;
    }
}

TEST(Store, IsOpenInOneServerAtATime) {
    const support::TempFolder folder;
    const Store store(folder / "s", Limits());
    EXPECT_NE(whyNotOpened(folder / "s").find("another server"), std::string::npos);
}

TEST(Store, AnOlderCopyThatWasPutBackIsAnotherEpoch) {
    const support::TempFolder folder;
    makeStore(folder / "s");
    const auto backup = bytesOf(folder / "s");
    std::string epoch;
    {
        Store store(folder / "s", Limits());
        epoch = store.epoch();
        datacenter::Change change;
        store.begin();
        store.record(change);
        store.commit();
    }
    { EXPECT_EQ(Store(folder / "s", Limits()).epoch(), epoch); }
    write(folder / "s", backup);
    const auto restored = Store(folder / "s", Limits()).epoch();
    EXPECT_NE(restored, epoch);
    EXPECT_EQ(Store(folder / "s", Limits()).epoch(), restored);
}

namespace {

void recordChange(Store& store) {
    datacenter::Change change;
    store.begin();
    store.record(change);
    store.commit();
}

// As it stands beside a store of that epoch and revision.
std::string markOf(const std::string& epoch, std::int64_t revision) {
    return epoch + " " + std::to_string(revision) + "\n";
}

}  // namespace

TEST(Store, EveryCommitIsMarkedBesideItAndNothingElseIs) {
    const support::TempFolder folder;
    Store store(folder / "s", Limits());
    EXPECT_EQ(bytesOf(folder / "s.guard"), markOf(store.epoch(), 0));
    for (std::int64_t revision = 1; revision <= 12; ++revision) {
        datacenter::Change change;
        store.begin();
        store.record(change);
        EXPECT_EQ(bytesOf(folder / "s.guard"), markOf(store.epoch(), revision - 1))
            << "before the commit";
        store.commit();
        EXPECT_EQ(bytesOf(folder / "s.guard"), markOf(store.epoch(), revision));
    }
    datacenter::Change change;
    store.begin();
    store.record(change);
    store.rollback();
    EXPECT_EQ(bytesOf(folder / "s.guard"), markOf(store.epoch(), 12)) << "taken back";
}

TEST(Store, AMarkThatBecomesShorterIsWrittenWhole) {
    const support::TempFolder folder;
    makeStore(folder / "s");
    const auto backup = bytesOf(folder / "s");
    {
        Store store(folder / "s", Limits());
        for (int i = 0; i < 12; ++i) recordChange(store);
    }
    write(folder / "s", backup);
    Store restored(folder / "s", Limits());
    EXPECT_EQ(bytesOf(folder / "s.guard"), markOf(restored.epoch(), restored.revision()));
}

TEST(Store, AnOlderCopyThatIsPutBackAfterACrashIsAnotherEpoch) {
    const support::TempFolder folder;
    makeStore(folder / "s");
    const auto backup = bytesOf(folder / "s");
    const auto epoch = Store(folder / "s", Limits()).epoch();
    ASSERT_TRUE(support::succeedsInAChild([&] {
        // Never closed.
        auto& store = *new Store(folder / "s", Limits());
        recordChange(store);
    }));
    for (const char* beside : {"s-wal", "s-shm"}) std::filesystem::remove(folder / beside);
    write(folder / "s", backup);
    EXPECT_NE(Store(folder / "s", Limits()).epoch(), epoch);
}

TEST(Store, CountsWhatAScopeHoldsWhateverWayItComesAndGoes) {
    const support::TempFolder folder;
    Store store(folder / "s", Limits());
    const auto holds = [&](std::int64_t keys, std::int64_t bytes) {
        const auto usage = store.usage(1);
        EXPECT_EQ(usage.keys, keys);
        EXPECT_EQ(usage.bytes, bytes);
    };
    commit(store, setting(1, "key", "12345"));  // 3 and 6 bytes
    holds(1, 9);
    commit(store, setting(1, "key", "1"));
    holds(1, 5);
    commit(store, setting(1, "\xE6\x97\xA5", "1"));
    holds(2, 10);
    commit(store, step::List{1, datacenter::UserList::hammerList, "123", okv::encodeCbor("123")});
    holds(2, 14);
    commit(store, setting(1, "key", okv::Null{}));
    holds(1, 9);
    commit(store, step::EmptyUser{1});
    holds(0, 0);
}

TEST(Store, RefusesToReadRowsThatItNeverWrites) {
    for (const char* script : {
             "INSERT INTO settings VALUES(5, 'k', x'01', 0, 0)",      // of no user
             "INSERT INTO lists VALUES(1, 4, x'01')",                 // a fifth list
             "INSERT INTO lists VALUES(7, 1, x'01')",                 // of no user
             "INSERT INTO processes VALUES(-1, 'p', x'01')",          // no such list
             "INSERT INTO settings VALUES(1, 'k', x'FF', 0, 0)",      // no value
             "INSERT INTO changes VALUES(1, 0, 0, 0, 0, 0, x'8101')"  // a key that is no text
         }) {
        const support::TempFolder folder;
        makeStore(folder / "s");
        datacenter::Database(folder / "s", SQLITE_OPEN_READWRITE).execute(script);
        EXPECT_THROW(Store(folder / "s", Limits()), datacenter::StoreDamaged) << script;
    }
}

TEST(Store, ADamagedOneIsSetAsideWithItsLogAndBegunAfreshWhenTold) {
    const support::TempFolder folder;
    makeStore(folder / "s");
    const auto bytes = bytesOf(folder / "s").substr(0, 5000);
    write(folder / "s", bytes);
    write(folder / "s-wal", "what was written last");
    const Store store(folder / "s", Limits(), Store::Damaged::setAside);
    EXPECT_EQ(store.setAside().rfind(folder / "s.damaged-", 0), 0U) << store.setAside();
    EXPECT_EQ(bytesOf(store.setAside()), bytes);
    EXPECT_EQ(bytesOf(store.setAside() + "-wal"), "what was written last");
}

TEST(Store, TwoDamagedOnesOfOneSecondAreBothKept) {
    const support::TempFolder folder;
    std::set<std::string> names;
    for (const char* bytes : {"first damage", "second damage"}) {
        write(folder / "s", bytes);
        const Store store(folder / "s", Limits(), Store::Damaged::setAside);
        EXPECT_EQ(bytesOf(store.setAside()), bytes);
        names.insert(store.setAside());
    }
    EXPECT_EQ(names.size(), 2U);
}

TEST(Store, OneThatIsNotDamagedIsNeverSetAside) {
    const support::TempFolder folder;
    makeStore(folder / "good");
    datacenter::Database(folder / "good", SQLITE_OPEN_READWRITE).execute("PRAGMA user_version=99");
    const auto newer = bytesOf(folder / "good");
    EXPECT_THROW(Store(folder / "good", Limits(), Store::Damaged::setAside),
                 datacenter::StoreError);
    EXPECT_EQ(bytesOf(folder / "good"), newer);
    makeStore(folder / "fine");
    EXPECT_EQ(Store(folder / "fine", Limits(), Store::Damaged::setAside).setAside(), "");
}

TEST(Store, OneThatWasCutOffToNothingIsDamagedAndNotFresh) {
    const support::TempFolder folder;
    makeStore(folder / "s");
    write(folder / "s", "");
    EXPECT_THROW(Store(folder / "s", Limits()), datacenter::StoreDamaged);
    EXPECT_EQ(bytesOf(folder / "s"), "");
}

TEST(Store, TakesBackWhatADroppedRequestDid) {
    const support::TempFolder folder;
    Store store(folder / "s", Limits());
    store.begin();
    store.beginRequest();
    store.carryOut(setting(1, "kept", 1));
    store.keepRequest();
    store.beginRequest();
    store.carryOut(setting(1, "dropped", 1));
    store.carryOut(step::AddUser{8});
    store.dropRequest();
    store.commit();
    const auto view = store.load();
    EXPECT_TRUE(view->user(1)->settings.contains("kept"));
    EXPECT_FALSE(view->user(1)->settings.contains("dropped"));
    EXPECT_EQ(view->user(8), nullptr);
    EXPECT_EQ(view->highestUser(), 1);
}

TEST(Store, TakesBackWhatADroppedRequestDidThatWasAlone) {
    const support::TempFolder folder;
    Store store(folder / "s", Limits());
    store.begin(Store::Holds::oneRequest);
    store.beginRequest();
    store.carryOut(setting(1, "dropped", 1));
    store.carryOut(step::AddUser{8});
    store.dropRequest();
    EXPECT_FALSE(store.isTransactionLost());
    store.commit();
    const auto view = store.load();
    EXPECT_FALSE(view->user(1)->settings.contains("dropped"));
    EXPECT_EQ(view->user(8), nullptr);
}

TEST(Store, KnowsNothingThatADroppedRequestMadeSo) {
    for (const auto holds : {Store::Holds::requests, Store::Holds::oneRequest}) {
        const support::TempFolder folder;
        Store store(folder / "s", Limits());
        store.begin(holds);
        store.beginRequest();
        store.carryOut(step::AddUser{8});
        store.carryOut(step::Lock{"locked", true, {}});
        store.carryOut(setting(8, "key", 1));
        EXPECT_TRUE(store.hasUser(8));
        EXPECT_TRUE(store.isLocked("locked"));
        EXPECT_EQ(store.usage(8).keys, 1);
        store.dropRequest();
        EXPECT_FALSE(store.hasUser(8));
        EXPECT_FALSE(store.isLocked("locked"));
        EXPECT_EQ(store.usage(8).keys, 0);
    }
}

TEST(Store, KnowsAfterEachSettingHowMuchTheUserHas) {
    const support::TempFolder folder;
    Store store(folder / "s", Limits());
    store.begin();
    for (int i = 1; i <= 3; ++i) {
        store.carryOut(setting(1, "key" + std::to_string(i), i));
        EXPECT_EQ(store.usage(1).keys, i);
    }
    store.carryOut(step::EmptyUser{1});
    EXPECT_EQ(store.usage(1).keys, 0);
    store.commit();
}

TEST(Store, SeesInTheNextTransactionWhatAnAdministratorsOwnToolChanged) {
    const support::TempFolder folder;
    Store store(folder / "s", Limits());
    store.begin();
    EXPECT_FALSE(store.hasUser(8));
    EXPECT_FALSE(store.isLocked("locked"));
    EXPECT_EQ(store.usage(1).keys, 0);
    EXPECT_EQ(store.revision(), 0);
    store.commit();
    datacenter::Database tool(folder / "s", SQLITE_OPEN_READWRITE);
    tool.execute(
        "INSERT INTO scopes(id) VALUES(8); INSERT INTO locks VALUES('locked', 0, 0.0);"
        "INSERT INTO settings VALUES(1, 'key', x'01', 0, 0.0);"
        "UPDATE meta SET value = 41 WHERE name = 'revision'");
    store.begin();
    EXPECT_TRUE(store.hasUser(8));
    EXPECT_TRUE(store.isLocked("locked"));
    EXPECT_EQ(store.usage(1).keys, 1);
    EXPECT_EQ(store.revision(), 41);
}
