#include "../Operands.h"
#include "../Printing.h"
#include "../StoreFile.h"
#include "Verbs.h"

#include <OKVDataCenter/ExportNames.h>

#include <algorithm>

namespace okvctl {

namespace {

using okv::Dictionary;
using okv::Value;

Dictionary inOrder(const Value& part) {
    std::vector<Dictionary::Entry> entries(dictionaryIn(part).begin(), dictionaryIn(part).end());
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return cellText(a.key) < cellText(b.key); });
    Dictionary sorted;
    for (auto& [key, value] : entries) sorted.set(std::move(key), std::move(value));
    return sorted;
}

// The keys in order: two exports are compared line by line, or looked through by people.
Dictionary arranged(Dictionary store) {
    store.set("everybody", inOrder(store["everybody"]));
    for (const auto list : datacenter::kProcessListNames) store.set(list, inOrder(store[list]));
    auto users = dictionaryIn(store["users"]);
    for (const auto& [id, content] : dictionaryIn(store["users"])) {
        auto user = dictionaryIn(content);
        user.set("settings", inOrder(user["settings"]));
        users.set(id, std::move(user));
    }
    store.set("users", std::move(users));
    return store;
}

// What a property list has no null object for is left out.
okv::Value withoutUnsetClock(okv::Dictionary store) {
    const auto* clock = store["clock"].getIf<okv::Dictionary>();
    if (clock == nullptr || !(*clock)["time"].isMissing()) return store;
    auto kept = *clock;
    kept.erase("time");
    store.set("clock", std::move(kept));
    return store;
}

ExitCode runExport(Call& call) {
    expectOperands(call, 0, 1, "");
    expectFormats(call, kJson | kPlist);
    const std::string file(call.operands().empty() ? "-" : call.operands()[0]);
    if (file.empty()) throwUsage("the FILE is empty");
    const auto format = call.line.format.value_or(isPropertyListName(file) ? kPlist : kJson);
    const auto answer = call.server.ask<&OKVDataAdmin_protocol::exportDataPT>("");
    const auto store = arranged(dictionaryIn(answer));
    const auto text = storeText(format == kPlist ? withoutUnsetClock(store) : store, format);
    if (file == "-") {
        call.out.raw(text);
    } else {
        writeStoreFile(file, text);
    }
    return ExitCode::done;
}

constexpr OperandOffer kExportOffers[] = {{0, Offer::files}};

}  // namespace

const Verb kExport{
    "export",
    "[FILE]",
    "write the whole store to a file",
    "Settings, users, lists, accounts, locks, process lists and the clock, as import takes them:\n"
    "JSON, or with --format plist or a FILE that ends in .plist a property list. Without a FILE,\n"
    "or with -, to the standard output. The FILE is replaced in one step. JSON holds everything;\n"
    "a property list drops fractions of seconds and is refused where it has no form for a value.\n",
    kNoOptions,
    runExport,
    kExportOffers,
};

}  // namespace okvctl
