#include "Store.h"

#include "StoreGuard.h"

#include <OKVPlatform/values/Cbor.h>

#include <utility>

namespace datacenter {

namespace {

constexpr const char* kPutSetting =
    "INSERT INTO settings VALUES(?, ?, ?, ?, ?) ON CONFLICT(scope, key) DO UPDATE SET "
    "value = excluded.value, writer = excluded.writer, time = excluded.time";
constexpr const char* kPutList =
    "INSERT INTO lists VALUES(?, ?, ?) ON CONFLICT(user, list) DO UPDATE SET "
    "value = excluded.value";
constexpr const char* kPutChange = "INSERT INTO changes VALUES(?, ?, ?, ?, ?, ?, ?)";
constexpr const char* kDropIdleAccounts =
    "DELETE FROM accounts WHERE assigned IS NULL AND current IS NULL";

// More are forgotten, rather than that they take memory for good.
constexpr std::size_t kScopesKnown = 4096;

std::int64_t number(UserList list) {
    return static_cast<std::int64_t>(list);
}
std::int64_t number(ProcessList list) {
    return static_cast<std::int64_t>(list);
}
std::int64_t wide(std::int32_t number) {
    return number;
}

std::string encodedKeys(const std::vector<std::string>& keys) {
    return okv::encodeCbor(okv::Array(keys.begin(), keys.end()));
}

}  // namespace

// What others have committed shows only in a transaction.
void Store::begin(Holds holds) {
    if (database_->inTransaction()) rollback();  // once more, where it failed for lack of memory
    database_->run("BEGIN IMMEDIATE");
    holds_ = holds;
    if (versionOfData() != knownVersion_) forget();
}

void Store::commit() {
    // Before: once it is committed, nothing may fail any more that would have it refused.
    const auto committed = revision();
    database_->run("COMMIT");
    knownVersion_ = versionOfData();
    if (known_.users.size() + known_.usage.size() > kScopesKnown) forget();
    // An older copy that is put back after a crash is noticed, too.
    if (std::exchange(committed_, committed) != committed) guard_->setMark(epoch_, committed);
}

unsigned Store::versionOfData() const noexcept {
    unsigned version = 0;
    sqlite3_file_control(database_->handle(), "main", SQLITE_FCNTL_DATA_VERSION, &version);
    return version;
}

void Store::rollback() noexcept {
    forget();
    // Where it fails, the next transaction begins with it.
    if (database_->inTransaction())
        sqlite3_exec(database_->handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Store::beginRequest() {
    if (holds_ == Holds::requests) database_->run("SAVEPOINT request");
}

void Store::keepRequest() {
    if (holds_ == Holds::requests) database_->run("RELEASE request");
}

void Store::dropRequest() {
    forget();
    if (holds_ == Holds::oneRequest) {
        database_->run("ROLLBACK");
        database_->run("BEGIN IMMEDIATE");
    } else {
        database_->run("ROLLBACK TO request");
        database_->run("RELEASE request");
    }
}

void Store::carryOut(const Step& step) {
    // Settings come in large numbers and touch little of what is known.
    if (!std::holds_alternative<step::Setting>(step)) forget();
    std::visit([this](const auto& one) { write(one); }, step);
}

void Store::write(const step::Setting& set) {
    known_.usage.erase(set.scope);
    if (set.value.isNull()) {
        database_->run("DELETE FROM settings WHERE scope = ? AND key = ?", wide(set.scope),
                       std::string_view(set.key));
    } else {
        database_->run(kPutSetting, wide(set.scope), std::string_view(set.key), Blob{set.encoded},
                       set.stamp.writer, set.stamp.time);
    }
}

void Store::write(const step::Lock& set) {
    if (set.locked) {
        database_->run("INSERT OR REPLACE INTO locks VALUES(?, ?, ?)", std::string_view(set.key),
                       set.stamp.writer, set.stamp.time);
    } else {
        database_->run("DELETE FROM locks WHERE key = ?", std::string_view(set.key));
    }
}

void Store::write(const step::List& set) {
    if (set.value.isNull()) {
        database_->run("DELETE FROM lists WHERE user = ? AND list = ?", wide(set.user),
                       number(set.list));
    } else {
        database_->run(kPutList, wide(set.user), number(set.list), Blob{set.encoded});
    }
}

void Store::write(const step::Process& set) {
    if (set.identifier.isNull()) {
        database_->run("DELETE FROM processes WHERE list = ? AND name = ?", number(set.list),
                       std::string_view(set.name));
        return;
    }
    const auto encoded = okv::encodeCbor(set.identifier);
    database_->run(
        "INSERT INTO processes VALUES(?, ?, ?) ON CONFLICT(list, name) DO UPDATE SET "
        "identifier = excluded.identifier",
        number(set.list), std::string_view(set.name), Blob{encoded});
}

void Store::write(const step::AddUser& add) {
    database_->run("INSERT OR IGNORE INTO scopes(id) VALUES(?)", wide(add.user));
    if (add.user > highestUser()) setHighestUser(add.user);
}

void Store::write(const step::EmptyUser& empty) {
    database_->run("DELETE FROM settings WHERE scope = ?", wide(empty.user));
    database_->run("DELETE FROM lists WHERE user = ?", wide(empty.user));
}

void Store::write(const step::RemoveUser& remove) {
    const auto user = wide(remove.user);
    write(step::EmptyUser{remove.user});
    database_->run("DELETE FROM scopes WHERE id = ?", user);
    database_->run("UPDATE accounts SET assigned = NULL WHERE assigned = ?", user);
    database_->run("UPDATE accounts SET current = NULL WHERE current = ?", user);
    database_->run(kDropIdleAccounts);
    if (metaNumber("current_user") == user) setMeta("current_user", wide(kDefaultUser));
}

void Store::write(const step::Assign& assign) {
    database_->run("INSERT OR IGNORE INTO accounts(os_uid) VALUES(?)", assign.osUid);
    // A new user is the current one, too: what the account chose before was for the old one.
    if (assign.user) {
        database_->run("UPDATE accounts SET assigned = ?, current = NULL WHERE os_uid = ?",
                       wide(*assign.user), assign.osUid);
        return;
    }
    database_->run("UPDATE accounts SET assigned = NULL WHERE os_uid = ?", assign.osUid);
    database_->run("DELETE FROM accounts WHERE os_uid = ? AND assigned IS NULL AND current IS NULL",
                   assign.osUid);
}

void Store::write(const step::Switch& change) {
    database_->run("INSERT OR IGNORE INTO accounts(os_uid) VALUES(?)", change.osUid);
    database_->run("UPDATE accounts SET current = ? WHERE os_uid = ?", wide(change.user),
                   change.osUid);
}

void Store::write(const step::CurrentUser& set) {
    setMeta("current_user", wide(set.user));
}

void Store::write(const step::ServerClock& set) {
    if (set.clock.time) {
        setMeta("clock_time", *set.clock.time);
    } else {
        setMeta("clock_time", std::optional<std::int64_t>());
    }
    setMeta("clock_since", set.clock.since);
    setMeta("clock_running", std::int64_t{set.clock.running});
}

void Store::write(const step::Record& record) {
    const auto& change = record.change;
    setMeta("revision", change.revision);
    const auto appUid = change.appUid ? std::optional(wide(*change.appUid)) : std::nullopt;
    const auto put = [&](const auto& keys) {
        database_->run(kPutChange, change.revision, change.stamp.time, change.stamp.writer,
                       change.osUserId, wide(change.sessionUserId), appUid, keys);
    };
    if (change.keys) {
        const auto keys = encodedKeys(*change.keys);
        put(Blob{keys});
    } else {
        put(std::optional<std::int64_t>());
    }
    database_->run("DELETE FROM changes WHERE revision <= ?",
                   change.revision - limits_.changesKept);
}

// What is read from the store is not written into it.
void Store::write(const step::Processes&) {}
void Store::write(const step::Reload&) {}

void Store::record(Change& change) {
    change.revision = revision() + 1;
    write(step::Record{change});
    known_.revision = change.revision;
}

void Store::clearSettings(Scope scope) {
    forget();
    database_->run("DELETE FROM settings WHERE scope = ?", wide(scope));
}

void Store::clearUsers() {
    forget();
    database_->run("DELETE FROM settings WHERE scope <> 0");
    database_->run("DELETE FROM lists");
    database_->run("DELETE FROM scopes WHERE id > ?", wide(kDefaultUser));
}

// As RemoveUser does for each, but going through the accounts once: there may be very many.
void Store::removeUsers() {
    clearUsers();
    const auto kept = wide(kDefaultUser);
    database_->run("UPDATE accounts SET assigned = NULL WHERE assigned <> ?", kept);
    database_->run("UPDATE accounts SET current = NULL WHERE current <> ?", kept);
    database_->run(kDropIdleAccounts);
    setMeta("current_user", kept);
}

void Store::clearAccounts() {
    database_->run("DELETE FROM accounts");
}

void Store::clearLocks() {
    forget();
    database_->run("DELETE FROM locks");
}

void Store::clearProcesses(ProcessList list) {
    database_->run("DELETE FROM processes WHERE list = ?", number(list));
}

void Store::setHighestUser(std::int32_t user) {
    setMeta("highest_user", wide(user));
}

template <class T>
void Store::setMeta(std::string_view name, const T& value) {
    database_->run("UPDATE meta SET value = ? WHERE name = ?", value, name);
}

std::int64_t Store::metaNumber(std::string_view name) {
    return database_->number("SELECT value FROM meta WHERE name = ?", name);
}

std::string Store::metaText(std::string_view name) {
    auto rows = database_->query("SELECT value FROM meta WHERE name = ?", name);
    return rows.next() ? std::string(rows.bytes(0)) : std::string();
}

}  // namespace datacenter
