#include "../Operands.h"
#include "../Printing.h"
#include "../Progress.h"
#include "../StoreCheck.h"
#include "../StoreDifference.h"
#include "../StoreFile.h"
#include "Verbs.h"

#include <unistd.h>

namespace okvctl {

namespace {

using Admin = OKVDataAdmin_protocol;

okv::Value readStore(const std::string& file, Progress& progress) {
    progress.step("reading");
    const auto bytes = readStoreFile(file);
    progress.step("checking");
    auto parsed = parseStore(bytes);
    if (!parsed)
        throw ToolError(ExitCode::failure, (file == "-" ? "the standard input" : file) + ": " +
                                               parsed.error + "; nothing was imported");
    checkStore(*parsed.value);
    return std::move(*parsed.value);
}

okv::Dictionary recordOf(const Difference& difference) {
    okv::Dictionary record{
        {"part", difference.part}, {"whose", difference.whose}, {"change", difference.change}};
    if (!difference.key.empty()) record.set("key", difference.key);
    if (!difference.before.isMissing()) record.set("before", difference.before);
    if (!difference.after.isMissing()) record.set("after", difference.after);
    return record;
}

void printDifferences(Call& call, const okv::Dictionary& file) {
    const auto answer = call.server.ask<&Admin::exportDataPT>("the store as it is");
    okv::Array changes;
    Table table({"PART", "WHOSE", "CHANGE", "KEY"}, {"change", "changes"});
    for (const auto& difference : differencesBetween(dictionaryIn(answer), file)) {
        changes.emplace_back(recordOf(difference));
        table.add({difference.part, difference.whose, difference.change,
                   difference.key.empty() ? "-" : cellText(difference.key)});
    }
    print(call, okv::Dictionary{{"changes", std::move(changes)}}, table);
}

ExitCode runImport(Call& call) {
    expectOperands(call, 1, 1, "FILE");
    expectFormats(call, call.line.dryRun ? kTableFormats : kConfirmFormats);
    const std::string file(call.operands()[0]);
    if (file.empty()) throwUsage("the FILE is empty");
    call.server.connect();  // before a long file is read in vain
    Progress progress(STDERR_FILENO, "importing", 3);
    const auto store = readStore(file, progress);
    progress.step(call.line.dryRun ? "comparing" : "storing");
    if (call.line.dryRun) {
        printDifferences(call, store.as<okv::Dictionary>());
        return ExitCode::done;
    }
    call.server.change<&Admin::importDataPT>(file, "not imported, nothing was changed", store);
    confirm(call, "imported", file);
    return ExitCode::done;
}

constexpr OperandOffer kImportOffers[] = {{0, Offer::files}};

}  // namespace

const Verb kImport{
    "import",
    "FILE [--dry-run]",
    "put a file that export wrote into the store",
    "The FILE (- for the standard input) is JSON or a property list, XML or binary, as its first\n"
    "bytes tell. Each part that it holds replaces the stored part as a whole, in one transaction;\n"
    "parts that it does not hold stay. With --dry-run nothing is stored: a line for each\n"
    "difference tells the part, whose it is, whether it would be added, changed or removed, and\n"
    "the key. Nothing else is printed; with --json {\"imported\": FILE}, or with --dry-run\n"
    "{\"changes\": [{\"part\", \"whose\", \"change\", \"key\", \"before\", \"after\"}, ...]}.\n",
    kTakesDryRun,
    runImport,
    kImportOffers,
};

}  // namespace okvctl
