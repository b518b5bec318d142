#pragma once

#include "Model.h"

#include <OKVPlatform/values/Value.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace datacenter {

/// A change, and the epoch of the store that it was made in.
struct Told {
    Change change;
    std::string epoch;
};

/// Where notices go. Any thread; must not wait.
class NoticePoster {
public:
    virtual ~NoticePoster() = default;
    virtual void post(Told told) = 0;
};

/// The user information of a change's notice: what `describe` tells, and "epoch". "osuserid" and
/// "session_userid" are always there, because each client takes a notice for a user switch and
/// reads a missing "osuserid" as root's: -1 and 0 are nobody's.
okv::Dictionary noticeFor(const Told& told);

/// What stands for changes that were not told: of each account the last switch, because no client
/// asks for that by itself, and one change of whatever keys and users at the last revision.
class MissedChanges {
public:
    /// In any order: the revision tells which of two is the later one.
    void add(Told told);
    bool isEmpty() const noexcept { return !last_; }
    /// In order of revision; none is missed any more.
    std::vector<Told> take();

private:
    std::map<std::int64_t, Told> switches_;  ///< of an account
    std::optional<Told> last_;
};

}  // namespace datacenter
