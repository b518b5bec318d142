#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

namespace okvctl {

namespace {

using Admin = OKVDataAdmin_protocol;

template <auto Method>
ExitCode change(Call& call, const std::string& done) {
    const auto keys = keysOf(call);
    expectFormats(call, kConfirmFormats);
    call.server.change<Method>(subjectOf(call.operands()), "not " + done, keys);
    confirm(call, done, keys);
    return ExitCode::done;
}

ExitCode lock(Call& call) {
    return change<&Admin::lockOKVDataPT>(call, "locked");
}

ExitCode unlock(Call& call) {
    return change<&Admin::unlockOKVDataPT>(call, "unlocked");
}

ExitCode listLocks(Call& call) {
    expectOperands(call, 0, 0, "");
    expectFormats(call, kTableFormats);
    const auto answer = call.server.ask<&Admin::lockListPT>("");
    Table table({"KEY", "LOCKED BY", "SINCE"}, {"locked key", "locked keys"});
    for (const auto& [key, entry] : dictionaryIn(answer)) {
        const auto& stamp = dictionaryIn(entry);
        table.add(
            {{cellText(key), Style::warning}, cellText(stamp["writer"]), cellText(stamp["time"])});
    }
    print(call, answer, table);
    return ExitCode::done;
}

constexpr OperandOffer kLockOffers[] = {{kEveryPlace, Offer::keys}};

constexpr OperandOffer kUnlockOffers[] = {{kEveryPlace, Offer::lockedKeys}};

}  // namespace

const Verb kLock{
    "lock",
    "KEY...",
    "give every user everybody's value, all keys or none",
    "A locked key answers everybody's value to every user and takes no user's value. Users' own\n"
    "values stay stored and count again after unlock.\n",
    kNoOptions,
    lock,
    kLockOffers,
};

const Verb kUnlock{
    "unlock",
    "KEY...",
    "let users have their own values again, all keys or none",
    "A KEY that is not locked is no mistake.\n",
    kNoOptions,
    unlock,
    kUnlockOffers,
};

const Verb kLocks{
    "locks",
    "",
    "list the locked keys",
    "A line each: key, uid of who locked it, time.\n",
    kNoOptions,
    listLocks,
};

}  // namespace okvctl
