#pragma once

#include "Rights.h"
#include "Store.h"

#include <OKVPlatform/ipc/Message.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace datacenter {

/// What came of one request: the steps that the view takes over and the change that is told to
/// everybody. Neither, where nothing was changed.
struct Outcome {
    std::vector<Step> steps;
    std::optional<Change> told;
};

/// The request that is being carried out on the store: checks what every change must obey, carries
/// its steps out, and remembers them for the view. Belongs to the writer's thread.
class Ledger {
public:
    using Now = std::function<double()>;

    Ledger(Store& store, const Rights& rights, Now now)
        : store_(store), rights_(rights), now_(std::move(now)) {}

    Store& store() const noexcept { return store_; }
    const Limits& limits() const noexcept { return store_.limits(); }
    double now() const { return now_(); }

    /// Forgets the request before.
    void open();
    /// Gives an accepted change its revision; what was not accepted leaves nothing. Throws
    /// SqlError.
    Outcome close();

    /// Runs the body of a change, which answers whether it is accepted; a failing store refuses it.
    template <class Body>
    bool change(Body body) {
        accepted_ = guarded(std::function<bool()>(body));
        if (accepted_) told_.stamp = stamp();
        return accepted_;
    }
    /// As `change`, for what is no change of the store but is told as one.
    template <class Body>
    bool reload(Body body) {
        isReload_ = true;
        return change(body);
    }

    /// Why the request was refused last; empty when it was not.
    const std::string& reason() const noexcept { return reason_; }
    /// What the store failed with while the request was carried out.
    const std::optional<SqlError>& failure() const noexcept { return failure_; }

    /// Whether the request was refused because its caller has no right to it.
    bool isDenied() const noexcept { return denied_; }

    /// Puts the reason beside the zero value; answers false, for bodies to hand on.
    bool refuse(okv::Refusal::Kind kind, std::string reason);
    void carryOut(Step&& step);
    /// So many steps are about to come.
    void expect(std::size_t steps) { outcome_.steps.reserve(steps); }
    void remember(Step&& step) { outcome_.steps.push_back(std::move(step)); }

    /// The account that asks; none when it is the server itself.
    const okv::PeerIdentity* caller() const noexcept;
    bool isAdministrator() const noexcept;
    /// Who makes this change, and when: the same for all of its steps.
    Stamp stamp();

    /// These refuse where the answer is no.
    bool mayChange(std::int32_t user);
    bool checkKey(const okv::Value& key);
    bool checkUser(std::int32_t user);
    /// How many keys or names the request names.
    bool checkNamed(std::size_t count);
    /// What a request to store settings names; null where it is none, or names too many.
    const okv::Dictionary* settingsIn(const okv::Value& given);
    bool encode(const okv::Value& value, std::size_t limit, std::string& encoded);
    bool checkRoom(Scope scope, const Usage& before);
    bool checkProcesses(ProcessList list, const ProcessUsage& before);
    bool checkAccounts(std::int64_t before);
    bool checkLocks();

    /// What is told about the change.
    Change& told() noexcept { return told_; }
    /// Tells the key too, unless there are too many.
    void tellKey(const std::string& key);
    void tellEveryKey() { told_.keys.reset(); }
    void tellSwitch(std::int64_t osUid, std::int32_t user);

private:
    bool guarded(const std::function<bool()>& body);

    Store& store_;
    const Rights& rights_;
    const Now now_;
    bool accepted_ = false;
    bool isReload_ = false;
    bool denied_ = false;
    std::size_t keyBytesTold_ = 0;
    std::string reason_;
    std::optional<SqlError> failure_;
    std::optional<Stamp> stamp_;
    Change told_;
    Outcome outcome_;
};

/// Why a failing store refuses a request.
okv::Refusal refusalFor(const SqlError& error);

}  // namespace datacenter
