#include "Operands.h"

#include "Nearest.h"

#include <OKVPlatform/values/PropertyListScalars.h>

#include <pwd.h>

namespace okvctl {

namespace {

constexpr std::size_t kKeysNamed = 3;

template <class T>
const T& partOf(const okv::Value& answer) {
    if (const auto* part = answer.getIf<T>()) return *part;
    throw ToolError(ExitCode::failure, "the data server's answer is not understood: a " +
                                           std::string(typeName(answer)) + " came");
}

}  // namespace

void expectOperands(const Call& call, std::size_t atLeast, std::size_t atMost,
                    std::string_view needed) {
    const auto operands = call.operands();
    if (operands.size() < atLeast) throwUsage(std::string(needed) + " is missing");
    if (operands.size() > atMost)
        throwUsage("'" + std::string(operands[atMost]) + "' is one word too many");
}

okv::Array keysOf(const Call& call) {
    expectOperands(call, 1, kAnyNumber, "KEY");
    okv::Array keys;
    for (const auto key : call.operands()) {
        if (key.empty()) throwUsage("a KEY is empty");
        keys.emplace_back(key);
    }
    return keys;
}

std::string subjectOf(std::span<const std::string_view> keys) {
    std::string subject;
    for (std::size_t i = 0; i < keys.size() && i < kKeysNamed; ++i)
        subject.append(subject.empty() ? "" : ", ").append(keys[i]);
    if (keys.size() > kKeysNamed)
        subject.append(" and " + std::to_string(keys.size() - kKeysNamed) + " more");
    return subject;
}

std::pair<std::string_view, std::string_view> cutAssignment(std::string_view text, bool last) {
    const auto sign = last ? text.rfind('=') : text.find('=');
    if (sign == std::string_view::npos) throwUsage("'" + std::string(text) + "' has no '='");
    if (sign == 0) throwUsage("'" + std::string(text) + "' has nothing before its '='");
    return {text.substr(0, sign), text.substr(sign + 1)};
}

okv::Value valueOf(const Call& call, std::string_view about, std::string_view text) {
    auto parsed = parseValue(call.line.type.value_or(ValueType::string), text);
    if (!parsed) throwUsage(std::string(about) + ": " + parsed.error);
    return std::move(*parsed.value);
}

std::int32_t accountOf(std::string_view text) {
    if (const auto uid = okv::parseInteger(text)) {
        if (*uid >= 0 && *uid <= INT32_MAX) return static_cast<std::int32_t>(*uid);
        throwUsage("an account is a uid from 0 to 2147483647, not " + std::string(text));
    }
    const auto* const entry = getpwnam(std::string(text).c_str());
    if (entry == nullptr || entry->pw_uid > INT32_MAX)
        throwUsage("there is no account '" + std::string(text) + "'; its uid would do, too");
    return static_cast<std::int32_t>(entry->pw_uid);
}

std::int32_t neededUser(const Call& call) {
    if (!call.line.user) throwUsage("say whose with --user APPUID");
    return *call.line.user;
}

const okv::Dictionary& dictionaryIn(const okv::Value& answer) {
    return partOf<okv::Dictionary>(answer);
}

const okv::Array& arrayIn(const okv::Value& answer) {
    return partOf<okv::Array>(answer);
}

const Action& actionNamed(std::string_view name, std::span<const Action> actions) {
    std::vector<std::string_view> names;
    for (const auto& action : actions) {
        if (action.name == name) return action;
        names.push_back(action.name);
    }
    throwUsage("'" + std::string(name) + "' is nothing it does" + didYouMean(name, names));
}

}  // namespace okvctl
