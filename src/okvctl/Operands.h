#pragma once

#include "Verb.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

// What verbs have in common about the words behind them and the answers they get. All throw
// ToolError.
namespace okvctl {

inline constexpr std::size_t kAnyNumber = SIZE_MAX;

/// Checks how many operands there are; `needed` names the first one that is missing.
void expectOperands(const Call& call, std::size_t atLeast, std::size_t atMost,
                    std::string_view needed);

/// The operands as keys, none of them empty.
okv::Array keysOf(const Call& call);
/// "a, b, c and 4 more": what a message about several keys begins with.
std::string subjectOf(std::span<const std::string_view> keys);

/// Cuts "NAME=REST" in two; `last` cuts at the last "=".
std::pair<std::string_view, std::string_view> cutAssignment(std::string_view text,
                                                            bool last = false);
/// The text of a VALUE, read by the call's --type; `about` is what it is for.
okv::Value valueOf(const Call& call, std::string_view about, std::string_view text);

/// An account of the operating system: its uid, or its name.
std::int32_t accountOf(std::string_view text);
/// The --user of a verb that needs one.
std::int32_t neededUser(const Call& call);

/// An answer that must be a dictionary or an array.
const okv::Dictionary& dictionaryIn(const okv::Value& answer);
const okv::Array& arrayIn(const okv::Value& answer);

/// Throws the usage error for a word that is no action.
const Action& actionNamed(std::string_view name, std::span<const Action> actions);

}  // namespace okvctl
