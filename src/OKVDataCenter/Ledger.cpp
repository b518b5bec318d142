#include "Ledger.h"

#include "Keys.h"

#include <OKVPlatform/values/Cbor.h>

namespace datacenter {

using Kind = okv::Refusal::Kind;

okv::Refusal refusalFor(const SqlError& error) {
    return {error.isFull() ? Kind::noSpace : Kind::failed, error.what()};
}

void Ledger::open() {
    accepted_ = false;
    isReload_ = false;
    denied_ = false;
    keyBytesTold_ = 0;
    reason_.clear();
    failure_.reset();
    stamp_.reset();
    outcome_ = Outcome();
    told_ = Change();
    told_.keys.emplace();
}

Outcome Ledger::close() {
    if (!accepted_) return {};
    if (isReload_) {
        told_.revision = store_.revision();
    } else {
        store_.record(told_);
        remember(step::Record{told_});
    }
    outcome_.told = std::move(told_);
    return std::move(outcome_);
}

bool Ledger::guarded(const std::function<bool()>& body) {
    try {
        return body();
    } catch (const SqlError& error) {
        failure_ = error;
        const auto refusal = refusalFor(error);
        return refuse(refusal.kind, refusal.reason);
    } catch (const std::exception& error) {
        return refuse(Kind::failed, error.what());
    }
}

bool Ledger::refuse(Kind kind, std::string reason) {
    denied_ = kind == Kind::notAllowed;
    reason_ = reason;
    if (auto* invocation = okv::Invocation::current()) invocation->refuse(kind, std::move(reason));
    return false;
}

void Ledger::carryOut(Step&& step) {
    store_.carryOut(step);
    remember(std::move(step));
}

const okv::PeerIdentity* Ledger::caller() const noexcept {
    const auto* invocation = okv::Invocation::current();
    return invocation != nullptr ? &invocation->caller() : nullptr;
}

bool Ledger::isAdministrator() const noexcept {
    const auto* who = caller();
    return who == nullptr || rights_.isAdministrator(*who);
}

Stamp Ledger::stamp() {
    const auto* who = caller();
    if (!stamp_) stamp_ = Stamp{who != nullptr ? std::int64_t{who->uid} : -1, now_()};
    return *stamp_;
}

// Others than administrators change what belongs to the user of their own account.
bool Ledger::mayChange(std::int32_t user) {
    if (isAdministrator()) return true;
    const auto& who = *caller();
    if (who.isAccount() && store_.assignedUser(who.uid) == user) return true;
    return refuse(Kind::notAllowed, "only the account's own user may be changed");
}

bool Ledger::checkKey(const okv::Value& key) {
    return isKey(key, limits()) ||
           refuse(Kind::invalid, "a key is a text of 1 to " + std::to_string(limits().keyBytes) +
                                     " bytes without control characters");
}

bool Ledger::checkUser(std::int32_t user) {
    return store_.hasUser(user) || refuse(Kind::invalid, "no such user");
}

bool Ledger::checkNamed(std::size_t count) {
    return count <= limits().writeKeys ||
           refuse(Kind::tooLarge,
                  "one change names at most " + std::to_string(limits().writeKeys) + " keys");
}

const okv::Dictionary* Ledger::settingsIn(const okv::Value& given) {
    const auto* settings = given.getIf<okv::Dictionary>();
    if (settings == nullptr) refuse(Kind::invalid, "settings are a dictionary of key to value");
    return settings != nullptr && checkNamed(settings->size()) ? settings : nullptr;
}

bool Ledger::encode(const okv::Value& value, std::size_t limit, std::string& encoded) {
    if (!isStorable(value, limits().nesting))
        return refuse(Kind::invalid, "a value holds no nil and is nested at most " +
                                         std::to_string(limits().nesting) + " deep");
    encoded = okv::encodeCbor(value);
    return encoded.size() <= limit ||
           refuse(Kind::tooLarge, "larger than " + std::to_string(limit) + " bytes");
}

// What makes a scope smaller is taken even where it is still too large.
bool Ledger::checkRoom(Scope scope, const Usage& before) {
    const auto after = store_.usage(scope);
    if (after.keys > limits().scopeKeys && after.keys > before.keys)
        return refuse(Kind::tooLarge,
                      "more than " + std::to_string(limits().scopeKeys) + " keys for one user");
    if (after.bytes > limits().scopeBytes && after.bytes > before.bytes)
        return refuse(Kind::tooLarge,
                      "more than " + std::to_string(limits().scopeBytes) + " bytes for one user");
    return true;
}

// A list that a server with other limits left too large can be made smaller step by step.
bool Ledger::checkProcesses(ProcessList list, const ProcessUsage& before) {
    const auto after = store_.processUsage(list);
    const auto items = static_cast<std::int64_t>(limits().replyItems);
    const bool fits = (after.keys <= limits().processes || after.keys <= before.keys) &&
                      (after.bytes <= limits().processBytes || after.bytes <= before.bytes) &&
                      (after.items <= items || after.items <= before.items);
    return fits || refuse(Kind::tooLarge, "too many processes");
}

bool Ledger::checkAccounts(std::int64_t before) {
    const auto after = store_.accountCount();
    return after <= limits().accounts || after <= before ||
           refuse(Kind::tooLarge, "too many accounts");
}

bool Ledger::checkLocks() {
    return store_.lockCount() <= limits().locks || refuse(Kind::tooLarge, "too many locks");
}

void Ledger::tellKey(const std::string& key) {
    keyBytesTold_ += key.size();
    if (!told_.keys) return;
    if (told_.keys->size() == limits().keysTold || keyBytesTold_ > limits().keyBytesTold)
        return tellEveryKey();
    told_.keys->push_back(key);
}

void Ledger::tellSwitch(std::int64_t osUid, std::int32_t user) {
    told_.osUserId = osUid;
    told_.sessionUserId = user;
    told_.appUid = user;
}

}  // namespace datacenter
