#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

namespace datacenter {

/// What the store's engine could not do.
class SqlError final : public std::runtime_error {
public:
    SqlError(sqlite3* database, int code);
    bool isFull() const noexcept { return code_ == SQLITE_FULL || overQuota_; }
    bool isDamage() const noexcept { return code_ == SQLITE_CORRUPT || code_ == SQLITE_NOTADB; }

private:
    int code_;
    bool overQuota_;
};

/// Bytes to be stored as they are, not as text.
struct Blob {
    std::string_view bytes;
};

/// One connection to a database file. Statements are prepared at their first use and kept, by the
/// address of their text: pass literals. Not to be shared between threads.
class Database {
public:
    /// The rows that a statement gives; gives the statement back when it goes.
    class Rows {
    public:
        explicit Rows(sqlite3_stmt* statement) noexcept : statement_(statement) {}
        Rows(const Rows&) = delete;
        Rows& operator=(const Rows&) = delete;
        ~Rows();

        /// Steps to the next row; false after the last one.
        bool next();
        bool isNull(int column) const;
        std::int64_t integer(int column) const;
        std::optional<std::int64_t> optionalInteger(int column) const;
        double real(int column) const;
        /// A text's or blob's bytes, valid until the next step.
        std::string_view bytes(int column) const;

    private:
        sqlite3_stmt* statement_;
    };

    /// Throws SqlError.
    Database(const std::string& file, int flags);

    sqlite3* handle() const noexcept { return handle_.get(); }

    /// Runs a script without arguments and results.
    void execute(const char* script);

    template <class... Arguments>
    Rows query(const char* sql, const Arguments&... arguments) {
        sqlite3_stmt* statement = prepared(sql);
        int position = 0;
        (check(bind(statement, ++position, arguments)), ...);
        return Rows(statement);
    }
    template <class... Arguments>
    void run(const char* sql, const Arguments&... arguments) {
        auto rows = query(sql, arguments...);
        while (rows.next()) {
        }
    }
    /// The first column of the first row; 0 when there is none.
    template <class... Arguments>
    std::int64_t number(const char* sql, const Arguments&... arguments) {
        auto rows = query(sql, arguments...);
        return rows.next() ? rows.integer(0) : 0;
    }

    bool inTransaction() const noexcept { return sqlite3_get_autocommit(handle()) == 0; }

private:
    struct Closer {
        void operator()(sqlite3* database) const noexcept { sqlite3_close_v2(database); }
    };
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
    };

    static int bind(sqlite3_stmt* statement, int position, std::int64_t number);
    static int bind(sqlite3_stmt* statement, int position, double number);
    static int bind(sqlite3_stmt* statement, int position, std::string_view text);
    static int bind(sqlite3_stmt* statement, int position, Blob blob);
    static int bind(sqlite3_stmt* statement, int position, std::optional<std::int64_t> number);

    sqlite3_stmt* prepared(const char* sql);
    void check(int code) const;

    std::unique_ptr<sqlite3, Closer> handle_;
    std::unordered_map<const char*, std::unique_ptr<sqlite3_stmt, Finalizer>> statements_;
};

}  // namespace datacenter
