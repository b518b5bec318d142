#include "../Printing.h"
#include "Changes.h"
#include "Verbs.h"

namespace okvctl {

namespace {

// A null object needs no "=".
std::pair<std::string_view, std::string_view> cut(const Call& call, std::string_view operand) {
    const bool keyAlone = call.line.type == ValueType::null &&
                          operand.find('=') == std::string_view::npos && !operand.empty();
    return keyAlone ? std::pair(operand, std::string_view()) : cutAssignment(operand);
}

ExitCode runSet(Call& call) {
    expectOperands(call, 1, kAnyNumber, "KEY=VALUE");
    expectFormats(call, kConfirmFormats);
    okv::Dictionary settings;
    okv::Array keys;
    std::vector<std::string_view> names;
    for (const auto operand : call.operands()) {
        const auto [key, text] = cut(call, operand);
        if (!settings.insert(key, valueOf(call, key, text)))
            throwUsage(std::string(key) + " stands twice");
        keys.emplace_back(key);
        names.push_back(key);
    }
    storeSettings(call, settings, subjectOf(names));
    confirm(call, "set", std::move(keys));
    return ExitCode::done;
}

constexpr OperandOffer kSetOffers[] = {{kEveryPlace, Offer::keysToSet}};

}  // namespace

const Verb kSet{
    "set",
    "KEY=VALUE... [--type TYPE] [--user APPUID]",
    "store values, all of them or none",
    "A VALUE is a string, byte for byte, unless --type says how to read it: int (decimal or\n"
    "0x), bool, real, date (2026-01-31T23:59:59Z, @SECONDS since 1970, now), data (base64),\n"
    "json (see okvctl --help; for arrays and dictionaries), null (takes the value away).\n"
    "The type is that of every VALUE; use json to store several types at once. Without --user\n"
    "the values are everybody's. Nothing is printed; with --json {\"set\": [KEY, ...]}.\n",
    kTakesUser | kTakesType,
    runSet,
    kSetOffers,
};

}  // namespace okvctl
