#pragma once

#include "ValueText.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace okvctl {

/// The options that only some verbs take, as bits.
enum OptionSet : unsigned {
    kNoOptions = 0,
    kTakesUser = 1,
    kTakesType = 2,
    kTakesSince = 4,
};

inline constexpr double kStandardTimeout = 30;

/// A call of the tool, taken apart but not yet understood. Texts point into the arguments.
struct CommandLine {
    bool json = false;
    bool help = false;
    bool version = false;
    std::optional<std::string_view> runtimeDir;
    double timeout = kStandardTimeout;  ///< seconds; 0: none
    std::optional<std::int32_t> user;   ///< none: everybody
    std::optional<ValueType> type;      ///< none: a string
    std::optional<std::int64_t> since;
    std::string_view verb;  ///< empty: none was given
    std::vector<std::string_view> operands;

    /// The options of OptionSet that were given.
    unsigned given() const noexcept;
};

/// Options may stand before and behind the verb, as "--name VALUE" or "--name=VALUE"; "--" ends
/// them. Throws ToolError (usage); `line` then holds what came before the mistake.
void parseCommandLine(std::span<const char* const> arguments, CommandLine& line);

/// The tool's options, a line each, for its help; `set` tells of which verb-bound ones.
std::string optionsHelp(unsigned set);

/// A user's id: 1 to 2^31-1. Throws ToolError (usage).
std::int32_t userIdOf(std::string_view text);
/// A revision: 0 or more. Throws ToolError (usage).
std::int64_t revisionOf(std::string_view text);

}  // namespace okvctl
