#include "ChangingSide.h"

#include "Keys.h"
#include "View.h"

#include <algorithm>

namespace datacenter {

using Kind = okv::Refusal::Kind;
using okv::Value;

namespace {

constexpr char kAgentAutoRunKey[] = "dc-syscmnf-agent_auto_run";

bool isOfSystem(const Value& key) {
    const auto* text = key.getIf<std::string>();
    return text != nullptr && isSystemKey(*text);
}

}  // namespace

std::int32_t ChangingSide::assignedUser(std::int32_t osUid) const {
    return ledger_.store().assignedUser(accountOf(osUid)).value_or(kNoUser);
}

// Whether a well-formed key may be written for the user.
bool ChangingSide::mayWrite(const std::string& key, std::int32_t appUid) {
    if (isSystemKey(key))
        return ledger_.isAdministrator() ||
               ledger_.refuse(Kind::notAllowed, "the system's settings are the administrator's");
    if (!ledger_.checkUser(appUid) || !ledger_.mayChange(appUid)) return false;
    return !ledger_.store().isLocked(key) ||
           ledger_.refuse(Kind::locked, "the key " + key + " is locked");
}

bool ChangingSide::setOne(const Value& key, const Value& value, std::int32_t appUid) {
    std::string encoded;
    if (!ledger_.checkKey(key)) return false;
    const auto& text = key.as<std::string>();
    if (!mayWrite(text, appUid) || !ledger_.encode(value, ledger_.limits().valueBytes, encoded))
        return false;
    const Scope scope = isSystemKey(text) ? kEverybody : appUid;
    ledger_.carryOut(step::Setting{scope, text, value, std::move(encoded), ledger_.stamp()});
    if (scope != kEverybody) ledger_.told().appUid = appUid;
    ledger_.tellKey(text);
    return true;
}

bool ChangingSide::setWithinRoom(const Value& key, const Value& value, std::int32_t appUid) {
    const Scope scope = isOfSystem(key) ? kEverybody : appUid;
    const auto before = ledger_.store().usage(scope);
    return setOne(key, value, appUid) && ledger_.checkRoom(scope, before);
}

bool ChangingSide::setSettings(const Value& given, std::int32_t appUid) {
    const auto* dictionary = ledger_.settingsIn(given);
    if (dictionary == nullptr) return false;
    const auto& settings = *dictionary;
    // Nothing to store is a write for the user all the same.
    if (settings.empty()) return ledger_.checkUser(appUid) && ledger_.mayChange(appUid);
    const auto everybodys = ledger_.store().usage(kEverybody);
    const auto users = ledger_.store().usage(appUid);
    ledger_.expect(settings.size() + 1);  // and the record of the change
    for (const auto& [key, value] : settings) {
        if (!setOne(key, value, appUid)) return false;
    }
    // Told as the user's change, the others would not read what is everybody's again.
    if (std::any_of(settings.begin(), settings.end(),
                    [](const auto& entry) { return isOfSystem(entry.key); }))
        ledger_.told().appUid.reset();
    return ledger_.checkRoom(kEverybody, everybodys) && ledger_.checkRoom(appUid, users);
}

bool ChangingSide::setOKVDataPT_value_appUid(const Value& key, const Value& value,
                                             std::int32_t appUid) {
    return ledger_.change([&] { return setWithinRoom(key, value, appUid); });
}

bool ChangingSide::setOKVDataPT_value_osUid(const Value& key, const Value& value,
                                            std::int32_t osUid) {
    return ledger_.change([&] { return setWithinRoom(key, value, assignedUser(osUid)); });
}

bool ChangingSide::setOKVDataAllPT_appUid(const Value& settings, std::int32_t appUid) {
    return ledger_.change([&] { return setSettings(settings, appUid); });
}

bool ChangingSide::setOKVDataAllPT_osUid(const Value& settings, std::int32_t osUid) {
    return ledger_.change([&] { return setSettings(settings, assignedUser(osUid)); });
}

bool ChangingSide::setAgentAutoRunPT(bool flag) {
    return ledger_.change([&] { return setWithinRoom(kAgentAutoRunKey, flag, kDefaultUser); });
}

bool ChangingSide::reloadDataPT() {
    return ledger_.reload([&] {
        ledger_.remember(step::Reload{ledger_.store().load()});
        ledger_.tellEveryKey();
        return true;
    });
}

// Users and accounts are not kept apart from the rest: all is read again.
void ChangingSide::useridUpdatePT() {
    reloadDataPT();
}

bool ChangingSide::setList(const Value& user, UserList list, const Value& value) {
    return ledger_.change([&] {
        const auto id = userIdOf(user).value_or(kNoUser);
        std::string encoded;
        if (!ledger_.checkUser(id) || !ledger_.mayChange(id) ||
            !ledger_.encode(value, ledger_.limits().listBytes, encoded))
            return false;
        const auto before = ledger_.store().usage(id);
        ledger_.carryOut(step::List{id, list, value, std::move(encoded)});
        ledger_.told().appUid = id;
        return ledger_.checkRoom(id, before);
    });
}

bool ChangingSide::setOkvUserSettingPT_value(const Value& user, const Value& list) {
    return setList(user, UserList::userSetting, list);
}

bool ChangingSide::setOkvContentsWordsPT_value(const Value& user, const Value& list) {
    return setList(user, UserList::contentsWords, list);
}

bool ChangingSide::setOkvHammerListPT_value(const Value& user, const Value& list) {
    return setList(user, UserList::hammerList, list);
}

bool ChangingSide::setOkvBlackExtensionListPT_value(const Value& user, const Value& list) {
    return setList(user, UserList::blackExtensionList, list);
}

}  // namespace datacenter
