#include "../Operands.h"
#include "Verbs.h"

namespace okvctl {

namespace {

okv::Value ask(Call& call, std::string_view prefix) {
    if (const auto user = call.line.user)
        return call.server.ask<&OKVDataAdmin_protocol::okvDataListPT_appUid>("", prefix, *user);
    return call.server.ask<&OKVDataAdmin_protocol::okvDataListPT>("", prefix);
}

ExitCode run(Call& call) {
    expectOperands(call, 0, 1, "");
    const auto answer = ask(call, call.operands().empty() ? "" : call.operands()[0]);
    if (answer.isNil() && call.line.user)
        throw ToolError(ExitCode::failure, "there is no user " + std::to_string(*call.line.user) +
                                               "; okvctl users lists them");
    const auto& values = dictionaryIn(answer);
    if (call.line.json) {
        call.out.json(answer);
        return ExitCode::done;
    }
    std::vector<std::vector<std::string>> rows;
    for (const auto& [key, value] : values)
        rows.push_back({cellText(key), std::string(typeName(value)), cellText(value)});
    call.out.table(rows);
    return ExitCode::done;
}

}  // namespace

const Verb kList{
    "list",
    "[PREFIX]",
    "list the stored values, by key",
    "A line each, in the order of the keys: key, type, value. Everybody's values, or with\n"
    "--user those that are the user's own. Strings that do not show as they are, arrays and\n"
    "dictionaries stand as JSON. With --json an object of keys to values.\n",
    kTakesUser,
    run,
};

}  // namespace okvctl
