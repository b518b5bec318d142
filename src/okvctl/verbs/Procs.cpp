#include "../Nearest.h"
#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include <OKVDataManager/okvSystemProcList.h>

namespace okvctl {

namespace {

using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;

struct ProcessList {
    std::string_view name;
    okv::Value (*read)(Call& call);
    void (*put)(Call& call, std::string_view subject, const okv::Dictionary& processes);
};

template <auto Read, auto Put>
constexpr ProcessList processList(std::string_view name) {
    return {name, [](Call& call) { return call.server.ask<Read>(""); },
            [](Call& call, std::string_view subject, const okv::Dictionary& processes) {
                call.server.change<Put>(subject, "the list was not changed", processes);
            }};
}

constexpr std::string_view kProcsNames[] = {"white", "black", "kill", "system"};
constexpr std::string_view kProcsChanges[] = {"add", "remove"};

constexpr ProcessList kProcessLists[] = {
    processList<&Data::okvFltProcWhiteListPT, &Admin::setOkvFltProcWhiteListPT>(kProcsNames[0]),
    processList<&Data::okvFltProcBlackListPT, &Admin::setOkvFltProcBlackListPT>(kProcsNames[1]),
    processList<&Data::okvKillWebProcListPT, &Admin::setOkvKillWebProcListPT>(kProcsNames[2]),
};

const ProcessList& listNamed(std::string_view name) {
    for (const auto& list : kProcessLists) {
        if (list.name == name) return list;
    }
    throwUsage(noneSuch("list", name, kProcsNames));
}

constexpr Table::Noun kProcesses{"process", "processes"};

ExitCode show(Call& call, const ProcessList& list) {
    expectFormats(call, kTableFormats);
    const auto answer = list.read(call);
    Table table({"NAME", "IDENTIFIER"}, kProcesses);
    for (const auto& [name, identifier] : dictionaryIn(answer))
        table.add({cellText(name), cellText(identifier)});
    print(call, answer, table);
    return ExitCode::done;
}

// Compiled in, hence the same without a data server.
ExitCode showSystem(Call& call) {
    expectOperands(call, 1, 1, "");
    expectFormats(call, kTableFormats);
    const okv::Dictionary lists{{"white", okvSystemProcList::sysBlockProcWhiteListInfo()},
                                {"black", okvSystemProcList::sysBlockProcBlackListInfo()}};
    Table table({"LIST", "NAME", "IDENTIFIER"}, kProcesses);
    for (const auto& [list, processes] : lists) {
        for (const auto& [name, identifier] : dictionaryIn(processes))
            table.add({cellText(list), cellText(name), cellText(identifier)});
    }
    print(call, lists, table);
    return ExitCode::done;
}

okv::Dictionary added(std::span<const std::string_view> operands) {
    okv::Dictionary processes;
    for (const auto operand : operands) {
        const auto [name, identifier] = cutAssignment(operand, true);
        if (identifier.empty()) throwUsage("'" + std::string(name) + "' has no identifier");
        if (!processes.insert(name, identifier)) throwUsage(std::string(name) + " stands twice");
    }
    return processes;
}

okv::Dictionary removed(std::span<const std::string_view> operands) {
    okv::Dictionary processes;
    for (const auto name : operands) {
        if (name.empty()) throwUsage("a NAME is empty");
        processes.set(name, okv::Null{});
    }
    return processes;
}

ExitCode runProcs(Call& call) {
    expectOperands(call, 1, kAnyNumber, "white, black, kill or system");
    const auto operands = call.operands();
    if (operands[0] == kProcsNames[3]) return showSystem(call);
    const auto& list = listNamed(operands[0]);
    if (operands.size() == 1) return show(call, list);
    const bool adds = operands[1] == kProcsChanges[0];
    if (!adds && operands[1] != kProcsChanges[1])
        throwUsage(noneSuch("change", operands[1], kProcsChanges));
    expectFormats(call, kConfirmFormats);
    expectOperands(call, 3, kAnyNumber, adds ? "NAME=IDENTIFIER" : "NAME");
    const auto processes = adds ? added(operands.subspan(2)) : removed(operands.subspan(2));
    list.put(call, "the " + std::string(list.name) + " list", processes);
    okv::Array names;
    for (const auto& entry : processes) names.push_back(entry.key);
    confirm(call, adds ? "added" : "removed", std::move(names));
    return ExitCode::done;
}

constexpr OperandOffer kProcsOffers[] = {
    {0, Offer::choice, kProcsNames},
    {1, Offer::choice, kProcsChanges, kProcsNames[0]},
    {1, Offer::choice, kProcsChanges, kProcsNames[1]},
    {1, Offer::choice, kProcsChanges, kProcsNames[2]},
    {kEveryPlace, Offer::processes, {}, kProcsChanges[1]},
};

}  // namespace

const Verb kProcs{
    "procs",
    "white|black|kill [add NAME=IDENTIFIER... | remove NAME...] | system",
    "list and change the process lists",
    "The filter's white and black list, the web processes to kill, or the suite's own compiled-in\n"
    "lists (system, which needs no data server): a line for each process, its name and its\n"
    "identifier. add and remove change one list, all the names or none. With --json an object\n"
    "of names to identifiers; of system {\"white\": ..., \"black\": ...}.\n",
    kNoOptions,
    runProcs,
    kProcsOffers,
};

}  // namespace okvctl
