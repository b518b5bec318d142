#include "ChangingSide.h"
#include "Keys.h"
#include "Transfer.h"
#include "View.h"

namespace datacenter {

using Kind = okv::Refusal::Kind;
using okv::Value;

namespace {

constexpr std::size_t kProcessesOneByOne = 8;
// The system's (uid_t)-1, which is never an account's.
constexpr std::int32_t kNoAccount = -1;

}  // namespace

bool AdminChangingSide::setCommon(const Value& given) {
    const auto* settings = ledger_.settingsIn(given);
    if (settings == nullptr) return false;
    const auto before = ledger_.store().usage(kEverybody);
    for (const auto& [key, value] : *settings) {
        std::string encoded;
        if (!ledger_.checkKey(key) || !ledger_.encode(value, ledger_.limits().valueBytes, encoded))
            return false;
        const auto& text = key.as<std::string>();
        ledger_.carryOut(
            step::Setting{kEverybody, text, value, std::move(encoded), ledger_.stamp()});
        ledger_.tellKey(text);
    }
    return ledger_.checkRoom(kEverybody, before);
}

bool AdminChangingSide::setOKVCommonDataAllPT(const Value& settings) {
    return ledger_.change([&] { return setCommon(settings); });
}

bool AdminChangingSide::setLocks(const Value& keys, bool locked) {
    return ledger_.change([&] {
        const auto* array = keys.getIf<okv::Array>();
        if (array == nullptr) return ledger_.refuse(Kind::invalid, "locks are an array of keys");
        if (!ledger_.checkNamed(array->size())) return false;
        for (const auto& key : *array) {
            if (!ledger_.checkKey(key)) return false;
            const auto& text = key.as<std::string>();
            ledger_.carryOut(step::Lock{text, locked, ledger_.stamp()});
            ledger_.tellKey(text);
        }
        return !locked || ledger_.checkLocks();
    });
}

bool AdminChangingSide::lockOKVDataPT(const Value& keys) {
    return setLocks(keys, true);
}

bool AdminChangingSide::unlockOKVDataPT(const Value& keys) {
    return setLocks(keys, false);
}

bool AdminChangingSide::setProcess(ProcessList list, const Value& name, const Value& identifier,
                                   std::vector<step::Process>& steps) {
    std::string encoded;
    if (!ledger_.checkKey(name) ||
        !ledger_.encode(identifier, ledger_.limits().valueBytes, encoded))
        return false;
    step::Process process{list, name.as<std::string>(), identifier};
    ledger_.store().carryOut(process);
    steps.push_back(std::move(process));
    return true;
}

// Many as a whole: taken out of the view's dictionary one by one, they would keep reads waiting.
void AdminChangingSide::tellProcesses(ProcessList list, std::vector<step::Process> steps) {
    if (steps.size() > kProcessesOneByOne)
        return ledger_.remember(step::Processes{
            list, std::make_shared<okv::Dictionary>(ledger_.store().processes(list))});
    for (auto& step : steps) ledger_.remember(std::move(step));
}

bool AdminChangingSide::setProcesses(ProcessList list, const Value& processes) {
    return ledger_.change([&] {
        const auto* dictionary = processes.getIf<okv::Dictionary>();
        if (dictionary == nullptr)
            return ledger_.refuse(Kind::invalid,
                                  "processes are a dictionary of name to identifier");
        if (!ledger_.checkNamed(dictionary->size())) return false;
        const auto before = ledger_.store().processUsage(list);
        std::vector<step::Process> steps;
        for (const auto& [name, identifier] : *dictionary) {
            if (!setProcess(list, name, identifier, steps)) return false;
        }
        tellProcesses(list, std::move(steps));
        return ledger_.checkProcesses(list, before);
    });
}

bool AdminChangingSide::setOkvFltProcWhiteListPT(const Value& processes) {
    return setProcesses(ProcessList::white, processes);
}

bool AdminChangingSide::setOkvFltProcBlackListPT(const Value& processes) {
    return setProcesses(ProcessList::black, processes);
}

bool AdminChangingSide::setOkvKillWebProcListPT(const Value& processes) {
    return setProcesses(ProcessList::killWeb, processes);
}

bool AdminChangingSide::setCurrentUserIdPT_osUid(const Value& user, std::int32_t osUid) {
    return ledger_.change([&] {
        const auto id = userIdOf(user).value_or(kNoUser);
        const auto account = accountOf(osUid);
        if (osUid == kNoAccount || !isAccount(account))
            return ledger_.refuse(Kind::invalid, "no account has this number");
        if (!ledger_.checkUser(id)) return false;
        const auto before = ledger_.store().accountCount();
        ledger_.carryOut(step::Switch{account, id});
        ledger_.tellSwitch(account, id);
        return ledger_.checkAccounts(before);
    });
}

// The least size is known before anything is read: what cannot fit is not gathered first.
Value AdminChangingSide::exported() {
    const auto& limits = ledger_.limits();
    if (ledger_.store().bytesInAll() <= static_cast<std::int64_t>(limits.replyBytes)) {
        Value whole = exportOf(*ledger_.store().load());
        if (fitsInReply(whole, limits)) return whole;
    }
    ledger_.refuse(Kind::tooLarge, "the export is more than one message carries");
    return {};
}

Value AdminChangingSide::exportDataPT() {
    Value whole;
    ledger_.change([&] {
        whole = exported();
        return false;  // nothing was changed
    });
    return whole;
}

bool AdminChangingSide::importDataPT(const Value& store) {
    return ledger_.change([&] {
        const auto* whole = store.getIf<okv::Dictionary>();
        if (whole == nullptr) return ledger_.refuse(Kind::invalid, "an export is a dictionary");
        if (!Import(ledger_).take(*whole)) return false;
        ledger_.remember(step::Reload{ledger_.store().load()});
        ledger_.tellEveryKey();
        return true;
    });
}

}  // namespace datacenter
