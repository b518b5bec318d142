#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

namespace okvctl {

namespace {

okv::Value askKeys(Call& call, std::string_view prefix) {
    if (const auto user = call.line.user)
        return call.server.ask<&OKVDataAdmin_protocol::okvDataListPT_appUid>("", prefix, *user);
    return call.server.ask<&OKVDataAdmin_protocol::okvDataListPT>("", prefix);
}

ExitCode runList(Call& call) {
    expectOperands(call, 0, 1, "");
    expectFormats(call, kTableFormats);
    const auto answer = askKeys(call, call.operands().empty() ? "" : call.operands()[0]);
    if (answer.isNil() && call.line.user)
        throw ToolError(ExitCode::failure, "there is no user " + std::to_string(*call.line.user) +
                                               "; okvctl users lists them");
    auto table = valueTable();
    for (const auto& [key, value] : dictionaryIn(answer)) addValue(table, key, value);
    print(call, answer, table);
    return ExitCode::done;
}

constexpr OperandOffer kListOffers[] = {{0, Offer::keys}};

}  // namespace

const Verb kList{
    "list",
    "[PREFIX] [--user APPUID]",
    "list the stored values, by key",
    "A line each, in the order of the keys: key, type, value. Everybody's values, or with\n"
    "--user those that are the user's own. Strings that do not show as they are, arrays and\n"
    "dictionaries stand as JSON. With --json an object of keys to values.\n",
    kTakesUser,
    runList,
    kListOffers,
};

}  // namespace okvctl
