#include "../Nearest.h"
#include "../Operands.h"
#include "../Printing.h"
#include "../StoreFile.h"
#include "Verbs.h"

#include <OKVDataCenter/ExportNames.h>

namespace okvctl {

namespace {

using Data = OKVDataMng_protocol;
using datacenter::kUserListNames;

struct Family {
    std::string_view name;
    okv::Value (*read)(Call& call, std::string_view subject, std::int32_t user);
    void (*replace)(Call& call, std::string_view subject, std::int32_t user,
                    const okv::Value& value);
};

template <auto Read, auto Replace>
constexpr Family family(std::string_view name) {
    return {name,
            [](Call& call, std::string_view subject, std::int32_t user) {
                return call.server.ask<Read>(subject, okv::Value(user));
            },
            [](Call& call, std::string_view subject, std::int32_t user, const okv::Value& value) {
                call.server.change<Replace>(subject, "not stored: is there such a user?",
                                            okv::Value(user), value);
            }};
}

constexpr Family kFamilies[] = {
    family<&Data::okvUserSettingPT, &Data::setOkvUserSettingPT_value>(kUserListNames[0]),
    family<&Data::okvContentsWordsPT, &Data::setOkvContentsWordsPT_value>(kUserListNames[1]),
    family<&Data::okvHammerListPT, &Data::setOkvHammerListPT_value>(kUserListNames[2]),
    family<&Data::okvBlackExtensionListPT, &Data::setOkvBlackExtensionListPT_value>(
        kUserListNames[3]),
};

const Family& familyNamed(std::string_view name) {
    for (const auto& each : kFamilies) {
        if (each.name == name) return each;
    }
    throwUsage(noneSuch("list", name, kUserListNames));
}

std::string subjectFor(const Family& list, std::int32_t user) {
    return std::string(list.name) + " of user " + std::to_string(user);
}

ExitCode getList(Call& call) {
    expectOperands(call, 2, 2, "FAMILY");
    expectFormats(call, kValueFormats);
    if (call.line.type) throwUsage("get takes no --type");
    const auto& list = familyNamed(call.operands()[1]);
    const auto user = neededUser(call);
    const auto value = list.read(call, subjectFor(list, user), user);
    if (value.isMissing()) throw ToolError(ExitCode::notSet, subjectFor(list, user) + ": not set");
    printValue(call, okv::Dictionary{{list.name, value}}, list.name, value);
    return ExitCode::done;
}

// A string is taken as it comes; elsewhere the end of line that text files have is none of it.
std::string valueText(const Call& call) {
    if (call.operands().size() == 3) return std::string(call.operands()[2]);
    if (call.line.type == ValueType::null) return {};
    auto text = readStandardInput(kJsonTextAtMost);
    const bool isString = call.line.type.value_or(ValueType::string) == ValueType::string;
    if (!isString && text.ends_with('\n')) text.pop_back();
    return text;
}

ExitCode setList(Call& call) {
    expectOperands(call, 2, 3, "FAMILY");
    expectFormats(call, kConfirmFormats);
    const auto& list = familyNamed(call.operands()[1]);
    const auto user = neededUser(call);
    const auto value = valueOf(call, list.name, valueText(call));
    list.replace(call, subjectFor(list, user), user, value);
    confirm(call, "set", okv::Array{list.name});
    return ExitCode::done;
}

constexpr Action kListsActions[] = {{"get", getList}, {"set", setList}};

ExitCode runLists(Call& call) {
    expectOperands(call, 1, 3, "get or set");
    return actionNamed(call.operands()[0], kListsActions).run(call);
}

constexpr OperandOffer kListsOffers[] = {{1, Offer::choice, kUserListNames}};

}  // namespace

const Verb kLists{
    "lists",
    "get|set FAMILY [VALUE] --user APPUID [--type TYPE]",
    "print and replace a user's four lists",
    "A FAMILY is user_setting, contents_words, hammer_list or black_extension_list. A VALUE is\n"
    "read as that of set: for arrays and dictionaries say --type json; without a VALUE it comes\n"
    "from the standard input. --type null takes the list away. get ends with 10 where there is\n"
    "no list; with --json it prints {FAMILY: value}.\n",
    kTakesUser | kTakesType,
    runLists,
    kListsOffers,
    kListsActions,
};

}  // namespace okvctl
