#pragma once

#include "CommandLine.h"
#include "Output.h"
#include "Server.h"
#include "ToolError.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace okvctl {

/// What a verb has to do with.
struct Call {
    const CommandLine& line;
    Server& server;
    Output& out;

    std::span<const std::string_view> operands() const noexcept { return line.operands; }
    bool prints(Format format) const noexcept { return line.format == format; }
};

/// A verb's second word, where it has several meanings.
struct Action {
    std::string_view name;
    ExitCode (*run)(Call& call);
};

/// What a shell offers in the place of an operand.
enum class Offer { choice, keys, keysToSet, lockedKeys, users, accounts, processes, files };

inline constexpr std::size_t kEveryPlace = SIZE_MAX;  ///< whichever operand is being written

/// One line of a verb's rules for shells; the first that fits counts.
struct OperandOffer {
    std::size_t place;  ///< counted from 0
    Offer offer;
    std::span<const std::string_view> choice = {};
    /// Where it depends on one: what the first operand must be; for every place, the second one.
    std::string_view behind = {};
};

/// A verb of the tool: one file under verbs/ each, and one row of the table in Verbs.cpp.
struct Verb {
    std::string_view name;
    std::string_view operands;  ///< as its usage line shows them
    std::string_view summary;   ///< one line
    std::string_view details;   ///< the rest of its help, with ends of line
    unsigned takes;             ///< the options of OptionSet that have a meaning for it
    /// Throws ToolError. Checks the operands before it asks the server anything.
    ExitCode (*run)(Call& call);
    std::span<const OperandOffer> offers = {};
    std::span<const Action> actions = {};  ///< what its first operand may be, for shells
    bool hidden = false;                   ///< not for people: in no help
};

std::span<const Verb* const> verbs();
/// The verb of this name, or null.
const Verb* findVerb(std::string_view name);

/// One line on the standard error, whatever the text quotes.
void complain(std::string_view text);

/// Ends a verb that was called wrongly: the tool adds the verb's usage.
[[noreturn]] void throwUsage(const std::string& mistake);

}  // namespace okvctl
