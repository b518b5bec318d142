// How many changes a second the server commits, beside a bare database of the same engine with the
// same settings on the same disk and core: one after the other, and many in one transaction.
//
// Two bare ones: one writes the same rows as the server does (the value, its scope's counts, the
// revision and the journal of changes), the other one row alone in a table of its own.

#include "Contest.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVTesting/RuntimeFolder.h>

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 15;
constexpr int kSingles = 200;
constexpr int kBatch = 1000;
constexpr int kBatches = 10;
constexpr int kThreads = 8;
constexpr int kKeys = 1000;     // written over and over, by all
constexpr int kKeysTold = 256;  // that the server's journal tells of a change

std::string keyOf(int number) {
    return "dc-gui-setting_" + std::to_string(number % kKeys);
}

std::string valueOf(int number) {
    auto value = std::to_string(number);
    value.resize(32, 'v');
    return value;
}

// ---- The bare databases ----

constexpr char kEngineSettings[] =
    "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA cache_size=-16384;";
constexpr char kPut[] =
    "INSERT INTO settings VALUES(1, ?, ?, 0, 0.5) ON CONFLICT(scope, key) DO UPDATE SET "
    "value = excluded.value, writer = excluded.writer, time = excluded.time";

class Bare {
public:
    explicit Bare(const std::string& file) {
        require(sqlite3_open(file.c_str(), &database_));
        run(kEngineSettings);
    }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;
    virtual ~Bare() {
        for (auto* statement : statements_) sqlite3_finalize(statement);
        sqlite3_close(database_);
    }

    void write(int first, int count) {
        run("BEGIN IMMEDIATE");
        for (int i = 0; i < count; ++i) put(first + i);
        note(first, count);
        run("COMMIT");
    }

protected:
    virtual void note(int, int) {}

    sqlite3_stmt* prepare(const char* sql) {
        statements_.push_back(nullptr);
        require(sqlite3_prepare_v2(database_, sql, -1, &statements_.back(), nullptr));
        return statements_.back();
    }
    void step(sqlite3_stmt* statement) {
        if (sqlite3_step(statement) != SQLITE_DONE) throw std::runtime_error("bare write");
        sqlite3_reset(statement);
    }
    void run(const char* script) {
        require(sqlite3_exec(database_, script, nullptr, nullptr, nullptr));
    }

private:
    void put(int number) {
        if (put_ == nullptr) put_ = prepare(kPut);
        const auto key = keyOf(number), value = valueOf(number);
        sqlite3_bind_text(put_, 1, key.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_blob(put_, 2, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
        step(put_);
    }
    void require(int code) {
        if (code != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(database_));
    }

    sqlite3* database_ = nullptr;
    std::vector<sqlite3_stmt*> statements_;
    sqlite3_stmt* put_ = nullptr;
};

class RowAlone final : public Bare {
public:
    explicit RowAlone(const std::string& file) : Bare(file) {
        run("CREATE TABLE settings(scope INTEGER NOT NULL, key TEXT NOT NULL, value BLOB NOT NULL,"
            " writer INTEGER NOT NULL, time REAL NOT NULL, PRIMARY KEY(scope, key)) WITHOUT ROWID");
    }
};

/// Over a store that the server has made.
class SameRows final : public Bare {
public:
    explicit SameRows(const std::string& file)
        : Bare(file),
          revision_(prepare("UPDATE meta SET value = ? WHERE name = 'revision'")),
          change_(prepare("INSERT INTO changes VALUES(?, 0.5, 0, -1, 0, 1, ?)")),
          cut_(prepare("DELETE FROM changes WHERE revision <= ?")) {}

private:
    void note(int first, int count) override {
        std::string keys;
        for (int i = 0; i < std::min(count, kKeysTold); ++i) keys += keyOf(first + i);
        ++last_;
        sqlite3_bind_int64(revision_, 1, last_);
        step(revision_);
        sqlite3_bind_int64(change_, 1, last_);
        sqlite3_bind_blob(change_, 2, keys.data(), static_cast<int>(keys.size()), SQLITE_TRANSIENT);
        step(change_);
        sqlite3_bind_int64(cut_, 1, last_ - 10000);
        step(cut_);
    }

    std::int64_t last_ = 0;
    sqlite3_stmt *revision_, *change_, *cut_;
};

// ---- The server ----

using Root = okv::Ref<okv::RemoteObject>;

Root connect() {
    const auto connection = okv::Connection::connectionWithRegisteredName(kOKVDataServerName);
    if (!connection) throw std::runtime_error("no server");
    return connection->rootProxy();
}

void write(okv::RemoteObject& root, int number) {
    if (!okv::send<&OKVDataMng_protocol::setOKVDataPT_value_appUid>(root, keyOf(number),
                                                                    valueOf(number), 1))
        std::abort();
}

void writeBatch(okv::RemoteObject& root, int first) {
    okv::Dictionary settings;
    settings.reserve(kBatch);
    for (int i = 0; i < kBatch; ++i) settings.insert(keyOf(first + i), valueOf(first + i));
    if (!okv::send<&OKVDataMng_protocol::setOKVDataAllPT_appUid>(root, std::move(settings), 1))
        std::abort();
}

void writeFromThreads(const std::vector<Root>& roots, int first) {
    std::vector<std::thread> writers;
    for (const auto& root : roots) {
        writers.emplace_back([&root, first] {
            for (int i = 0; i < kSingles; ++i) write(*root, first + i);
        });
    }
    for (auto& writer : writers) writer.join();
}

// ---- Rounds ----

int number = 0;

double perSecond(int writes, const std::function<void()>& act) {
    const auto start = Clock::now();
    act();
    return writes / std::chrono::duration<double>(Clock::now() - start).count();
}

double bareSpeed(Bare& bare, int count, int size) {
    return perSecond(count * size, [&] {
        for (int i = 0; i < count; ++i, number += size) bare.write(number, size);
    });
}

double medianRatio(const std::vector<double>& ours, const std::vector<double>& theirs) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < ours.size(); ++i) ratios.push_back(ours[i] / theirs[i]);
    return bench::quantileOf(ratios, 0.5);
}

class Comparison {
public:
    explicit Comparison(const std::string& folder)
        : row_(folder + "/row.db"), rows_(folder + "/rows.db") {}

    void compare(const char* what, int count, int size, const std::function<double()>& speed) {
        std::vector<double> row, rows, ours;
        for (int round = 0; round < kRounds; ++round) {
            row.push_back(bareSpeed(row_, count, size));
            rows.push_back(bareSpeed(rows_, count, size));
            ours.push_back(speed());
        }
        std::printf("%-44s %9.0f %9.0f %9.0f %9.2f %9.2f\n", what, bench::quantileOf(row, 0.5),
                    bench::quantileOf(rows, 0.5), bench::quantileOf(ours, 0.5),
                    medianRatio(ours, row), medianRatio(ours, rows));
    }

private:
    RowAlone row_;
    SameRows rows_;
};

void compareAll(Comparison& comparison) {
    const auto root = connect();
    std::printf("%-44s %9s %9s %9s %9s %9s\n", "changes a second", "one row", "same rows", "ours",
                "of row", "of rows");
    comparison.compare("one by one", kSingles, 1, [&] {
        return perSecond(kSingles, [&] {
            for (int i = 0; i < kSingles; ++i) write(*root, ++number);
        });
    });
    comparison.compare("1,000 in one transaction", kBatches, kBatch, [&] {
        return perSecond(kBatches * kBatch, [&] {
            for (int i = 0; i < kBatches; ++i, number += kBatch) writeBatch(*root, number);
        });
    });
    std::vector<Root> roots;
    for (int i = 0; i < kThreads; ++i) roots.push_back(connect());
    comparison.compare("one by one, ours from 8 connections at once", kSingles, 1, [&] {
        return perSecond(kThreads * kSingles, [&] { writeFromThreads(roots, ++number); });
    });
}

std::unique_ptr<bench::ServerProcess> serverOn(const std::string& file) {
    return std::make_unique<bench::ServerProcess>(
        std::vector<std::string>{OKV_BENCH_SERVER, "--foreground", "--store", file});
}

}  // namespace

int main() {
    std::setbuf(stdout, nullptr);
    bench::pinTo(0);
    const okv::testing::RuntimeFolder folder;
    serverOn(folder.path() / "rows.db");  // makes it, and is gone
    const auto server = serverOn(folder.path() / "store.db");
    Comparison comparison(folder.path());
    compareAll(comparison);
}
