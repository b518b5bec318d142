#include "RightsTable.h"

#include <stdexcept>

namespace limits_test {

namespace {

using okv::Array;
using okv::Dictionary;

std::vector<Row> reads() {
    const Array keys{kKey};
    return {{"registerAsClient:", Class::read, {Value()}},
            {"removeAsClient:", Class::read, {Value()}},
            {"connectCount", Class::read, {}},
            {"okvDataPT:", Class::read, {kKey}},
            {"okvDataPT:osUid:", Class::read, {kKey, kOtherAccount}},
            {"okvDataPT:appUid:", Class::read, {kKey, kOtherUser}},
            {"okvDataAllPT:", Class::read, {keys}},
            {"okvDataAllPT:osUid:", Class::read, {keys, kOtherAccount}},
            {"okvDataAllPT:appUid:", Class::read, {keys, kOtherUser}},
            {"filterSettingsDataPT", Class::read, {}},
            {"systemConfDataPT", Class::read, {}},
            {"cmnSettingsDataPT", Class::read, {}},
            {"okvUserSettingPT:", Class::read, {kOtherUser}},
            {"okvContentsWordsPT:", Class::read, {kOtherUser}},
            {"okvHammerListPT:", Class::read, {kOtherUser}},
            {"okvBlackExtensionListPT:", Class::read, {kOtherUser}},
            {"okvFltProcWhiteListPT", Class::read, {}},
            {"okvFltProcBlackListPT", Class::read, {}},
            {"okvKillWebProcListPT", Class::read, {}},
            {"defaultUserIdPT", Class::read, {}},
            {"currentUserIdPT", Class::read, {}},
            {"maxUserIdPT", Class::read, {}},
            {"userAppuidPT:", Class::read, {kOtherAccount}},
            {"uidListPT", Class::read, {}},
            {"useridAppListPT", Class::read, {}},
            {"serverTimePT", Class::read, {}},
            {"okvDataListPT:", Class::read, {""}},
            {"okvDataListPT:appUid:", Class::read, {"", kOtherUser}},
            {"okvDataInfoPT:", Class::read, {kKey}},
            {"okvDataInfoPT:appUid:", Class::read, {kKey, kOtherUser}},
            {"lockListPT", Class::read, {}},
            {"changesPT:", Class::read, {0}},
            {"serverStatusPT", Class::read, {}}};
}

std::vector<Row> ofOnesOwnUser() {
    const Dictionary settings{{kKey, "mine"}};
    const Array list{"entry"};
    return {{"setOKVDataPT:value:appUid:", Class::own, {kKey, "mine", kOwnUser}},
            {"setOKVDataPT:value:osUid:", Class::own, {kKey, "mine", kAccount}},
            {"setOKVDataAllPT:appUid:", Class::own, {settings, kOwnUser}},
            {"setOKVDataAllPT:osUid:", Class::own, {settings, kAccount}},
            {"setOkvUserSettingPT:value:", Class::own, {kOwnUser, list}},
            {"setOkvContentsWordsPT:value:", Class::own, {kOwnUser, list}},
            {"setOkvHammerListPT:value:", Class::own, {kOwnUser, list}},
            {"setOkvBlackExtensionListPT:value:", Class::own, {kOwnUser, list}},
            // To whatever user there is, as the contract has it.
            {"setCurrentUserIdForOSPT:", Class::own, {kOwnUser}}};
}

std::vector<Row> administration() {
    const Dictionary processes{{"name", "identifier"}};
    const Dictionary whole{{"format", 1}, {"everybody", Dictionary{{kKey, "imported"}}}};
    return {{"setOKVCommonDataAllPT:", Class::administer, {Dictionary{{kKey, "all"}}}},
            {"lockOKVDataPT:", Class::administer, {Value(Array{kKey})}},
            {"unlockOKVDataPT:", Class::administer, {Value(Array{kKey})}},
            {"setOkvFltProcWhiteListPT:", Class::administer, {processes}},
            {"setOkvFltProcBlackListPT:", Class::administer, {processes}},
            {"setOkvKillWebProcListPT:", Class::administer, {processes}},
            {"setCurrentUserIdPT:osUid:", Class::administer, {kOtherUser, kOtherAccount}},
            {"reloadDataPT", Class::administer, {}},
            {"useridUpdatePT", Class::administer, {}},
            {"setAgentAutoRunPT:", Class::administer, {true}},
            {"setCurrentUserIdPT:", Class::administer, {kOtherUser}},
            {"setServerTimePT:", Class::administer, {okv::Date{1}}},
            {"startServerTimeTimer", Class::administer, {}},
            {"stopServerTimeTimer", Class::administer, {}},
            {"setUseridPT:applyUid:", Class::administer, {777, 9}},
            {"delUseridPT:", Class::administer, {777}},
            {"removeUserInfoPT:", Class::administer, {9}},
            {"exportDataPT", Class::administer, {}},
            {"importDataPT:", Class::administer, {whole}},
            {"removeUserInfoAllPT", Class::administer, {}},
            {"endServer", Class::administer, {}}};
}

std::vector<Row> wholeTable() {
    auto all = reads();
    for (const auto& rows : {ofOnesOwnUser(), administration()})
        all.insert(all.end(), rows.begin(), rows.end());
    return all;
}

std::string_view typesOf(std::string_view selector) {
    if (const auto row = okv::Dispatcher<Data>::find(selector))
        return okv::Dispatcher<Data>::types(*row);
    if (const auto row = okv::Dispatcher<Admin>::find(selector))
        return okv::Dispatcher<Admin>::types(*row);
    throw std::logic_error("neither protocol has " + std::string(selector));
}

void writeArgument(okv::CborWriter& out, char type, const Value& argument) {
    if (argument.isNil()) return out.reference(7);  // a client of the caller's
    if (type == 'i') return out.integer(argument.as<std::int64_t>());
    if (type == 'c') return out.boolean(argument.as<bool>());
    out.value(argument);
}

}  // namespace

const std::vector<Row>& rightsTable() {
    static const auto table = wholeTable();
    return table;
}

std::string requestFor(const Row& row) {
    const auto types = typesOf(row.selector);
    if (types.size() != row.arguments.size())
        throw std::logic_error(std::string(row.selector) + ": other arguments than it takes");
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, row.selector, types);
    okv::CborWriter out(frame);
    for (std::size_t i = 0; i < types.size(); ++i) writeArgument(out, types[i], row.arguments[i]);
    okv::finishRequest(frame);
    return frame;
}

std::string replyTo(okv::RemoteObject& root, const Row& row) {
    auto frame = requestFor(row);
    return root.port().call(frame);
}

std::optional<okv::Refusal> refusalIn(const std::string& reply) {
    okv::CborReader reader(reply);
    reader.value();
    return okv::readRefusal(reader);
}

void furnish() {
    const auto root = faults::connect();
    okv::send<&Data::setUseridPT_applyUid>(*root, kAccount, kOwnUser);
    okv::send<&Data::setUseridPT_applyUid>(*root, kOtherAccount, kOtherUser);
    okv::send<&Admin::setOKVCommonDataAllPT>(*root, Dictionary{{kKey, "all"}});
    for (const auto user : {kOwnUser, kOtherUser})
        okv::send<&Data::setOKVDataPT_value_appUid>(*root, kKey, "own", user);
}

}  // namespace limits_test
