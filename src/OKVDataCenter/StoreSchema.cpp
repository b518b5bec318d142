#include "Store.h"

#include <OKVPlatform/values/ErrorText.h>

#include "StoreGuard.h"
#include "View.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

namespace datacenter {

namespace {

// "OKV6" in the header of every store of ours.
constexpr std::int64_t kApplicationId = 0x4F4B5636;
// How long the writer waits for an administrator's own tool that holds the store.
constexpr int kBusyMilliseconds = 2000;

// Step n brings a store from version n to n + 1; a fresh one is of version 0.
//
// Scope 0 is everybody, the others are the users. How much a scope holds is counted by triggers, so
// that it is right whatever way a value comes and goes.
constexpr std::array kSchemaSteps{
    R"(
CREATE TABLE meta(name TEXT PRIMARY KEY, value) WITHOUT ROWID;
CREATE TABLE scopes(id INTEGER PRIMARY KEY, keys INTEGER NOT NULL DEFAULT 0,
                    bytes INTEGER NOT NULL DEFAULT 0);
CREATE TABLE accounts(os_uid INTEGER PRIMARY KEY, assigned INTEGER, current INTEGER);
CREATE TABLE settings(scope INTEGER NOT NULL, key TEXT NOT NULL, value BLOB NOT NULL,
                      writer INTEGER NOT NULL, time REAL NOT NULL,
                      PRIMARY KEY(scope, key)) WITHOUT ROWID;
CREATE TABLE locks(key TEXT PRIMARY KEY, writer INTEGER NOT NULL, time REAL NOT NULL)
    WITHOUT ROWID;
CREATE TABLE lists(user INTEGER NOT NULL, list INTEGER NOT NULL, value BLOB NOT NULL,
                   PRIMARY KEY(user, list)) WITHOUT ROWID;
CREATE TABLE processes(list INTEGER NOT NULL, name TEXT NOT NULL, identifier BLOB NOT NULL,
                       PRIMARY KEY(list, name));
CREATE TABLE changes(revision INTEGER PRIMARY KEY, time REAL NOT NULL, writer INTEGER NOT NULL,
                     os_user INTEGER NOT NULL, session_user INTEGER NOT NULL, app_uid INTEGER,
                     keys BLOB);

CREATE TRIGGER setting_added AFTER INSERT ON settings BEGIN
    UPDATE scopes SET keys = keys + 1,
        bytes = bytes + length(CAST(new.key AS BLOB)) + length(new.value) WHERE id = new.scope;
END;
CREATE TRIGGER setting_replaced AFTER UPDATE ON settings BEGIN
    UPDATE scopes SET bytes = bytes + length(new.value) - length(old.value) WHERE id = new.scope;
END;
CREATE TRIGGER setting_removed AFTER DELETE ON settings BEGIN
    UPDATE scopes SET keys = keys - 1,
        bytes = bytes - length(CAST(old.key AS BLOB)) - length(old.value) WHERE id = old.scope;
END;
CREATE TRIGGER list_added AFTER INSERT ON lists BEGIN
    UPDATE scopes SET bytes = bytes + length(new.value) WHERE id = new.user;
END;
CREATE TRIGGER list_replaced AFTER UPDATE ON lists BEGIN
    UPDATE scopes SET bytes = bytes + length(new.value) - length(old.value) WHERE id = new.user;
END;
CREATE TRIGGER list_removed AFTER DELETE ON lists BEGIN
    UPDATE scopes SET bytes = bytes - length(old.value) WHERE id = old.user;
END;

INSERT INTO scopes(id) VALUES(0), (1);
INSERT INTO meta VALUES('epoch', lower(hex(randomblob(16)))), ('revision', 0), ('current_user', 1),
    ('highest_user', 1), ('clock_time', NULL), ('clock_since', 0.0), ('clock_running', 0);
)"};

constexpr auto kSchemaVersion = static_cast<std::int64_t>(kSchemaSteps.size());

// Made by ourselves, because the engine would make it readable for others.
void makeFile(const std::string& file, const std::optional<Owner>& owner) {
    const okv::PrivateDescriptor made(
        ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (made.isValid()) return giveTo(owner, made.get(), file);
    if (errno != EEXIST)
        throw StoreError("cannot make the store " + file + ": " + okv::errorText(errno));
}

// Throws StoreError when there is such a file and not all of it can be read.
void requireReadable(const std::string& file) {
    const okv::PrivateDescriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor.isValid() && errno == ENOENT) return;
    std::vector<char> bytes(std::size_t{1} << 16);
    ssize_t count = descriptor.isValid() ? 1 : -1;
    while (count > 0 || (count < 0 && errno == EINTR && descriptor.isValid()))
        count = ::read(descriptor.get(), bytes.data(), bytes.size());
    if (count < 0)
        throw StoreError("the store " + file + " cannot be read: " + okv::errorText(errno));
}

std::string inOneLine(std::string_view text) {
    std::string line(text);
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

void leaveUntouched(Database& database, bool untouched) {
    sqlite3_db_config(database.handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, untouched ? 1 : 0,
                      nullptr);
}

}  // namespace

Store::Store(std::string file, Limits limits, Damaged damaged)
    : file_(std::move(file)),
      limits_(limits),
      mayBeFresh_(damaged != Damaged::refuseFresh),
      owner_(ownerOf(file_)),
      guard_(std::make_unique<Guard>(file_)) {
    try {
        openAndLookTwice();
    } catch (const StoreDamaged&) {
        if (damaged != Damaged::setAside) throw;
        database_.reset();
        setAside_ = moveAside(file_, ".damaged-");
        guard_->setMark("", 0);
        openOrThrow();
    }
}

// The engine calls bytes damaged that it could not read. A disk that failed once is asked again,
// and one that still does so says nothing about the store.
void Store::openAndLookTwice() {
    try {
        openOrThrow();
    } catch (const StoreDamaged&) {
        database_.reset();
        requireReadable(file_);
        requireReadable(file_ + "-wal");
        openOrThrow();
    }
}

void Store::openOrThrow() {
    try {
        refuseEmptied();
        makeFile(file_, owner_);  // the engine gives its log to the file's owner
        open();
    } catch (const SqlError& error) {
        if (error.isDamage())
            throw StoreDamaged("the store " + file_ + " is damaged: " + error.what());
        throw StoreError("the store " + file_ + " cannot be used: " + error.what());
    }
}

Store::~Store() {
    forget();
    try {
        guard_->setMark(epoch_, revision());
    } catch (const std::exception&) {
        // The older mark stays.
    }
    database_.reset();  // before the guard: no other server may find it half closed
}

void Store::open() {
    database_ = std::make_unique<Database>(file_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX);
    leaveUntouched(*database_, true);
    sqlite3_busy_timeout(database_->handle(), kBusyMilliseconds);
    sqlite3_db_config(database_->handle(), SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    database_->execute("PRAGMA trusted_schema=OFF; PRAGMA cell_size_check=ON;");
    examine();
    epoch_ = metaText("epoch");
    readThrough();
    leaveUntouched(*database_, false);
    chmod(file_.c_str(), 0600);
    writeAhead();
    database_->execute("PRAGMA synchronous=FULL; PRAGMA cache_size=-16384;");
    database_->execute(("PRAGMA max_page_count=" + std::to_string(limits_.storePages)).c_str());
    requireWritable();
    noteRestoredBackup();
}

// Where the engine cannot, it is no error to it: it answers the mode that it stays in.
void Store::writeAhead() {
    auto rows = database_->query("PRAGMA journal_mode=WAL");
    if (!rows.next() || rows.bytes(0) != "wal")
        throw StoreError("the store " + file_ + " cannot be used: no write-ahead log can be kept");
}

// The engine reads on where it could open the log for reading only, and would refuse every change.
void Store::requireWritable() {
    begin();
    rollback();
}

// Nothing is written before all of this has passed.
void Store::examine() {
    const auto application = database_->number("PRAGMA application_id");
    const auto version = database_->number("PRAGMA user_version");
    const auto tables = database_->number("SELECT count(*) FROM sqlite_schema");
    if (sqlite3_db_readonly(database_->handle(), "main") != 0)
        throw StoreError("the store " + file_ + " cannot be written");
    if (application == 0 && version == 0 && tables == 0) {
        if (!mayBeFresh_) throw StoreDamaged("the store " + file_ + " is damaged: it is empty");
        return migrate(0);
    }
    if (application != kApplicationId)
        throw StoreForeign("the file " + file_ + " is no store of this server");
    if (version > kSchemaVersion)
        throw StoreForeign("the store " + file_ + " is of version " + std::to_string(version) +
                           ", newer than this server's " + std::to_string(kSchemaVersion));
    check("PRAGMA quick_check(1)");
    migrate(version);
}

// The engine takes an empty file for a fresh database, and drops a log beside it. Where there was a
// store before, the file was cut off, or taken away.
void Store::refuseEmptied() const {
    struct stat status {};
    if (guard_->mark().epoch.empty()) return;
    const bool isThere = stat(file_.c_str(), &status) == 0;
    if (!isThere && errno == ENOENT)
        throw StoreDamaged("the store " + file_ + " is damaged: it is gone");
    if (isThere && status.st_size == 0)
        throw StoreDamaged("the store " + file_ + " is damaged: it is empty, and was not before");
}

// The engine finds damage in its own structures only; what the rows hold is looked at here.
void Store::readThrough() {
    try {
        opened_ = load();
    } catch (const SqlError&) {
        throw;
    } catch (const std::runtime_error& error) {
        throw StoreDamaged("the store " + file_ + " is damaged: " + error.what());
    }
}

void Store::migrate(std::int64_t version) {
    if (version == kSchemaVersion) return;
    database_->execute("BEGIN IMMEDIATE");
    for (auto at = static_cast<std::size_t>(version); at < kSchemaSteps.size(); ++at)
        database_->execute(kSchemaSteps[at]);
    const auto stamps = "PRAGMA application_id=" + std::to_string(kApplicationId) +
                        "; PRAGMA user_version=" + std::to_string(kSchemaVersion) + "; COMMIT;";
    database_->execute(stamps.c_str());
}

// Revisions only grow. A store that stands below what was seen in it is an older copy: whoever
// remembers revisions of the newer one must not go on counting from them.
void Store::noteRestoredBackup() {
    const auto mark = guard_->mark();
    if (mark.epoch == epoch_ && revision() < mark.revision) renewEpoch();
    committed_ = revision();
    guard_->setMark(epoch_, committed_);
}

void Store::renewEpoch() {
    database_->run("UPDATE meta SET value = lower(hex(randomblob(16))) WHERE name = 'epoch'");
    epoch_ = metaText("epoch");
    if (opened_) opened_->setEpoch(epoch_);
}

void Store::checkThoroughly() {
    check("PRAGMA integrity_check(1)");
}

void Store::check(const char* how) {
    auto rows = database_->query(how);
    if (!rows.next() || rows.bytes(0) != "ok")
        throw StoreDamaged("the store " + file_ + " is damaged: " + inOneLine(rows.bytes(0)));
}

}  // namespace datacenter
