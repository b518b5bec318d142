#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

namespace okvctl {

namespace {

// A line each: what is taken of the limit, where something can be, and the limit.
void addLimits(Table& table, const okv::Dictionary& limits, const okv::Value& use) {
    const auto* taken = use.getIf<okv::Dictionary>();
    for (const auto& [name, limit] : limits) {
        const auto* part = taken != nullptr ? taken->find(name) : nullptr;
        const auto before = part != nullptr ? cellText(*part) + " of " : std::string();
        table.add({"limits." + cellText(name), before + cellText(limit)});
    }
}

// What stands in a dictionary inside is told by both names, with a point in between.
void addInner(Table& table, const std::string& name, const okv::Dictionary& inner) {
    for (const auto& [innerName, value] : inner)
        table.add({name + "." + cellText(innerName), cellText(value)});
}

Table tableOf(const okv::Dictionary& status) {
    Table table;
    for (const auto& [name, value] : status) {
        const auto* inner = value.getIf<okv::Dictionary>();
        if (inner == nullptr) {
            table.add({cellText(name), cellText(value)});
        } else if (name == okv::Value("limits")) {
            addLimits(table, *inner, status["use"]);
        } else if (name != okv::Value("use")) {
            addInner(table, cellText(name), *inner);
        }
    }
    return table;
}

ExitCode runStatus(Call& call) {
    expectOperands(call, 0, 0, "");
    expectFormats(call, kTableFormats);
    const auto answer = call.server.ask<&OKVDataAdmin_protocol::serverStatusPT>("");
    print(call, answer, tableOf(dictionaryIn(answer)));
    return ExitCode::done;
}

}  // namespace

const Verb kStatus{
    "status",
    "",
    "tell what the data server is doing",
    "Version, process, revision of the store, counts and limits, a line each; a limit of which\n"
    "something is taken as \"USE of LIMIT\", of many users or clients the fullest. With --json\n"
    "the server's own dictionary, \"limits\" and \"use\" by the same names.\n",
    kNoOptions,
    runStatus,
};

}  // namespace okvctl
