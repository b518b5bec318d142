#pragma once

#include "ExportNames.h"

#include <OKVPlatform/ipc/PeerIdentity.h>
#include <OKVPlatform/values/Value.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace datacenter {

/// Whose values: an application user's id, or everybody's.
using Scope = std::int32_t;
inline constexpr Scope kEverybody = 0;
/// The user that a fresh store has and that is never removed.
inline constexpr std::int32_t kDefaultUser = 1;
/// No account, or an account without a user.
inline constexpr std::int32_t kNoUser = -1;

/// The account whose uid the wire tells as a 32-bit int: uids from 2^31 on come negative there.
constexpr std::int64_t accountOf(std::int32_t osUid) {
    return static_cast<std::uint32_t>(osUid);
}
/// Accounts are told by uids of 0 and above; the overflow uid stands for somebody of another
/// namespace.
constexpr bool isAccount(std::int64_t osUid) {
    return osUid >= 0 && osUid != std::int64_t{okv::kOverflowUid};
}

/// The four lists of a user, as they are numbered in the store; named in the same order.
enum class UserList : std::uint8_t { userSetting, contentsWords, hammerList, blackExtensionList };
inline constexpr std::size_t kUserLists = kUserListNames.size();

/// The three process lists, as they are numbered in the store.
enum class ProcessList : std::uint8_t { white, black, killWeb };
inline constexpr std::size_t kProcessLists = kProcessListNames.size();

/// Who wrote something (the account's uid), and when (seconds since 1970).
struct Stamp {
    std::int64_t writer = 0;
    double time = 0;
};

/// What an account has: the user assigned to it, and the one it last switched to.
struct Account {
    std::optional<std::int32_t> assigned;
    std::optional<std::int32_t> current;
};

/// The server's clock: none until it is set; running it follows the real time, else it stands.
struct Clock {
    std::optional<double> time;  ///< what it showed at `since`
    bool running = false;
    double since = 0;  ///< real time, seconds since 1970

    std::optional<double> at(double now) const {
        return time && running ? std::optional(*time + (now - since)) : time;
    }
};

/// One accepted change request, as it is told to those who ask what changed.
struct Change {
    std::int64_t revision = 0;
    Stamp stamp;
    std::int64_t osUserId = -1;      ///< the account of a user switch
    std::int32_t sessionUserId = 0;  ///< its new user
    std::optional<std::int32_t> appUid;
    std::optional<std::vector<std::string>> keys;  ///< none: more than are told
};

/// How much of a scope's room is taken.
struct Usage {
    std::int64_t keys = 0;
    std::int64_t bytes = 0;
};

/// How much of a process list's room is taken.
struct ProcessUsage {
    std::int64_t keys = 0;
    std::int64_t bytes = 0;
    std::int64_t items = 0;  ///< at most; exactly where they are more than a reply carries
};

class View;

/// The steps that a change is made of. The store writes the same steps to the disk that the view
/// takes over in memory; both understand each of them in the same way.
namespace step {
struct Setting {
    Scope scope;
    std::string key;
    okv::Value value;     ///< the null object takes it away
    std::string encoded;  ///< the value's bytes
    Stamp stamp;
};
struct Lock {
    std::string key;
    bool locked;
    Stamp stamp;
};
struct List {
    std::int32_t user;
    UserList list;
    okv::Value value;  ///< the null object takes it away
    std::string encoded;
};
struct Process {
    ProcessList list;
    std::string name;
    okv::Value identifier;  ///< the null object takes the name away
};
struct AddUser {
    std::int32_t user;
};
/// What a view gave up for a step.
using Remains = std::shared_ptr<void>;
/// With its values, its lists, its assignments, and wherever it is the current user.
struct RemoveUser {
    std::int32_t user;
    Remains remains = nullptr;
};
/// Only its values and lists.
struct EmptyUser {
    std::int32_t user;
    Remains remains = nullptr;
};
struct Assign {
    std::int64_t osUid;
    std::optional<std::int32_t> user;
};
struct Switch {
    std::int64_t osUid;
    std::int32_t user;
};
struct CurrentUser {
    std::int32_t user;
};
struct ServerClock {
    Clock clock;
};
/// Ends the steps of a change: its revision is the store's now.
struct Record {
    Change change;
};
/// One process list as a whole, read from the store.
struct Processes {
    ProcessList list;
    std::shared_ptr<okv::Dictionary> processes;
};
/// All that the store holds, read anew.
struct Reload {
    std::shared_ptr<View> view;
};
}  // namespace step

using Step =
    std::variant<step::Setting, step::Lock, step::List, step::Process, step::AddUser,
                 step::RemoveUser, step::EmptyUser, step::Assign, step::Switch, step::CurrentUser,
                 step::ServerClock, step::Record, step::Processes, step::Reload>;

}  // namespace datacenter
