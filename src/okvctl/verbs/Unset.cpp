#include "../Printing.h"
#include "Changes.h"
#include "Verbs.h"

namespace okvctl {

namespace {

ExitCode runUnset(Call& call) {
    auto keys = keysOf(call);
    expectFormats(call, kConfirmFormats);
    okv::Dictionary settings;
    for (const auto& key : keys) settings.set(key, okv::Null{});
    storeSettings(call, settings, subjectOf(call.operands()));
    confirm(call, "unset", std::move(keys));
    return ExitCode::done;
}

constexpr OperandOffer kUnsetOffers[] = {{kEveryPlace, Offer::keys}};

}  // namespace

const Verb kUnset{
    "unset",
    "KEY... [--user APPUID]",
    "take values away, all of them or none",
    "With --user the user's own values, else everybody's. A KEY that is not set is no mistake.\n"
    "Nothing is printed; with --json {\"unset\": [KEY, ...]}.\n",
    kTakesUser,
    runUnset,
    kUnsetOffers,
};

}  // namespace okvctl
