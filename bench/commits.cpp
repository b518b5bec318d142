// How many changes a second the server commits, beside a bare database of the same engine with the
// same settings on the same disk: one after the other, and many in one transaction.
//
// A bare commit writes the row alone; the server writes its journal of changes beside it, carries
// the request over a socket and acknowledges it.

#include "Contest.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVTesting/RuntimeFolder.h>

#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 15;
constexpr int kSingles = 200;
constexpr int kBatch = 1000;
constexpr int kBatches = 10;
constexpr int kThreads = 8;
constexpr int kKeys = 1000;  // written over and over, in both

std::string keyOf(int number) {
    return "dc-gui-setting_" + std::to_string(number % kKeys);
}

std::string valueOf(int number) {
    auto value = std::to_string(number);
    value.resize(32, 'v');
    return value;
}

// ---- The bare database ----

class Bare {
public:
    explicit Bare(const std::string& file) {
        require(sqlite3_open(file.c_str(), &database_));
        run("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA cache_size=-16384;"
            "CREATE TABLE settings(scope INTEGER NOT NULL, key TEXT NOT NULL, value BLOB NOT NULL,"
            " writer INTEGER NOT NULL, time REAL NOT NULL, PRIMARY KEY(scope, key)) WITHOUT ROWID");
        require(sqlite3_prepare_v2(database_,
                                   "INSERT INTO settings VALUES(1, ?, ?, 0, 0.5) ON "
                                   "CONFLICT(scope, key) DO UPDATE SET value = excluded.value, "
                                   "writer = excluded.writer, time = excluded.time",
                                   -1, &put_, nullptr));
    }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;
    ~Bare() {
        sqlite3_finalize(put_);
        sqlite3_close(database_);
    }

    void write(int number) {
        const auto key = keyOf(number), value = valueOf(number);
        sqlite3_bind_text(put_, 1, key.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_blob(put_, 2, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
        if (sqlite3_step(put_) != SQLITE_DONE) throw std::runtime_error("bare write");
        sqlite3_reset(put_);
    }
    void writeBatch(int first) {
        run("BEGIN IMMEDIATE");
        for (int i = 0; i < kBatch; ++i) write(first + i);
        run("COMMIT");
    }

private:
    void run(const char* script) {
        require(sqlite3_exec(database_, script, nullptr, nullptr, nullptr));
    }
    void require(int code) {
        if (code != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(database_));
    }

    sqlite3* database_ = nullptr;
    sqlite3_stmt* put_ = nullptr;
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

double perSecond(int writes, const std::function<void()>& act) {
    const auto start = Clock::now();
    act();
    return writes / std::chrono::duration<double>(Clock::now() - start).count();
}

template <class Act>
double timesOver(int count, int step, Act act) {
    static int number = 0;
    return perSecond(count * step, [&] {
        for (int i = 0; i < count; ++i, number += step) act(number);
    });
}

void compare(const char* what, const std::function<double()>& bare,
             const std::function<double()>& ours) {
    bare();
    ours();  // warm
    std::vector<double> bares, all, ratios;
    for (int round = 0; round < kRounds; ++round) {
        bares.push_back(bare());
        all.push_back(ours());
        ratios.push_back(all.back() / bares.back());
    }
    std::printf("%-48s %10.0f %10.0f %7.2f\n", what, bench::quantileOf(bares, 0.5),
                bench::quantileOf(all, 0.5), bench::quantileOf(ratios, 0.5));
}

void compareAll(const std::string& folder) {
    Bare bare(folder + "/bare.db");
    const auto root = connect();
    std::printf("%-48s %10s %10s %7s\n", "changes a second", "bare", "ours", "of bare");
    const auto bareSingles = [&] {
        return timesOver(kSingles, 1, [&](int number) { bare.write(number); });
    };
    compare("one by one", bareSingles,
            [&] { return timesOver(kSingles, 1, [&](int number) { write(*root, number); }); });
    compare(
        "1,000 in one transaction",
        [&] { return timesOver(kBatches, kBatch, [&](int first) { bare.writeBatch(first); }); },
        [&] { return timesOver(kBatches, kBatch, [&](int first) { writeBatch(*root, first); }); });
    std::vector<Root> roots;
    for (int i = 0; i < kThreads; ++i) roots.push_back(connect());
    compare("one by one, ours from 8 connections at once", bareSingles, [&] {
        return timesOver(1, kThreads * kSingles,
                         [&](int first) { writeFromThreads(roots, first); });
    });
}

}  // namespace

int main() {
    std::setbuf(stdout, nullptr);
    const okv::testing::RuntimeFolder folder;
    const bench::ServerProcess server(
        {OKV_BENCH_SERVER, "--foreground", "--store", (folder.path() / "store.db").string()});
    compareAll(folder.path());
}
