#include "Store.h"

#include "Items.h"
#include "View.h"

#include <OKVPlatform/values/Cbor.h>

namespace datacenter {

namespace {

std::int32_t narrow(std::int64_t number) {
    return static_cast<std::int32_t>(number);
}
std::optional<std::int32_t> narrow(std::optional<std::int64_t> number) {
    return number ? std::optional(narrow(*number)) : std::nullopt;
}

// A row that this server never writes: somebody else's hand was in the store.
std::runtime_error strangeRow(const char* table) {
    return std::runtime_error(std::string("a row of the table ") + table + " belongs to nothing");
}

template <class E, std::size_t count>
E numbered(std::int64_t number, const char* table) {
    if (number < 0 || number >= static_cast<std::int64_t>(count)) throw strangeRow(table);
    return static_cast<E>(number);
}

std::optional<std::vector<std::string>> decodedKeys(const Database::Rows& rows, int column) {
    if (rows.isNull(column)) return std::nullopt;
    std::vector<std::string> keys;
    okv::CborReader reader(rows.bytes(column));
    for (auto left = reader.arrayHeader(); left > 0; --left) keys.emplace_back(reader.text());
    return keys;
}

}  // namespace

std::shared_ptr<View> Store::load() {
    auto view = std::make_shared<View>();
    view->begin(epoch_, revision(), limits_.changesKept);
    loadUsers(*view);
    loadSettings(*view);
    loadLists(*view);
    loadChanges(*view);
    view->apply(step::CurrentUser{narrow(metaNumber("current_user"))});
    view->apply(step::ServerClock{clock()});
    view->setHighestUser(highestUser());
    return view;
}

void Store::loadUsers(View& view) {
    for (auto rows = database_->query("SELECT id, keys FROM scopes"); rows.next();) {
        const auto scope = narrow(rows.integer(0));
        if (scope != kEverybody) view.apply(step::AddUser{scope});
        view.reserve(scope, static_cast<std::size_t>(rows.integer(1)));
    }
    for (auto rows = database_->query("SELECT os_uid, assigned, current FROM accounts");
         rows.next();) {
        view.apply(step::Assign{rows.integer(0), narrow(rows.optionalInteger(1))});
        if (const auto current = rows.optionalInteger(2))
            view.apply(step::Switch{rows.integer(0), narrow(*current)});
    }
}

void Store::loadSettings(View& view) {
    auto rows = database_->query("SELECT scope, key, value, writer, time FROM settings");
    while (rows.next()) {
        const auto scope = narrow(rows.integer(0));
        if (scope != kEverybody && view.user(scope) == nullptr) throw strangeRow("settings");
        const auto encoded = rows.bytes(2);
        view.apply(step::Setting{scope, std::string(rows.bytes(1)), okv::decodeCbor(encoded),
                                 std::string(encoded), Stamp{rows.integer(3), rows.real(4)}});
    }
}

void Store::loadLists(View& view) {
    for (auto rows = database_->query("SELECT key, writer, time FROM locks"); rows.next();) {
        view.apply(
            step::Lock{std::string(rows.bytes(0)), true, Stamp{rows.integer(1), rows.real(2)}});
    }
    for (auto rows = database_->query("SELECT user, list, value FROM lists"); rows.next();) {
        const auto user = narrow(rows.integer(0));
        if (view.user(user) == nullptr) throw strangeRow("lists");
        view.apply(step::List{user, numbered<UserList, kUserLists>(rows.integer(1), "lists"),
                              okv::decodeCbor(rows.bytes(2)), std::string(rows.bytes(2))});
    }
    // In the order in which the names came.
    auto rows = database_->query("SELECT list, name, identifier FROM processes ORDER BY rowid");
    while (rows.next()) {
        const auto list = numbered<ProcessList, kProcessLists>(rows.integer(0), "processes");
        view.apply(step::Process{list, std::string(rows.bytes(1)), okv::decodeCbor(rows.bytes(2))});
    }
}

void Store::loadChanges(View& view) {
    auto rows = database_->query(
        "SELECT revision, time, writer, os_user, session_user, app_uid, keys FROM changes "
        "ORDER BY revision");
    while (rows.next()) {
        view.apply(step::Record{Change{rows.integer(0), Stamp{rows.integer(2), rows.real(1)},
                                       rows.integer(3), narrow(rows.integer(4)),
                                       narrow(rows.optionalInteger(5)), decodedKeys(rows, 6)}});
    }
}

okv::Dictionary Store::processes(ProcessList list) {
    okv::Dictionary processes;
    auto rows =
        database_->query("SELECT name, identifier FROM processes WHERE list = ? ORDER BY rowid",
                         static_cast<std::int64_t>(list));
    while (rows.next()) processes.set(std::string(rows.bytes(0)), okv::decodeCbor(rows.bytes(1)));
    return processes;
}

bool Store::hasUser(std::int32_t user) {
    if (user <= kEverybody) return false;
    if (known_.users.contains(user)) return true;
    if (database_->number("SELECT 1 FROM scopes WHERE id = ?", std::int64_t{user}) != 1)
        return false;
    known_.users.insert(user);
    return true;
}

std::optional<std::int32_t> Store::assignedUser(std::int64_t osUid) {
    auto rows = database_->query("SELECT assigned FROM accounts WHERE os_uid = ?", osUid);
    return rows.next() ? narrow(rows.optionalInteger(0)) : std::nullopt;
}

bool Store::isLocked(std::string_view key) {
    if (!known_.locks) {
        std::set<std::string, std::less<>> locks;
        for (auto rows = database_->query("SELECT key FROM locks"); rows.next();)
            locks.emplace(rows.bytes(0));
        known_.locks = std::move(locks);
    }
    return known_.locks->contains(key);
}

Usage Store::usage(Scope scope) {
    if (const auto known = known_.usage.find(scope); known != known_.usage.end())
        return known->second;
    auto rows =
        database_->query("SELECT keys, bytes FROM scopes WHERE id = ?", std::int64_t{scope});
    return known_.usage[scope] = rows.next() ? Usage{rows.integer(0), rows.integer(1)} : Usage{};
}

std::int64_t Store::bytesInAll() {
    return database_->number(
        "SELECT (SELECT total(bytes) FROM scopes) + (SELECT"
        " total(length(CAST(name AS BLOB)) + length(identifier)) FROM processes)");
}

std::int64_t Store::userCount() {
    return database_->number("SELECT count(*) FROM scopes WHERE id > 0");
}

std::int64_t Store::accountCount() {
    return database_->number("SELECT count(*) FROM accounts");
}

std::int64_t Store::lockCount() {
    return database_->number("SELECT count(*) FROM locks");
}

ProcessUsage Store::processUsage(ProcessList list) {
    auto rows = database_->query(
        "SELECT count(*), sum(length(CAST(name AS BLOB)) + length(identifier)) FROM processes "
        "WHERE list = ?",
        static_cast<std::int64_t>(list));
    if (!rows.next()) return {};
    ProcessUsage usage{rows.integer(0), rows.integer(1), 1 + rows.integer(1)};
    // Only what might be too many is counted: there are no more of them than bytes.
    if (usage.items > static_cast<std::int64_t>(limits_.replyItems))
        usage.items = static_cast<std::int64_t>(itemsIn(processes(list)));
    return usage;
}

bool Store::isConsistent() {
    return hasUser(narrow(metaNumber("current_user"))) &&
           database_->number(
               "SELECT count(*) FROM accounts WHERE"
               " assigned NOT IN (SELECT id FROM scopes WHERE id > 0) OR"
               " current NOT IN (SELECT id FROM scopes WHERE id > 0)") == 0;
}

std::int32_t Store::highestUser() {
    return narrow(metaNumber("highest_user"));
}

std::int64_t Store::revision() {
    if (!known_.revision) known_.revision = metaNumber("revision");
    return *known_.revision;
}

Clock Store::clock() {
    auto rows = database_->query(
        "SELECT (SELECT value FROM meta WHERE name = 'clock_time'),"
        " (SELECT value FROM meta WHERE name = 'clock_running'),"
        " (SELECT value FROM meta WHERE name = 'clock_since')");
    rows.next();
    Clock clock{std::nullopt, rows.integer(1) != 0, rows.real(2)};
    if (!rows.isNull(0)) clock.time = rows.real(0);
    return clock;
}

}  // namespace datacenter
