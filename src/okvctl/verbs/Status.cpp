#include "../Operands.h"
#include "Verbs.h"

namespace okvctl {

namespace {

// What stands in a dictionary inside is told by both names, with a point in between.
std::vector<std::vector<std::string>> rowsOf(const okv::Dictionary& status) {
    std::vector<std::vector<std::string>> rows;
    for (const auto& [name, value] : status) {
        const auto* inner = value.getIf<okv::Dictionary>();
        if (inner == nullptr) {
            rows.push_back({cellText(name), cellText(value)});
            continue;
        }
        for (const auto& [innerName, innerValue] : *inner)
            rows.push_back({cellText(name) + "." + cellText(innerName), cellText(innerValue)});
    }
    return rows;
}

ExitCode run(Call& call) {
    expectOperands(call, 0, 0, "");
    const auto answer = call.server.ask<&OKVDataAdmin_protocol::serverStatusPT>("");
    const auto rows = rowsOf(dictionaryIn(answer));
    if (call.line.json) {
        call.out.json(answer);
    } else {
        call.out.table(rows);
    }
    return ExitCode::done;
}

}  // namespace

const Verb kStatus{
    "status",
    "",
    "tell what the data server is doing",
    "Version, process, revision of the store, counts and limits, a line each. With --json the\n"
    "server's own dictionary.\n",
    kNoOptions,
    run,
};

}  // namespace okvctl
