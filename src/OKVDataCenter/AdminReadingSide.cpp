#include "ReadingSide.h"
#include "SettingsReply.h"

#include <algorithm>

namespace datacenter {

namespace {

using okv::Date;
using okv::Dictionary;
using okv::Null;
using okv::Value;

Value listed(const View::Settings& settings, const Value& prefix, const Limits& limits) {
    const auto* text = prefix.getIf<std::string>();
    if (text == nullptr) return {};
    return settingsWhere(settings, limits,
                         [&](std::string_view key) { return key.starts_with(*text); });
}

Value described(const View& view, Scope scope, const Value& key) {
    const auto* text = key.getIf<std::string>();
    if (text == nullptr) return {};
    const auto [setting, ofUser] = view.find(scope, *text);
    const auto* lock = view.lock(*text);
    Dictionary info{{"key", key},
                    {"value", setting != nullptr ? setting->value : Value(Null{})},
                    {"origin", setting == nullptr ? "none"
                               : ofUser           ? "user"
                                                  : "everybody"},
                    {"locked", lock != nullptr}};
    if (setting != nullptr) {
        info.set("writer", setting->stamp.writer);
        info.set("time", Date{setting->stamp.time});
    }
    if (lock != nullptr) {
        info.set("lock_writer", lock->writer);
        info.set("lock_time", Date{lock->time});
    }
    return info;
}

// Of an answer that tells changes, beside them.
constexpr std::size_t kItemsAround = 8;

// At least what the change takes in a message.
std::size_t sizeOf(const Change& change) {
    constexpr std::size_t kNamesAndNumbers = 128;
    std::size_t size = kNamesAndNumbers;
    if (!change.keys) return size;
    for (const auto& key : *change.keys) size += key.size() + 3;
    return size;
}

// At most what it consists of in a message: names, numbers and a date, and the keys.
std::size_t itemsOf(const Change& change) {
    constexpr std::size_t kNamesAndNumbers = 16;
    return kNamesAndNumbers + (change.keys ? change.keys->size() : 0);
}

// The changes after a revision; nothing when they are not all known, or too many for one message.
std::optional<okv::Array> changesAfter(const View& view, std::int64_t revision,
                                       const Limits& limits) {
    const auto& changes = view.changes();
    const auto oldestKnown = view.revision() - static_cast<std::int64_t>(changes.size());
    if (revision < oldestKnown || revision > view.revision()) return std::nullopt;
    okv::Array after;
    std::size_t size = 0, items = kItemsAround;
    for (const auto& change : changes) {
        if (change.revision <= revision) continue;
        size += sizeOf(change);
        items += itemsOf(change);
        if (size > limits.replyBytes || items > limits.replyItems) return std::nullopt;
        auto entry = describe(change);
        entry.set("time", Date{change.stamp.time});
        entry.set("writer", change.stamp.writer);
        after.emplace_back(std::move(entry));
    }
    return after;
}

std::size_t largestProcessList(const View& view) {
    std::size_t largest = 0;
    for (std::size_t i = 0; i < kProcessLists; ++i)
        largest = std::max(largest, view.processes(static_cast<ProcessList>(i)).size());
    return largest;
}

// How much is taken of the limits, under their names.
void addUseOf(const View& view, Dictionary& status) {
    auto use = status["use"].is<Dictionary>() ? status["use"].as<Dictionary>() : Dictionary();
    const auto fullest = view.fullestScope();
    use.set("scope_keys", fullest.keys);
    use.set("scope_bytes", fullest.bytes);
    use.set("users", view.users().size());
    use.set("accounts", view.accounts().size());
    use.set("locks", view.locks().size());
    use.set("processes", largestProcessList(view));
    use.set("changes_kept", view.changes().size());
    status.set("use", std::move(use));
}

}  // namespace

Dictionary describe(const Change& change) {
    Dictionary entry{{"revision", change.revision},
                     {"osuserid", change.osUserId},
                     {"session_userid", change.sessionUserId}};
    if (change.appUid) entry.set("appuid", *change.appUid);
    if (change.keys) entry.set("keys", okv::Array(change.keys->begin(), change.keys->end()));
    return entry;
}

Value AdminReadingSide::okvDataListPT(const Value& prefix) {
    return listed(view_.everybody(), prefix, limits_);
}

Value AdminReadingSide::okvDataListPT_appUid(const Value& prefix, std::int32_t appUid) {
    const auto* user = view_.user(appUid);
    return user != nullptr ? listed(user->settings, prefix, limits_) : Value();
}

Value AdminReadingSide::okvDataInfoPT(const Value& key) {
    return described(view_, kEverybody, key);
}

Value AdminReadingSide::okvDataInfoPT_appUid(const Value& key, std::int32_t appUid) {
    return described(view_, appUid, key);
}

Value AdminReadingSide::lockListPT() {
    Dictionary locks;
    for (const auto& [key, stamp] : view_.locks())
        locks.set(key, Dictionary{{"writer", stamp.writer}, {"time", Date{stamp.time}}});
    return locks;
}

Value AdminReadingSide::changesPT(const Value& revision) {
    Dictionary answer{{"epoch", view_.epoch()}, {"revision", view_.revision()}};
    const auto* number = revision.getIf<std::int64_t>();
    auto changes = number != nullptr ? changesAfter(view_, *number, limits_) : std::nullopt;
    if (changes) {
        answer.set("changes", std::move(*changes));
    } else {
        answer.set("resync", true);
    }
    return answer;
}

Value AdminReadingSide::serverStatusPT() {
    auto status = state_.status();
    status.set("epoch", view_.epoch());
    status.set("revision", view_.revision());
    status.set("clients", static_cast<std::int64_t>(state_.clients.count()));
    status.set("users", static_cast<std::int64_t>(view_.users().size()));
    status.set("accounts", static_cast<std::int64_t>(view_.accounts().size()));
    status.set("settings", view_.settingCount());
    status.set("locks", static_cast<std::int64_t>(view_.locks().size()));
    Dictionary limits;
    for (const auto& [name, value] : namedLimits(limits_)) limits.set(name, value);
    status.set("limits", std::move(limits));
    addUseOf(view_, status);
    return status;
}

}  // namespace datacenter
