#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

namespace okvctl {

namespace {

okv::Value askDescription(Call& call, std::string_view key) {
    if (const auto user = call.line.user)
        return call.server.ask<&OKVDataAdmin_protocol::okvDataInfoPT_appUid>(key, key, *user);
    return call.server.ask<&OKVDataAdmin_protocol::okvDataInfoPT>(key, key);
}

void show(Call& call, const okv::Dictionary& info) {
    Table table;
    for (const auto& [name, value] : info) {
        const bool isLock = name == okv::Value("locked") && value == okv::Value(true);
        table.add({cellText(name), {cellText(value), isLock ? Style::warning : Style::plain}});
        if (name == okv::Value("value")) table.add({"type", typeName(value)});
    }
    print(call, info, table);
}

ExitCode runDescribe(Call& call) {
    expectOperands(call, 1, 1, "KEY");
    expectFormats(call, kTableFormats);
    if (call.operands()[0].empty()) throwUsage("the KEY is empty");
    const auto answer = askDescription(call, call.operands()[0]);
    show(call, dictionaryIn(answer));
    return ExitCode::done;
}

constexpr OperandOffer kDescribeOffers[] = {{0, Offer::keys}};

}  // namespace

const Verb kDescribe{
    "describe",
    "KEY [--user APPUID]",
    "tell where a value comes from",
    "The value that a read gets, its type and origin (user, everybody, none), who wrote it and\n"
    "when, and whether the key is locked.\n",
    kTakesUser,
    runDescribe,
    kDescribeOffers,
};

}  // namespace okvctl
