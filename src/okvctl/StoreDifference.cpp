#include "StoreDifference.h"

#include "ValueText.h"

#include <OKVDataCenter/ExportNames.h>

#include <algorithm>

namespace okvctl {

namespace {

using okv::Dictionary;
using okv::Value;

constexpr std::string_view kEverybody = "everybody";

const Dictionary& dictionaryOf(const Value& value) {
    static const Dictionary none;
    const auto* dictionary = value.getIf<Dictionary>();
    return dictionary != nullptr ? *dictionary : none;
}

// A file may have numbers for ids, too.
Dictionary byText(const Value& value) {
    Dictionary texts;
    for (const auto& [id, content] : dictionaryOf(value)) texts.set(cellText(id), content);
    return texts;
}

/// Gathers what differs.
class Comparison {
public:
    void one(std::string part, std::string whose, std::string key, const Value& before,
             const Value& after);
    void each(const std::string& part, const std::string& whose, const Value& before,
              const Value& after);
    void users(const Dictionary& before, const Dictionary& after);
    void accounts(const Dictionary& before, const Dictionary& after);

    std::vector<Difference> found;

private:
    void user(const Value& id, const Value& before, const Value& after);
};

// The null object takes a value away, as a missing one does.
void Comparison::one(std::string part, std::string whose, std::string key, const Value& before,
                     const Value& after) {
    if (before == after || (before.isMissing() && after.isMissing())) return;
    const auto change = before.isMissing() ? "added" : after.isMissing() ? "removed" : "changed";
    found.push_back({std::move(part), std::move(whose), change, std::move(key), before, after});
}

void Comparison::each(const std::string& part, const std::string& whose, const Value& before,
                      const Value& after) {
    for (const auto& [key, value] : dictionaryOf(after))
        one(part, whose, cellText(key), dictionaryOf(before)[key], value);
    for (const auto& [key, value] : dictionaryOf(before)) {
        if (dictionaryOf(after).find(key) == nullptr) one(part, whose, cellText(key), value, {});
    }
}

void Comparison::user(const Value& id, const Value& before, const Value& after) {
    const auto whose = "user " + cellText(id);
    if (before.isNil() != after.isNil())
        one("users", whose, {}, before.isNil() ? Value() : id, after.isNil() ? Value() : id);
    each("settings", whose, dictionaryOf(before)["settings"], dictionaryOf(after)["settings"]);
    for (const auto name : datacenter::kUserListNames)
        one("lists", whose, std::string(name), dictionaryOf(before)[name],
            dictionaryOf(after)[name]);
}

void Comparison::users(const Dictionary& before, const Dictionary& after) {
    for (const auto& [id, content] : after) user(id, before[id], content);
    for (const auto& [id, content] : before) {
        if (after.find(id) == nullptr) user(id, content, {});
    }
}

void Comparison::accounts(const Dictionary& before, const Dictionary& after) {
    for (const auto& [uid, content] : after)
        each("accounts", "account " + cellText(uid), before[uid], content);
    for (const auto& [uid, content] : before) {
        if (after.find(uid) == nullptr) each("accounts", "account " + cellText(uid), content, {});
    }
}

Dictionary keyed(const Value& keys) {
    Dictionary dictionary;
    const auto* array = keys.getIf<okv::Array>();
    for (const auto& key : array != nullptr ? *array : okv::Array()) dictionary.set(key, true);
    return dictionary;
}

// Ids that were given stay given.
Value higher(const Value& before, const Value& after) {
    return std::max(before.longLongValue(), after.longLongValue());
}

}  // namespace

std::vector<Difference> differencesBetween(const Dictionary& store, const Dictionary& file) {
    Comparison comparison;
    const std::string everybody(kEverybody);
    const auto holds = [&](std::string_view part) { return file.contains(part); };
    if (holds("everybody"))
        comparison.each("settings", everybody, store["everybody"], file["everybody"]);
    if (holds("users")) comparison.users(byText(store["users"]), byText(file["users"]));
    if (holds("accounts")) comparison.accounts(byText(store["accounts"]), byText(file["accounts"]));
    if (holds("locks"))
        comparison.each("locks", everybody, keyed(store["locks"]), keyed(file["locks"]));
    for (const auto list : datacenter::kProcessListNames) {
        if (holds(list)) comparison.each(std::string(list), everybody, store[list], file[list]);
    }
    if (holds("clock")) comparison.each("clock", everybody, store["clock"], file["clock"]);
    if (holds("current_user"))
        comparison.one("current_user", everybody, {}, store["current_user"], file["current_user"]);
    if (holds("highest_user"))
        comparison.one("highest_user", everybody, {}, store["highest_user"],
                       higher(store["highest_user"], file["highest_user"]));
    return std::move(comparison.found);
}

}  // namespace okvctl
