#pragma once

#include "DurableFile.h"
#include "Limits.h"
#include "Model.h"
#include "Sql.h"

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace datacenter {

/// Why a file cannot serve as the store; it was left as it was.
class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// It is a store no more: its bytes do not hold what a server wrote there.
class StoreDamaged final : public StoreError {
public:
    using StoreError::StoreError;
};

/// It is a sound file, but none that this server can use: of a newer version, or somebody else's.
class StoreForeign final : public StoreError {
public:
    using StoreError::StoreError;
};

/// The settings on the disk: one SQLite file in write-ahead mode, every commit flushed. It carries
/// steps out inside of a transaction and answers what a change must know before it is accepted; the
/// rules themselves are not its business. Opened on one thread, then used by the writer's only.
class Store {
public:
    /// Opens the store, makes it when the file is missing or empty, and brings an older one up to
    /// date. What root makes belongs to the owner of the store that was there, else of its folder.
    /// Its folder must exist. Throws StoreError, with the file untouched, when it is damaged,
    /// somebody else's, of a newer version, or open in another server.
    ///
    /// A store that was there before and is gone, or empty, counts as damaged.
    ///
    /// `setAside` tells what to do with a damaged one instead: its files are moved to
    /// `FILE.damaged-TIME`, and the store begins afresh. Nothing else is ever moved.
    /// `refuseFresh` takes an empty one for damaged, too.
    enum class Damaged { refuse, refuseFresh, setAside };
    Store(std::string file, Limits limits, Damaged damaged = Damaged::refuse);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    const Limits& limits() const noexcept { return limits_; }
    const std::string& epoch() const noexcept { return epoch_; }
    /// Where a damaged store was moved to; empty when there was none.
    const std::string& setAside() const noexcept { return setAside_; }

    /// All that is stored, with what the open transaction has changed. Throws SqlError.
    std::shared_ptr<View> load();
    /// What was read when the store was opened, for whoever asks first; may be asked for once,
    /// before anything is changed.
    std::shared_ptr<View> takeOpened() noexcept { return std::move(opened_); }

    /// Looks at every byte that the engine knows of. Throws StoreDamaged, SqlError.
    void checkThoroughly();
    /// From now on it is another store than all that were seen before. Throws SqlError.
    void renewEpoch();

    /// Keeps other servers out of a store.
    class Guard;

    /// A transaction, and inside of it one request at a time, which may be dropped by itself. For
    /// one that is alone, the transaction itself is begun anew then. All throw SqlError.
    enum class Holds { requests, oneRequest };
    void begin(Holds holds = Holds::requests);
    void commit();
    void rollback() noexcept;
    void beginRequest();
    void keepRequest();
    void dropRequest();
    /// Whether the engine has given the transaction up by itself, as it does when the disk fails.
    bool isTransactionLost() const noexcept { return !database_->inTransaction(); }

    void carryOut(const Step& step);
    /// Gives the change the next revision and writes it down.
    void record(Change& change);
    /// Empties a part of the store before an import fills it anew.
    void clearSettings(Scope scope);
    void clearUsers();
    void clearAccounts();
    void clearLocks();
    void clearProcesses(ProcessList list);
    void setHighestUser(std::int32_t user);
    /// Removes all users but the default one, and empties that.
    void removeUsers();

    okv::Dictionary processes(ProcessList list);
    bool hasUser(std::int32_t user);
    std::optional<std::int32_t> assignedUser(std::int64_t osUid);
    bool isLocked(std::string_view key);
    Usage usage(Scope scope);
    std::int64_t bytesInAll();
    std::int64_t userCount();
    std::int64_t accountCount();
    std::int64_t lockCount();
    ProcessUsage processUsage(ProcessList list);
    /// Whether everything that names a user names one that is there.
    bool isConsistent();
    std::int32_t highestUser();
    std::int64_t revision();
    Clock clock();

private:
    void openAndLookTwice();
    void openOrThrow();
    void open();
    void examine();
    void check(const char* how);
    void refuseEmptied() const;
    void readThrough();
    void writeAhead();
    void requireWritable();
    void migrate(std::int64_t version);
    void noteRestoredBackup();

    void write(const step::Setting& set);
    void write(const step::Lock& set);
    void write(const step::List& set);
    void write(const step::Process& set);
    void write(const step::AddUser& add);
    void write(const step::RemoveUser& remove);
    void write(const step::EmptyUser& empty);
    void write(const step::Assign& assign);
    void write(const step::Switch& change);
    void write(const step::CurrentUser& set);
    void write(const step::ServerClock& set);
    void write(const step::Record& record);
    void write(const step::Processes& whole);
    void write(const step::Reload& reload);

    void loadSettings(View& view);
    void loadUsers(View& view);
    void loadLists(View& view);
    void loadChanges(View& view);

    /// What was read before and still holds. Nobody else writes to a store that is ours, but for an
    /// administrator's own tool, whose hand shows in the engine's version of the data.
    struct Known {
        std::optional<std::int64_t> revision;
        std::unordered_map<Scope, Usage> usage;
        std::unordered_set<std::int32_t> users;  ///< some that are there
        std::optional<std::set<std::string, std::less<>>> locks;
    };
    void forget() noexcept { known_ = Known(); }
    unsigned versionOfData() const noexcept;

    template <class T>
    void setMeta(std::string_view name, const T& value);
    std::int64_t metaNumber(std::string_view name);
    std::string metaText(std::string_view name);

    std::string file_;
    Limits limits_;
    const bool mayBeFresh_;
    const std::optional<Owner> owner_;  ///< of what is made, told before it is set aside
    std::unique_ptr<Guard> guard_;
    std::unique_ptr<Database> database_;
    std::string epoch_;
    std::string setAside_;
    std::shared_ptr<View> opened_;
    Known known_;
    unsigned knownVersion_ = 0;  ///< of the data, when it was known
    Holds holds_ = Holds::requests;
    std::int64_t committed_ = 0;  ///< the last revision that was
};

}  // namespace datacenter
