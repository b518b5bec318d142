#include "Sql.h"

#include <OKVPlatform/values/ErrorText.h>

#include <cerrno>
#include <string>

namespace datacenter {

namespace {

// Of a database's log, where errors of a commit stay that the engine does not hand on.
int logError(sqlite3* database) {
    sqlite3_file* log = nullptr;
    int error = 0;
    if (sqlite3_file_control(database, "main", SQLITE_FCNTL_JOURNAL_POINTER, &log) == SQLITE_OK &&
        log != nullptr && log->pMethods != nullptr)
        log->pMethods->xFileControl(log, SQLITE_FCNTL_LAST_ERRNO, &error);
    return error;
}

// What the system said, where the engine says only that it was the system; 0 for none.
int systemError(sqlite3* database, int code) {
    const bool isSystems = (code & 0xFF) == SQLITE_IOERR || (code & 0xFF) == SQLITE_CANTOPEN;
    if (database == nullptr || !isSystems) return 0;
    const int error = sqlite3_system_errno(database);
    return error != 0 ? error : logError(database);
}

std::string reason(sqlite3* database, int code) {
    const std::string text = database != nullptr ? sqlite3_errmsg(database) : sqlite3_errstr(code);
    const int error = systemError(database, code);
    return error != 0 ? text + ": " + okv::errorText(error) : text;
}

}  // namespace

SqlError::SqlError(sqlite3* database, int code)
    : std::runtime_error(reason(database, code)),
      code_(code & 0xFF),
      overQuota_(systemError(database, code) == EDQUOT) {}

namespace {

// Nobody asks the engine how much memory it takes; counting that takes a lock for every piece.
int countNoMemory() {
    return sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

}  // namespace

Database::Database(const std::string& file, int flags) {
    static const int configured = countNoMemory();  // before the engine's first use
    (void)configured;
    sqlite3* opened = nullptr;
    const int code = sqlite3_open_v2(file.c_str(), &opened, flags, nullptr);
    handle_.reset(opened);
    check(code);
}

void Database::check(int code) const {
    if (code != SQLITE_OK) throw SqlError(handle(), code);
}

void Database::execute(const char* script) {
    check(sqlite3_exec(handle(), script, nullptr, nullptr, nullptr));
}

sqlite3_stmt* Database::prepared(const char* sql) {
    auto& statement = statements_[sql];
    if (!statement) {
        sqlite3_stmt* made = nullptr;
        check(sqlite3_prepare_v3(handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr));
        statement.reset(made);
    }
    return statement.get();
}

int Database::bind(sqlite3_stmt* statement, int position, std::int64_t number) {
    return sqlite3_bind_int64(statement, position, number);
}

int Database::bind(sqlite3_stmt* statement, int position, double number) {
    return sqlite3_bind_double(statement, position, number);
}

// The bytes outlive the statement's use: they are the caller's arguments.
int Database::bind(sqlite3_stmt* statement, int position, std::string_view text) {
    return sqlite3_bind_text64(statement, position, text.data(), text.size(), SQLITE_STATIC,
                               SQLITE_UTF8);
}

int Database::bind(sqlite3_stmt* statement, int position, Blob blob) {
    return sqlite3_bind_blob64(statement, position, blob.bytes.data(), blob.bytes.size(),
                               SQLITE_STATIC);
}

int Database::bind(sqlite3_stmt* statement, int position, std::optional<std::int64_t> number) {
    return number ? bind(statement, position, *number) : sqlite3_bind_null(statement, position);
}

Database::Rows::~Rows() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

bool Database::Rows::next() {
    const int code = sqlite3_step(statement_);
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) return false;
    throw SqlError(sqlite3_db_handle(statement_), code);
}

bool Database::Rows::isNull(int column) const {
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::int64_t Database::Rows::integer(int column) const {
    return sqlite3_column_int64(statement_, column);
}

std::optional<std::int64_t> Database::Rows::optionalInteger(int column) const {
    return isNull(column) ? std::nullopt : std::optional(integer(column));
}

double Database::Rows::real(int column) const {
    return sqlite3_column_double(statement_, column);
}

std::string_view Database::Rows::bytes(int column) const {
    // The bytes first: asking for them may convert, and only then is their number known.
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
    return bytes == nullptr ? std::string_view() : std::string_view(bytes, size);
}

}  // namespace datacenter
