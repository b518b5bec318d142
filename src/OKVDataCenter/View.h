#pragma once

#include "Model.h"

#include <OKVPlatform/values/SeededHash.h>

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <string_view>
#include <unordered_map>

namespace datacenter {

/// What is committed, in memory: answers every read. Built from the store, then kept up by the
/// steps of each committed change, on the thread that answers the reads and on no other.
class View {
public:
    struct Setting {
        okv::Value value;
        std::uint32_t size = 0;  ///< of the key and the encoded value
        Stamp stamp;
    };
    // Seeded, because with self-service strangers choose keys. It may throw as far as the table is
    // told, so that every entry keeps its hash.
    struct TextHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return okv::seededHash(text); }
    };
    using Settings = std::unordered_map<std::string, Setting, TextHash, std::equal_to<>>;
    struct User {
        Settings settings;
        std::array<okv::Value, kUserLists> lists;  ///< nil where nothing is stored
        std::array<std::int64_t, kUserLists> listBytes{};
        std::int64_t settingBytes = 0;
    };
    using Locks = std::map<std::string, Stamp, std::less<>>;

    /// Takes over what the step holds, and leaves in it what that replaces: to destroy that may
    /// take long, and whoever keeps the step does so at leisure.
    void apply(Step& step);
    void apply(Step&& step) { apply(step); }

    /// What a read for the scope finds, and where; null when there is nothing.
    struct Found {
        const Setting* setting = nullptr;
        bool ofUser = false;
    };
    Found find(Scope scope, std::string_view key) const;

    /// Null for an unknown user.
    const User* user(std::int32_t id) const;
    const std::map<std::int32_t, User>& users() const noexcept { return users_; }
    /// An array of the users' ids alone, in ascending order.
    const okv::Value& userIds() const;
    const Settings& everybody() const noexcept { return everybody_; }
    const Stamp* lock(std::string_view key) const;
    const Locks& locks() const noexcept { return locks_; }
    const std::map<std::int64_t, Account>& accounts() const noexcept { return accounts_; }
    const okv::Dictionary& processes(ProcessList list) const;

    /// The account's user, else the default user. Accounts are told by uids of 0 and above.
    std::int32_t userOf(std::int64_t osUid) const;
    /// The user the account last switched to, else its user, else the global current user.
    std::int32_t currentUserOf(std::int64_t osUid) const;
    std::int32_t currentUser() const noexcept { return currentUser_; }
    std::int32_t highestUser() const noexcept { return highestUser_; }
    const Clock& clock() const noexcept { return clock_; }
    const std::string& epoch() const noexcept { return epoch_; }
    std::int64_t revision() const noexcept { return revision_; }
    const std::deque<Change>& changes() const noexcept { return changes_; }
    std::int64_t settingCount() const noexcept { return settingCount_; }
    /// The most keys and the most bytes that one scope holds, be it the same or not.
    Usage fullestScope() const;

    /// For whoever builds a view: what no step tells.
    void begin(std::string epoch, std::int64_t revision, std::int64_t changesKept);
    void setHighestUser(std::int32_t user) noexcept { highestUser_ = user; }
    void setEpoch(std::string epoch) { epoch_ = std::move(epoch); }
    void reserve(Scope scope, std::size_t count);

private:
    void take(step::Setting& set);
    void take(const step::Lock& set);
    void take(step::List& set);
    void take(step::Process& set);
    void take(const step::AddUser& add);
    void take(step::RemoveUser& remove);
    void take(step::EmptyUser& empty);
    void take(const step::Assign& assign);
    void take(const step::Switch& change);
    void take(const step::CurrentUser& set);
    void take(const step::ServerClock& set);
    void take(step::Record& record);
    void take(const step::Processes& whole);
    void take(const step::Reload& reload);
    void remove(Settings& settings, std::int64_t& bytes, step::Setting& set);
    Settings& settingsOf(Scope scope);
    User& userFor(std::int32_t id);
    step::Remains forget(User& user);

    Settings everybody_;
    std::int64_t everybodyBytes_ = 0;
    std::map<std::int32_t, User> users_;
    // Every read of a client asks for the ids first, and the users themselves lie all over the
    // memory. Nil where it must be made anew.
    mutable okv::Value userIds_;
    std::map<std::int64_t, Account> accounts_;
    Locks locks_;
    std::array<okv::Dictionary, kProcessLists> processes_;
    std::int32_t currentUser_ = kDefaultUser;
    std::int32_t highestUser_ = kDefaultUser;
    Clock clock_;
    std::string epoch_;
    std::int64_t revision_ = 0;
    std::int64_t settingCount_ = 0;
    std::int64_t changesKept_ = 0;
    std::deque<Change> changes_;
};

}  // namespace datacenter
