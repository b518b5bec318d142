#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

namespace okvctl {

namespace {

using Admin = OKVDataAdmin_protocol;

ExitCode lock(Call& call) {
    const auto keys = keysOf(call);
    expectFormats(call, kConfirmFormats);
    call.server.change<&Admin::lockOKVDataPT>(subjectOf(call.operands()), "not locked", keys);
    confirm(call, "locked", keys);
    return ExitCode::done;
}

ExitCode unlock(Call& call) {
    const auto keys = keysOf(call);
    expectFormats(call, kConfirmFormats);
    call.server.change<&Admin::unlockOKVDataPT>(subjectOf(call.operands()), "not unlocked", keys);
    confirm(call, "unlocked", keys);
    return ExitCode::done;
}

ExitCode list(Call& call) {
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

}  // namespace

const Verb kLock{
    "lock",
    "KEY...",
    "give every user everybody's value, all keys or none",
    "A locked key answers everybody's value to every user and takes no user's value. Users' own\n"
    "values stay stored and count again after unlock.\n",
    kNoOptions,
    lock,
};

const Verb kUnlock{
    "unlock",
    "KEY...",
    "let users have their own values again, all keys or none",
    "A KEY that is not locked is no mistake.\n",
    kNoOptions,
    unlock,
};

const Verb kLocks{
    "locks",    "",   "list the locked keys", "A line each: key, uid of who locked it, time.\n",
    kNoOptions, list,
};

}  // namespace okvctl
