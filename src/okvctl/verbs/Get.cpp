#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

namespace okvctl {

namespace {

okv::Value askValues(Call& call, const okv::Array& keys, std::string_view subject) {
    if (const auto user = call.line.user)
        return call.server.ask<&OKVDataMng_protocol::okvDataAllPT_appUid>(subject, keys, *user);
    return call.server.ask<&OKVDataMng_protocol::okvDataAllPT>(subject, keys);
}

void show(Call& call, const okv::Array& keys, const okv::Dictionary& values) {
    const bool isAlone = keys.size() == 1 && !call.line.format;
    auto table = valueTable();
    for (const auto& key : keys) {
        const auto& value = values[key];
        if (value.isMissing()) continue;
        if (call.prints(kRaw)) call.out.bytes(value);
        if (isAlone) call.out.value(value);
        addValue(table, key, value);
    }
    if (!isAlone && !call.prints(kRaw)) print(call, values, table);
}

ExitCode runGet(Call& call) {
    const auto keys = keysOf(call);
    expectFormats(call, kValueFormats);
    const auto answer = askValues(call, keys, subjectOf(call.operands()));
    const auto& values = dictionaryIn(answer);
    show(call, keys, values);
    std::vector<std::string_view> missing;
    for (const auto key : call.operands()) {
        if (values[key].isMissing()) missing.push_back(key);
    }
    if (missing.empty()) return ExitCode::done;
    call.out.flush();
    complain("get: " + subjectOf(missing) + ": not set; okvctl set stores a value");
    return ExitCode::notSet;
}

constexpr OperandOffer kGetOffers[] = {{kEveryPlace, Offer::keys}};

}  // namespace

const Verb kGet{
    "get",
    "KEY... [--user APPUID]",
    "print values",
    "Of one KEY the value alone is printed, a string byte for byte; of several a line each:\n"
    "key, type, value. With --user, the user's own value or else everybody's. A KEY that is\n"
    "not set ends it with 10, whatever else was printed. With --json an object of keys to\n"
    "values, null for what is not set.\n",
    kTakesUser,
    runGet,
    kGetOffers,
};

}  // namespace okvctl
