#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include <OKVDataManager/okvCmnUtil.h>

namespace okvctl {

namespace {

using Keys = std::vector<std::string_view>;

constexpr Table::Noun kListedProcesses{"process", "processes"};

// The kernel's table as the suite's processes see it, but for the zero-filled record at its end.
okv::Array kernelTable() {
    auto records = okvCmnUtil::processListBSD();
    if (!records.empty()) records.pop_back();
    return records;
}

Table tableOf(const okv::Array& records, std::vector<std::string_view> heads, const Keys& keys) {
    Table table(std::move(heads), kListedProcesses);
    for (const auto& record : records) {
        Table::Row row;
        for (const auto key : keys) {
            const auto& value = dictionaryIn(record)[key];
            row.emplace_back(value.isMissing() ? "-" : cellText(value));
        }
        table.add(std::move(row));
    }
    return table;
}

// Needs no data server.
ExitCode runPs(Call& call) {
    expectOperands(call, 0, 0, "");
    expectFormats(call, kTableFormats);
    if (call.line.managed) {
        const auto records = okvCmnUtil::processList();
        print(call, okv::Dictionary{{"processes", records}},
              tableOf(records, {"PID", "NAME", "IDENTIFIER", "PATH"},
                      {"pid", "CFBundleName", "CFBundleIdentifier", "BundlePath"}));
        return ExitCode::done;
    }
    const auto records = kernelTable();
    if (records.empty())
        throw ToolError(ExitCode::failure, "the process table cannot be read; is /proc mounted?");
    print(call, okv::Dictionary{{"processes", records}},
          tableOf(records, {"PID", "UID", "GID", "PARENT", "NAME", "PATH"},
                  {"pid", "uid", "gid", "parentpid", "CFBundleName", "BundlePath"}));
    return ExitCode::done;
}

}  // namespace

const Verb kPs{
    "ps",
    "[--managed]",
    "list the processes as the suite sees them",
    "A line for each process of the kernel's table: ids, command name (at most 16 bytes) and the\n"
    "path of its executable, which is \"(null)\" for every process: the suite's processes get no\n"
    "path from the kernel's table. With --managed the applications: processes that run from a\n"
    "bundle, with the name and identifier that it declares, and the bundle's path; as JSON with\n"
    "all that it declares. Needs no data server.\n",
    kTakesManaged,
    runPs,
};

}  // namespace okvctl
