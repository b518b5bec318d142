#include "ChangingSide.h"
#include "Keys.h"
#include "View.h"

#include <cmath>

namespace datacenter {

using Kind = okv::Refusal::Kind;

bool ChangingSide::setCurrentUserIdPT(const Value& user) {
    return ledger_.change([&] {
        const auto id = userIdOf(user).value_or(kNoUser);
        if (!ledger_.checkUser(id)) return false;
        ledger_.carryOut(step::CurrentUser{id});
        return true;
    });
}

// To any user there is, with self-service too: several users share an account, and one of them sits
// down at it. It says who sits there and gives nothing beyond: what an account may change follows
// from the user that the administrator assigned to it, everybody may read every value, and a locked
// key has the same one for all users.
bool ChangingSide::setCurrentUserIdForOSPT(const Value& user) {
    return ledger_.change([&] {
        const auto id = userIdOf(user).value_or(kNoUser);
        const auto* who = ledger_.caller();
        if (who == nullptr || !isAccount(who->uid))
            return ledger_.refuse(Kind::notAllowed, "the caller is no account");
        if (!ledger_.checkUser(id)) return false;
        const auto before = ledger_.store().accountCount();
        ledger_.carryOut(step::Switch{who->uid, id});
        ledger_.tellSwitch(who->uid, id);
        return ledger_.checkAccounts(before);
    });
}

// A negative number is no account here, although it names one with a uid from 2^31 on elsewhere:
// nobody is given a user by what may as well be a mistake.
bool ChangingSide::assign(std::int32_t osUid, std::int32_t appUid) {
    auto& store = ledger_.store();
    if (!isAccount(osUid) || appUid <= kEverybody)
        return ledger_.refuse(Kind::invalid, "no account or no user has this number");
    if (!store.hasUser(appUid)) {
        if (store.userCount() >= ledger_.limits().users)
            return ledger_.refuse(Kind::tooLarge, "too many users");
        ledger_.carryOut(step::AddUser{appUid});
    }
    const auto before = store.accountCount();
    ledger_.carryOut(step::Assign{osUid, appUid});
    ledger_.tellSwitch(osUid, appUid);
    return ledger_.checkAccounts(before);
}

void ChangingSide::setUseridPT_applyUid(std::int32_t osUid, std::int32_t appUid) {
    ledger_.change([&] { return assign(osUid, appUid); });
}

std::int32_t ChangingSide::delUseridPT(std::int32_t osUid) {
    std::int32_t answer = 0;  // also where the store fails
    ledger_.change([&] {
        const auto user = assignedUser(osUid);
        if (user != kNoUser) ledger_.carryOut(step::Assign{accountOf(osUid), std::nullopt});
        answer = user;
        return user != kNoUser;  // else nothing to change, and no refusal either
    });
    return answer;
}

bool ChangingSide::removeUserInfoPT(const Value& user) {
    return ledger_.change([&] {
        const auto id = userIdOf(user).value_or(kNoUser);
        if (id == kDefaultUser) return ledger_.refuse(Kind::invalid, "the default user stays");
        if (!ledger_.checkUser(id)) return false;
        ledger_.carryOut(step::RemoveUser{id});
        ledger_.told().appUid = id;
        ledger_.tellEveryKey();
        return true;
    });
}

void ChangingSide::removeUserInfoAllPT() {
    ledger_.change([&] {
        auto& store = ledger_.store();
        store.removeUsers();
        // One by one they would keep the view's thread busy: there may be very many.
        ledger_.remember(step::Reload{store.load()});
        ledger_.tellEveryKey();
        return true;
    });
}

void ChangingSide::setClock(const Clock& clock) {
    ledger_.carryOut(step::ServerClock{clock});
}

void ChangingSide::setServerTimePT(const Value& date) {
    ledger_.change([&] {
        const auto* time = date.getIf<okv::Date>();
        if (time == nullptr || !std::isfinite(time->secondsSince1970))
            return ledger_.refuse(Kind::invalid, "a time is a date");
        auto clock = ledger_.store().clock();
        clock.time = time->secondsSince1970;
        clock.since = ledger_.now();
        setClock(clock);
        return true;
    });
}

void ChangingSide::runClock(bool running) {
    ledger_.change([&] {
        const auto now = ledger_.now();
        setClock({ledger_.store().clock().at(now), running, now});
        return true;
    });
}

void ChangingSide::startServerTimeTimer() {
    runClock(true);
}

void ChangingSide::stopServerTimeTimer() {
    runClock(false);
}

}  // namespace datacenter
