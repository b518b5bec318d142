#include "../Operands.h"
#include "Verbs.h"

namespace okvctl {

namespace {

okv::Value ask(Call& call, std::string_view key) {
    if (const auto user = call.line.user)
        return call.server.ask<&OKVDataAdmin_protocol::okvDataInfoPT_appUid>(key, key, *user);
    return call.server.ask<&OKVDataAdmin_protocol::okvDataInfoPT>(key, key);
}

void print(Call& call, const okv::Dictionary& info) {
    if (call.line.json) return call.out.json(info);
    std::vector<std::vector<std::string>> rows;
    for (const auto& [name, value] : info) {
        rows.push_back({cellText(name), cellText(value)});
        if (name == okv::Value("value")) rows.push_back({"type", std::string(typeName(value))});
    }
    call.out.table(rows);
}

ExitCode run(Call& call) {
    expectOperands(call, 1, 1, "KEY");
    if (call.operands()[0].empty()) throwUsage("the KEY is empty");
    const auto answer = ask(call, call.operands()[0]);
    print(call, dictionaryIn(answer));
    return ExitCode::done;
}

}  // namespace

const Verb kDescribe{
    "describe",
    "KEY",
    "tell where a value comes from",
    "The value that a read gets, its type and origin (user, everybody, none), who wrote it and\n"
    "when, and whether the key is locked.\n",
    kTakesUser,
    run,
};

}  // namespace okvctl
