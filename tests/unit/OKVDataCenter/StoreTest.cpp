#include "Harness.h"
#include "View.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

using datacenter::Limits;
using datacenter::Store;
using datacenter::StoreError;
using okv::Value;
namespace step = datacenter::step;

namespace {

std::string bytesOf(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream bytes;
    bytes << stream.rdbuf();
    return bytes.str();
}

void write(const std::string& file, const std::string& bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
}

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

TEST(Store, IsMadeForItsOwnerAloneWithOneUser) {
    const TemporaryFolder folder;
    Store store(folder.file("s"), Limits());
    commit(store, setting(1, "k", 1));
    for (const char* name : {"s", "s-wal", "s-shm", "s.guard"})
        EXPECT_EQ(modeOf(folder.file(name)), 0600U) << name;
    EXPECT_EQ(store.users(), std::vector<std::int32_t>{1});
    EXPECT_EQ(store.highestUser(), 1);
    EXPECT_EQ(store.revision(), 0);
    EXPECT_EQ(store.epoch().size(), 32U);
}

TEST(Store, TakesRightsAwayThatOthersHaveOnItsFile) {
    const TemporaryFolder folder;
    makeStore(folder.file("s"));
    chmod(folder.file("s").c_str(), 0644);
    const Store store(folder.file("s"), Limits());
    EXPECT_EQ(modeOf(folder.file("s")), 0600U);
}

TEST(Store, AnEmptyFileIsAFreshStore) {
    const TemporaryFolder folder;
    write(folder.file("s"), "");
    Store store(folder.file("s"), Limits());
    EXPECT_TRUE(store.hasUser(1));
}

TEST(Store, NeedsItsFolder) {
    const TemporaryFolder folder;
    EXPECT_NE(whyNotOpened(folder.file("missing/s")).find("No such file"), std::string::npos);
}

TEST(Store, KeepsEverythingThroughBeingClosedAndOpened) {
    const TemporaryFolder folder;
    std::string epoch;
    {
        Store store(folder.file("s"), Limits());
        epoch = store.epoch();
        commit(store, step::AddUser{9});
        commit(store, setting(9, "k", okv::Array{1, "two", okv::Null{}}));
        commit(store, step::Lock{"k", true, {77, 6}});
    }
    Store store(folder.file("s"), Limits());
    const auto view = store.load();
    EXPECT_EQ(store.epoch(), epoch);
    const auto& held = view->user(9)->settings.at("k");
    EXPECT_EQ(held.value, Value(okv::Array{1, "two", okv::Null{}}));
    EXPECT_EQ(held.stamp.writer, 77);
    EXPECT_EQ(held.stamp.time, 5.5);
    EXPECT_NE(view->lock("k"), nullptr);
}

TEST(Store, RefusesADamagedFileAndLeavesItAsItWas) {
    const TemporaryFolder folder;
    makeStore(folder.file("good"));
    const auto good = bytesOf(folder.file("good"));
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
        write(folder.file(name), bytes);
        const auto said = whyNotOpened(folder.file(name));
        EXPECT_TRUE(said.find(why) != std::string::npos ||
                    said.find("malformed") != std::string::npos)
            << name << ": " << said;
        EXPECT_EQ(bytesOf(folder.file(name)), bytes) << name;
    }
}

TEST(Store, RefusesSomebodyElsesDatabaseAndANewerStore) {
    const TemporaryFolder folder;
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
        datacenter::Database(folder.file(name), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)
            .execute(script);
        const auto before = bytesOf(folder.file(name));
        EXPECT_NE(whyNotOpened(folder.file(name)).find(why), std::string::npos) << name;
        EXPECT_EQ(bytesOf(folder.file(name)), before) << name;
    }
}

TEST(Store, IsOpenInOneServerAtATime) {
    const TemporaryFolder folder;
    const Store store(folder.file("s"), Limits());
    EXPECT_NE(whyNotOpened(folder.file("s")).find("another server"), std::string::npos);
}

TEST(Store, AnOlderCopyThatWasPutBackIsAnotherEpoch) {
    const TemporaryFolder folder;
    makeStore(folder.file("s"));
    const auto backup = bytesOf(folder.file("s"));
    std::string epoch;
    {
        Store store(folder.file("s"), Limits());
        epoch = store.epoch();
        datacenter::Change change;
        store.begin();
        store.record(change);
        store.commit();
    }
    { EXPECT_EQ(Store(folder.file("s"), Limits()).epoch(), epoch); }
    write(folder.file("s"), backup);
    const auto restored = Store(folder.file("s"), Limits()).epoch();
    EXPECT_NE(restored, epoch);
    EXPECT_EQ(Store(folder.file("s"), Limits()).epoch(), restored);
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
    const TemporaryFolder folder;
    Store store(folder.file("s"), Limits());
    EXPECT_EQ(bytesOf(folder.file("s.guard")), markOf(store.epoch(), 0));
    for (std::int64_t revision = 1; revision <= 12; ++revision) {
        datacenter::Change change;
        store.begin();
        store.record(change);
        EXPECT_EQ(bytesOf(folder.file("s.guard")), markOf(store.epoch(), revision - 1))
            << "before the commit";
        store.commit();
        EXPECT_EQ(bytesOf(folder.file("s.guard")), markOf(store.epoch(), revision));
    }
    datacenter::Change change;
    store.begin();
    store.record(change);
    store.rollback();
    EXPECT_EQ(bytesOf(folder.file("s.guard")), markOf(store.epoch(), 12)) << "taken back";
}

TEST(Store, AMarkThatBecomesShorterIsWrittenWhole) {
    const TemporaryFolder folder;
    makeStore(folder.file("s"));
    const auto backup = bytesOf(folder.file("s"));
    {
        Store store(folder.file("s"), Limits());
        for (int i = 0; i < 12; ++i) recordChange(store);
    }
    write(folder.file("s"), backup);
    Store restored(folder.file("s"), Limits());
    EXPECT_EQ(bytesOf(folder.file("s.guard")), markOf(restored.epoch(), restored.revision()));
}

TEST(Store, AnOlderCopyThatIsPutBackAfterACrashIsAnotherEpoch) {
    const TemporaryFolder folder;
    makeStore(folder.file("s"));
    const auto backup = bytesOf(folder.file("s"));
    const auto epoch = Store(folder.file("s"), Limits()).epoch();
    const pid_t child = fork();
    if (child == 0) {
        Store store(folder.file("s"), Limits());
        recordChange(store);
        _exit(0);  // the store is not closed
    }
    int status = -1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    for (const char* beside : {"s-wal", "s-shm"}) std::filesystem::remove(folder.file(beside));
    write(folder.file("s"), backup);
    EXPECT_NE(Store(folder.file("s"), Limits()).epoch(), epoch);
}

TEST(Store, CountsWhatAScopeHoldsWhateverWayItComesAndGoes) {
    const TemporaryFolder folder;
    Store store(folder.file("s"), Limits());
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
        const TemporaryFolder folder;
        makeStore(folder.file("s"));
        datacenter::Database(folder.file("s"), SQLITE_OPEN_READWRITE).execute(script);
        EXPECT_THROW(Store(folder.file("s"), Limits()), datacenter::StoreDamaged) << script;
    }
}

TEST(Store, ADamagedOneIsSetAsideWithItsLogAndBegunAfreshWhenTold) {
    const TemporaryFolder folder;
    makeStore(folder.file("s"));
    const auto bytes = bytesOf(folder.file("s")).substr(0, 5000);
    write(folder.file("s"), bytes);
    write(folder.file("s-wal"), "what was written last");
    const Store store(folder.file("s"), Limits(), Store::Damaged::setAside);
    EXPECT_EQ(store.setAside().rfind(folder.file("s.damaged-"), 0), 0U) << store.setAside();
    EXPECT_EQ(bytesOf(store.setAside()), bytes);
    EXPECT_EQ(bytesOf(store.setAside() + "-wal"), "what was written last");
}

TEST(Store, TwoDamagedOnesOfOneSecondAreBothKept) {
    const TemporaryFolder folder;
    std::set<std::string> names;
    for (const char* bytes : {"first damage", "second damage"}) {
        write(folder.file("s"), bytes);
        const Store store(folder.file("s"), Limits(), Store::Damaged::setAside);
        EXPECT_EQ(bytesOf(store.setAside()), bytes);
        names.insert(store.setAside());
    }
    EXPECT_EQ(names.size(), 2U);
}

TEST(Store, OneThatIsNotDamagedIsNeverSetAside) {
    const TemporaryFolder folder;
    makeStore(folder.file("good"));
    datacenter::Database(folder.file("good"), SQLITE_OPEN_READWRITE)
        .execute("PRAGMA user_version=99");
    const auto newer = bytesOf(folder.file("good"));
    EXPECT_THROW(Store(folder.file("good"), Limits(), Store::Damaged::setAside),
                 datacenter::StoreError);
    EXPECT_EQ(bytesOf(folder.file("good")), newer);
    makeStore(folder.file("fine"));
    EXPECT_EQ(Store(folder.file("fine"), Limits(), Store::Damaged::setAside).setAside(), "");
}

TEST(Store, OneThatWasCutOffToNothingIsDamagedAndNotFresh) {
    const TemporaryFolder folder;
    makeStore(folder.file("s"));
    write(folder.file("s"), "");
    EXPECT_THROW(Store(folder.file("s"), Limits()), datacenter::StoreDamaged);
    EXPECT_EQ(bytesOf(folder.file("s")), "");
}

TEST(Store, TakesBackWhatADroppedRequestDid) {
    const TemporaryFolder folder;
    Store store(folder.file("s"), Limits());
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
