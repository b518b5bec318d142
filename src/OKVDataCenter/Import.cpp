#include "ChangingSide.h"
#include "Keys.h"
#include "Transfer.h"

#include <algorithm>
#include <cmath>

namespace datacenter {

using Kind = okv::Refusal::Kind;
using okv::Dictionary;
using okv::Value;

// What tells only where the dictionary comes from is not taken over.
const Import::Named Import::kParts[] = {
    {"format", &Import::format},
    {"epoch", &Import::ignored},
    {"revision", &Import::ignored},
    {"everybody", &Import::everybody},
    {"users", &Import::users},
    {"accounts", &Import::accounts},
    {"locks", &Import::locks},
    {"current_user", &Import::currentUser},
    {"highest_user", &Import::highestUser},
    {"clock", &Import::clock},
    {kProcessListNames[0], &Import::processes<ProcessList::white>},
    {kProcessListNames[1], &Import::processes<ProcessList::black>},
    {kProcessListNames[2], &Import::processes<ProcessList::killWeb>},
};

bool Import::bad(std::string what) {
    return ledger_.refuse(Kind::invalid, std::move(what));
}

// An import holds many entries: the refusal tells which one it is about.
bool Import::about(Scope scope, const Value& key, bool accepted) {
    auto* const invocation = okv::Invocation::current();
    if (accepted || invocation == nullptr || !invocation->refusal()) return accepted;
    const auto whose = scope == kEverybody ? std::string() : "user " + std::to_string(scope) + ", ";
    const auto [kind, reason] = *invocation->refusal();
    invocation->refuse(kind, whose + key.as<std::string>() + ": " + reason);
    return false;
}

// The parts may come in any order, so what one says of another is looked at in the end.
bool Import::take(const Dictionary& whole) {
    if (!whole.contains("format")) return bad("no \"format\": this is no export");
    for (const auto& [name, part] : whole) {
        if (!takePart(name, part)) return false;
    }
    return store_.isConsistent() || bad("it names users that it does not hold");
}

bool Import::takePart(const Value& name, const Value& part) {
    for (const auto& known : kParts) {
        if (name == Value(known.name)) return (this->*known.take)(part);
    }
    return bad("an unknown part");
}

template <class Take>
bool Import::each(const Value& part, Take take) {
    const auto* dictionary = part.getIf<Dictionary>();
    if (dictionary == nullptr) return bad("a part is not the dictionary it should be");
    return std::all_of(dictionary->begin(), dictionary->end(),
                       [&](const auto& entry) { return take(entry.key, entry.value); });
}

bool Import::format(const Value& part) {
    return part == Value(1) || bad("an export of another form");
}

bool Import::setting(Scope scope, const Value& key, const Value& value) {
    std::string encoded;
    if (!ledger_.checkKey(key) ||
        !about(scope, key, ledger_.encode(value, ledger_.limits().valueBytes, encoded)))
        return false;
    const auto& text = key.as<std::string>();
    if (scope != kEverybody && isSystemKey(text)) return bad("a user with a system setting");
    store_.carryOut(step::Setting{scope, text, value, std::move(encoded), ledger_.stamp()});
    return true;
}

bool Import::settings(Scope scope, const Value& part) {
    return each(part,
                [&](const Value& key, const Value& value) { return setting(scope, key, value); });
}

bool Import::everybody(const Value& part) {
    store_.clearSettings(kEverybody);
    return settings(kEverybody, part) && ledger_.checkRoom(kEverybody, {});
}

bool Import::users(const Value& part) {
    store_.clearUsers();
    const auto taken =
        each(part, [&](const Value& id, const Value& content) { return user(id, content); });
    return taken && (store_.userCount() <= ledger_.limits().users ||
                     ledger_.refuse(Kind::tooLarge, "too many users"));
}

bool Import::user(const Value& id, const Value& content) {
    const auto number = decimalOf(id).value_or(kNoUser);
    if (number < kDefaultUser || number > INT32_MAX) return bad("a user's id is 1 or above");
    const auto user = static_cast<std::int32_t>(number);
    store_.carryOut(step::AddUser{user});
    const auto taken = each(content, [&](const Value& name, const Value& value) {
        return name == Value("settings") ? settings(user, value) : list(user, name, value);
    });
    return taken && ledger_.checkRoom(user, {});
}

bool Import::list(std::int32_t user, const Value& name, const Value& value) {
    const auto known = std::find_if(kUserListNames.begin(), kUserListNames.end(),
                                    [&](auto text) { return name == Value(text); });
    if (known == kUserListNames.end()) return bad("a user with an unknown part");
    std::string encoded;
    if (!about(user, name, ledger_.encode(value, ledger_.limits().listBytes, encoded)))
        return false;
    const auto list = static_cast<UserList>(known - kUserListNames.begin());
    store_.carryOut(step::List{user, list, value, std::move(encoded)});
    return true;
}

bool Import::accounts(const Value& part) {
    store_.clearAccounts();
    const auto taken = each(
        part, [&](const Value& osUid, const Value& content) { return account(osUid, content); });
    return taken && ledger_.checkAccounts(0);
}

// An assignment takes away what the account chose before, so it comes first, whatever the order.
bool Import::account(const Value& osUid, const Value& content) {
    const auto uid = decimalOf(osUid).value_or(-1);
    if (!isAccount(uid) || uid > UINT32_MAX) return bad("an account that is none");
    Account account;
    if (!each(content, [&](const Value& name, const Value& id) { return hand(account, name, id); }))
        return false;
    if (account.assigned) store_.carryOut(step::Assign{uid, *account.assigned});
    if (account.current) store_.carryOut(step::Switch{uid, *account.current});
    return true;
}

bool Import::hand(Account& account, const Value& name, const Value& id) {
    const bool isAssigned = name == Value("appuid");
    if (!isAssigned && name != Value("current")) return bad("an account with an unknown part");
    const auto user = userIdOf(id);
    if (!user) return bad("the user of an account is a number");
    (isAssigned ? account.assigned : account.current) = user;
    return true;
}

bool Import::locks(const Value& part) {
    store_.clearLocks();
    const auto* keys = part.getIf<okv::Array>();
    if (keys == nullptr) return bad("locks are an array of keys");
    for (const auto& key : *keys) {
        if (!ledger_.checkKey(key)) return false;
        store_.carryOut(step::Lock{key.as<std::string>(), true, ledger_.stamp()});
    }
    return ledger_.checkLocks();
}

template <ProcessList list>
bool Import::processes(const Value& part) {
    store_.clearProcesses(list);
    const auto taken = each(part, [&](const Value& name, const Value& identifier) {
        return process(list, name, identifier);
    });
    return taken && ledger_.checkProcesses(list, {});
}

bool Import::process(ProcessList list, const Value& name, const Value& identifier) {
    std::string encoded;
    if (!ledger_.checkKey(name) ||
        !about(kEverybody, name, ledger_.encode(identifier, ledger_.limits().valueBytes, encoded)))
        return false;
    store_.carryOut(step::Process{list, name.as<std::string>(), identifier});
    return true;
}

bool Import::currentUser(const Value& part) {
    const auto id = userIdOf(part);
    if (!id) return bad("the current user is a number");
    store_.carryOut(step::CurrentUser{*id});
    return true;
}

// Ids that were given before the import stay given.
bool Import::highestUser(const Value& part) {
    const auto id = userIdOf(part);
    if (!id) return bad("the highest user is a number");
    store_.setHighestUser(std::max(*id, store_.highestUser()));
    return true;
}

bool Import::clock(const Value& part) {
    Clock clock{std::nullopt, false, ledger_.now()};
    if (!each(part,
              [&](const Value& name, const Value& value) { return hand(clock, name, value); }))
        return false;
    store_.carryOut(step::ServerClock{clock});
    return true;
}

bool Import::hand(Clock& clock, const Value& name, const Value& value) {
    if (name == Value("running")) {
        const auto* running = value.getIf<bool>();
        clock.running = running != nullptr && *running;
        return running != nullptr || bad("whether the clock runs is a boolean");
    }
    const bool isTime = name == Value("time");
    if (!isTime && name != Value("since")) return bad("a clock with an unknown part");
    if (isTime && value.isNull()) return true;
    const auto* date = value.getIf<okv::Date>();
    if (date == nullptr || !std::isfinite(date->secondsSince1970)) return bad("a time is a date");
    (isTime ? clock.time.emplace() : clock.since) = date->secondsSince1970;
    return true;
}

}  // namespace datacenter
