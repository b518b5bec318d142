#include "ReadingSide.h"

#include "Keys.h"
#include "SettingsReply.h"

namespace datacenter {

namespace {

using okv::Null;
using okv::Value;

// Not copied where a peer is answered.
Value inPlace(const Value& held) {
    auto* const invocation = okv::Invocation::current();
    if (invocation == nullptr) return held;
    invocation->answerWith(held);
    return {};
}

Value valueOf(const View& view, Scope scope, const Value& key) {
    const auto* text = key.getIf<std::string>();
    const auto found = text != nullptr ? view.find(scope, *text) : View::Found();
    return found.setting != nullptr ? inPlace(found.setting->value) : Null{};
}

Value tooMany(std::size_t limit) {
    if (auto* invocation = okv::Invocation::current())
        invocation->refuse(okv::Refusal::Kind::tooLarge,
                           "one read names at most " + std::to_string(limit) + " keys");
    return {};
}

Value valuesOf(const View& view, Scope scope, const Value& keys, const Limits& limits) {
    const auto* array = keys.getIf<okv::Array>();
    if (array == nullptr) return {};
    if (array->size() > limits.readKeys) return tooMany(limits.readKeys);
    SettingsReply reply(limits);
    for (const auto& key : *array) {
        const auto* text = key.getIf<std::string>();
        if (text == nullptr) return {};
        if (!reply.add(*text, view.find(scope, *text).setting)) break;
    }
    return std::move(reply).value();
}

const okv::PeerIdentity* caller() {
    const auto* invocation = okv::Invocation::current();
    return invocation != nullptr ? &invocation->caller() : nullptr;
}

}  // namespace

bool ReadingSide::registerAsClient(okv::RemoteObject& client) {
    if (state_.ending) return false;
    state_.clients.add(client);
    return true;
}

void ReadingSide::removeAsClient(okv::RemoteObject& client) {
    state_.clients.remove(client.port());
}

std::int32_t ReadingSide::connectCount() {
    return static_cast<std::int32_t>(state_.clients.count());
}

void ReadingSide::endServer() {
    state_.ending = true;
    state_.clients.disconnectAll();
    state_.end();
}

Value ReadingSide::okvDataPT(const Value& key) {
    return valueOf(view_, kEverybody, key);
}

Value ReadingSide::okvDataPT_osUid(const Value& key, std::int32_t osUid) {
    return valueOf(view_, view_.userOf(accountOf(osUid)), key);
}

Value ReadingSide::okvDataPT_appUid(const Value& key, std::int32_t appUid) {
    return valueOf(view_, appUid, key);
}

Value ReadingSide::okvDataAllPT(const Value& keys) {
    return valuesOf(view_, kEverybody, keys, limits_);
}

Value ReadingSide::okvDataAllPT_osUid(const Value& keys, std::int32_t osUid) {
    return valuesOf(view_, view_.userOf(accountOf(osUid)), keys, limits_);
}

Value ReadingSide::okvDataAllPT_appUid(const Value& keys, std::int32_t appUid) {
    return valuesOf(view_, appUid, keys, limits_);
}

Value ReadingSide::filterSettingsDataPT() {
    return settingsWhere(view_.everybody(), limits_, [](std::string_view key) {
        return !isSystemKey(key) && !isCommonKey(key);
    });
}

Value ReadingSide::systemConfDataPT() {
    return settingsWhere(view_.everybody(), limits_, isSystemKey);
}

Value ReadingSide::cmnSettingsDataPT() {
    return settingsWhere(view_.everybody(), limits_, isCommonKey);
}

Value ReadingSide::list(const Value& user, UserList list) const {
    const auto id = userIdOf(user);
    const auto* found = id ? view_.user(*id) : nullptr;
    return found != nullptr ? found->lists[static_cast<std::size_t>(list)] : Value();
}

Value ReadingSide::okvUserSettingPT(const Value& user) {
    return list(user, UserList::userSetting);
}

Value ReadingSide::okvContentsWordsPT(const Value& user) {
    return list(user, UserList::contentsWords);
}

Value ReadingSide::okvHammerListPT(const Value& user) {
    return list(user, UserList::hammerList);
}

Value ReadingSide::okvBlackExtensionListPT(const Value& user) {
    return list(user, UserList::blackExtensionList);
}

Value ReadingSide::okvFltProcWhiteListPT() {
    return view_.processes(ProcessList::white);
}

Value ReadingSide::okvFltProcBlackListPT() {
    return view_.processes(ProcessList::black);
}

Value ReadingSide::okvKillWebProcListPT() {
    return view_.processes(ProcessList::killWeb);
}

std::int32_t ReadingSide::defaultUserIdPT() {
    return kDefaultUser;
}

std::int32_t ReadingSide::currentUserIdPT() {
    const auto* who = caller();
    return who != nullptr && who->isAccount() ? view_.currentUserOf(who->uid) : view_.currentUser();
}

std::int32_t ReadingSide::maxUserIdPT() {
    return view_.highestUser();
}

std::int32_t ReadingSide::userAppuidPT(std::int32_t osUid) {
    return view_.userOf(accountOf(osUid));
}

Value ReadingSide::uidListPT() {
    okv::Dictionary accounts;
    for (const auto& [osUid, account] : view_.accounts()) {
        if (account.assigned) accounts.set(osUid, *account.assigned);
    }
    return accounts;
}

Value ReadingSide::useridAppListPT() {
    return inPlace(view_.userIds());
}

Value ReadingSide::serverTimePT() {
    const auto time = view_.clock().at(state_.now());
    return time ? Value(okv::Date{*time}) : Value();
}

}  // namespace datacenter
