#include "StoreCheck.h"

#include "Nearest.h"
#include "ToolError.h"
#include "ValueText.h"

#include <OKVDataCenter/ExportNames.h>
#include <OKVPlatform/values/NumberText.h>
#include <OKVPlatform/values/PropertyListScalars.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace okvctl {

namespace {

using okv::Dictionary;
using okv::Value;

constexpr std::size_t kKeyBytes = 255;
constexpr std::string_view kSystemKeys = "dc-syscmnf-";

[[noreturn]] void bad(const std::string& place, const std::string& what) {
    throw ToolError(ExitCode::failure, place + ": " + what);
}

std::string inside(const std::string& place, const Value& key) {
    auto name = cellText(key);
    if (name.size() > kKeyBytes) name = name.substr(0, kKeyBytes) + "...";
    return place.empty() ? name : place + "." + name;
}

const Dictionary& dictionaryAt(const std::string& place, const Value& value) {
    if (const auto* dictionary = value.getIf<Dictionary>()) return *dictionary;
    bad(place, "a dictionary belongs here, not a " + std::string(typeName(value)));
}

// Ids are texts in the file, as not every form of file has numbers for keys.
std::optional<std::int64_t> idOf(const Value& value) {
    const auto* text = value.getIf<std::string>();
    return text != nullptr ? okv::decimalIn<std::int64_t>(*text) : value.longLongValue();
}

void checkName(const std::string& place, const Value& name, const std::string& owner,
               std::span<const std::string_view> known) {
    const auto text = cellText(name);
    if (std::find(known.begin(), known.end(), text) == known.end())
        bad(inside(place, name), owner + " has no such part; remove it" + didYouMean(text, known));
}

void checkNumber(const std::string& place, const Value& number) {
    if (!number.is<std::int64_t>()) bad(place, "a number belongs here");
}

void checkKey(const std::string& place, const Value& key) {
    const auto* text = key.getIf<std::string>();
    if (text == nullptr || text->empty() || text->size() > kKeyBytes || !isPrintable(*text))
        bad(inside(place, key),
            "a key is a text of 1 to 255 bytes without control characters; rename or remove it");
}

void checkNamed(const std::string& place, const Value& part) {
    for (const auto& entry : dictionaryAt(place, part)) checkKey(place, entry.key);
}

void checkUsersSettings(const std::string& place, const Value& settings) {
    checkNamed(place, settings);
    for (const auto& entry : settings.as<Dictionary>()) {
        if (entry.key.as<std::string>().starts_with(kSystemKeys))
            bad(inside(place, entry.key),
                "settings of the system are everybody's; move it to \"everybody\"");
    }
}

void checkUser(const std::string& place, const Value& content) {
    for (const auto& [name, value] : dictionaryAt(place, content)) {
        if (name == Value("settings")) {
            checkUsersSettings(inside(place, name), value);
        } else {
            checkName(place, name, "a user", datacenter::kUserListNames);
        }
    }
}

void checkUsers(const std::string& place, const Value& users) {
    for (const auto& [id, content] : dictionaryAt(place, users)) {
        const auto number = idOf(id);
        if (!number || *number < 1 || *number > INT32_MAX)
            bad(inside(place, id), "a user is a number from 1 on; correct or remove it");
        checkUser(inside(place, id), content);
    }
}

void checkAccount(const std::string& place, const Value& content) {
    static constexpr std::string_view kNames[] = {"appuid", "current"};
    for (const auto& [name, user] : dictionaryAt(place, content)) {
        checkName(place, name, "an account", kNames);
        checkNumber(inside(place, name), user);
    }
}

void checkAccounts(const std::string& place, const Value& accounts) {
    for (const auto& [uid, content] : dictionaryAt(place, accounts)) {
        const auto number = idOf(uid);
        if (!number || *number < 0 || *number > UINT32_MAX)
            bad(inside(place, uid), "an account is a uid; correct or remove it");
        checkAccount(inside(place, uid), content);
    }
}

void checkLocks(const std::string& place, const Value& locks) {
    const auto* keys = locks.getIf<okv::Array>();
    if (keys == nullptr) bad(place, "an array of keys belongs here");
    for (const auto& key : *keys) checkKey(place, key);
}

void checkTime(const std::string& place, const Value& time) {
    const auto* date = time.getIf<okv::Date>();
    if (date == nullptr || !std::isfinite(date->secondsSince1970))
        bad(place, "a date belongs here, as {\"$date\": \"2026-01-31T23:59:59Z\"} in JSON");
}

// The null object is the time of a clock that was never set.
void checkClock(const std::string& place, const Value& clock) {
    static constexpr std::string_view kNames[] = {"time", "since", "running"};
    for (const auto& [name, value] : dictionaryAt(place, clock)) {
        checkName(place, name, "the clock", kNames);
        const auto at = inside(place, name);
        if (name == Value("running")) {
            if (!value.is<bool>()) bad(at, "true or false belongs here");
        } else if (name == Value("since") || !value.isNull()) {
            checkTime(at, value);
        }
    }
}

void checkForm(const std::string& place, const Value& form) {
    if (form != Value(1)) bad(place, "only files of the form 1 are understood; export anew");
}

void ignore(const std::string&, const Value&) {}

struct Part {
    std::string_view name;
    void (*check)(const std::string& place, const Value& part);
};

constexpr Part kParts[] = {
    {"format", checkForm},
    {"epoch", ignore},
    {"revision", ignore},
    {"everybody", checkNamed},
    {"users", checkUsers},
    {"accounts", checkAccounts},
    {"locks", checkLocks},
    {datacenter::kProcessListNames[0], checkNamed},
    {datacenter::kProcessListNames[1], checkNamed},
    {datacenter::kProcessListNames[2], checkNamed},
    {"current_user", checkNumber},
    {"highest_user", checkNumber},
    {"clock", checkClock},
};

void checkPart(const Value& name, const Value& part) {
    std::vector<std::string_view> names;
    for (const auto& known : kParts) {
        if (name == Value(known.name)) return known.check(std::string(known.name), part);
        names.push_back(known.name);
    }
    const auto text = inside("", name);
    bad(text, "there is no such part; remove it" + didYouMean(text, names));
}

// A user who is named must be in the file, where it holds the users.
void checkKnown(const Dictionary& users, const std::string& place, const Value& user) {
    const auto number = user.getIf<std::int64_t>();
    if (number == nullptr || users.contains(std::to_string(*number)) ||
        users.find(Value(*number)) != nullptr)
        return;
    bad(place, "there is no user " + std::to_string(*number) + "; add it to \"users\"");
}

void checkUsersNamed(const Dictionary& store) {
    const auto* users = store["users"].getIf<Dictionary>();
    if (users == nullptr) return;
    checkKnown(*users, "current_user", store["current_user"]);
    const auto* accounts = store["accounts"].getIf<Dictionary>();
    if (accounts == nullptr) return;
    for (const auto& [uid, account] : *accounts) {
        const auto place = inside("accounts", uid);
        const auto& content = account.as<Dictionary>();
        checkKnown(*users, place + ".appuid", content["appuid"]);
        checkKnown(*users, place + ".current", content["current"]);
    }
}

}  // namespace

void checkStore(const Value& store) {
    const auto& parts = dictionaryAt("the file", store);
    if (!parts.contains("format"))
        bad("the file", "it has no \"format\", so it is no export; make one with okvctl export");
    for (const auto& [name, part] : parts) checkPart(name, part);
    checkUsersNamed(parts);
}

}  // namespace okvctl
