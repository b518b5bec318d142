#include "Items.h"
#include "Transfer.h"
#include "View.h"

#include <OKVPlatform/values/Cbor.h>

namespace datacenter {

namespace {

using okv::Dictionary;
using okv::Null;
using okv::Value;

Dictionary settingsOf(const View::Settings& settings) {
    Dictionary values;
    values.reserve(settings.size());
    for (const auto& [key, setting] : settings) values.set(key, setting.value);
    return values;
}

Dictionary userOf(const View::User& user) {
    Dictionary content{{"settings", settingsOf(user.settings)}};
    for (std::size_t i = 0; i < kUserLists; ++i) {
        if (!user.lists[i].isNil()) content.set(kUserListNames[i], user.lists[i]);
    }
    return content;
}

// Ids are texts there: not every form of file has numbers for keys.
Dictionary usersOf(const View& view) {
    Dictionary users;
    for (const auto& [id, user] : view.users()) users.set(std::to_string(id), userOf(user));
    return users;
}

Dictionary accountsOf(const View& view) {
    Dictionary accounts;
    for (const auto& [osUid, account] : view.accounts()) {
        Dictionary content;
        if (account.assigned) content.set("appuid", *account.assigned);
        if (account.current) content.set("current", *account.current);
        accounts.set(std::to_string(osUid), std::move(content));
    }
    return accounts;
}

// As it stands at the moment of its own reckoning, with that moment.
Dictionary clockOf(const Clock& clock) {
    return {{"time", clock.time ? Value(okv::Date{*clock.time}) : Value(Null{})},
            {"running", clock.running},
            {"since", okv::Date{clock.since}}};
}

}  // namespace

bool fitsInReply(const Value& value, const Limits& limits) {
    return itemsIn(value) <= limits.replyItems &&
           okv::encodeCbor(value).size() <= limits.replyBytes;
}

Dictionary exportOf(const View& view) {
    okv::Array locks;
    for (const auto& [key, stamp] : view.locks()) locks.emplace_back(key);
    Dictionary whole{{"format", 1},
                     {"epoch", view.epoch()},
                     {"revision", view.revision()},
                     {"everybody", settingsOf(view.everybody())},
                     {"users", usersOf(view)},
                     {"accounts", accountsOf(view)},
                     {"locks", std::move(locks)},
                     {"current_user", view.currentUser()},
                     {"highest_user", view.highestUser()},
                     {"clock", clockOf(view.clock())}};
    for (std::size_t i = 0; i < kProcessLists; ++i)
        whole.set(kProcessListNames[i], view.processes(static_cast<ProcessList>(i)));
    return whole;
}

}  // namespace datacenter
