#pragma once

#include "ValueText.h"

#include <array>
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
    kTakesDryRun = 8,
    kTakesManaged = 16,
    kEveryOption = 31,
};

/// The forms in which results are printed, as bits.
enum Format : unsigned {
    kTable = 1,  ///< columns for people
    kJson = 2,
    kPlist = 4,  ///< an XML property list
    kRaw = 8,    ///< a value's bytes and nothing else
};

/// In the order of their bits.
inline constexpr std::array<std::string_view, 4> kFormatNames{"table", "json", "plist", "raw"};
constexpr Format formatAt(std::size_t place) {
    return static_cast<Format>(1U << place);
}

inline constexpr double kStandardTimeout = 30;

/// A call of the tool, taken apart but not yet understood. Texts point into the arguments.
struct CommandLine {
    std::optional<Format> format;  ///< none: as the verb prints by itself
    bool legend = true;            ///< heads and counts around tables
    bool wait = false;             ///< for a data server that is not there yet
    bool dryRun = false;
    bool managed = false;
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

/// An option of the tool.
struct Option {
    std::string_view name;
    std::string_view operand;  ///< how help names its value; empty: it takes none
    std::string_view summary;
    unsigned set;  ///< its bit of OptionSet, where only some verbs take it
    void (*apply)(CommandLine& line, std::string_view value);
};

std::span<const Option> options();

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
