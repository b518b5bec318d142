#include "CommandLine.h"

#include "Nearest.h"
#include "ToolError.h"

#include <OKVPlatform/values/PropertyListScalars.h>

#include <algorithm>

namespace okvctl {

namespace {

constexpr double kLongestTimeout = 1e9;

[[noreturn]] void refuse(const std::string& text) {
    throw ToolError(ExitCode::usage, text);
}

[[noreturn]] void refuseWord(const char* option, std::string_view word,
                             std::span<const std::string_view> known) {
    refuse(std::string(option) + " takes " + joined(known, "|") + ", not '" + std::string(word) +
           "'" + didYouMean(word, known));
}

double secondsOf(std::string_view text) {
    const auto seconds = okv::parseReal(text);
    if (seconds && *seconds >= 0 && *seconds <= kLongestTimeout) return *seconds;
    refuse("--timeout takes seconds, such as 2.5 (0: none), not '" + std::string(text) + "'");
}

ValueType typeOf(std::string_view text) {
    if (const auto type = valueTypeNamed(text)) return *type;
    refuseWord("--type", text, valueTypeNames());
}

Format formatOf(std::string_view text) {
    const auto found = std::find(kFormatNames.begin(), kFormatNames.end(), text);
    if (found == kFormatNames.end()) refuseWord("--format", text, kFormatNames);
    return formatAt(static_cast<std::size_t>(found - kFormatNames.begin()));
}

void choose(CommandLine& line, Format format) {
    if (line.format && *line.format != format)
        refuse("two formats were asked for (--json is --format json)");
    line.format = format;
}

constexpr Option kOptions[] = {
    {"--format", "FORMAT", "how to print: table|json|plist|raw", kNoOptions,
     [](CommandLine& line, std::string_view value) { choose(line, formatOf(value)); }},
    {"--json", "", "the same as --format json: one JSON document on a line", kNoOptions,
     [](CommandLine& line, std::string_view) { choose(line, kJson); }},
    {"--no-legend", "", "print tables without their heads and counts", kNoOptions,
     [](CommandLine& line, std::string_view) { line.legend = false; }},
    {"--runtime-dir", "DIR", "look for the data server there", kNoOptions,
     [](CommandLine& line, std::string_view value) { line.runtimeDir = value; }},
    {"--user", "APPUID", "the application user that is meant; without it, everybody", kTakesUser,
     [](CommandLine& line, std::string_view value) { line.user = userIdOf(value); }},
    {"--timeout", "SECONDS", "how long the data server may take (30; 0: for ever)", kNoOptions,
     [](CommandLine& line, std::string_view value) { line.timeout = secondsOf(value); }},
    {"--wait", "", "wait for a data server that is not there yet, within --timeout", kNoOptions,
     [](CommandLine& line, std::string_view) { line.wait = true; }},
    {"--type", "TYPE", "how to read a VALUE: string|int|bool|real|date|data|json|null", kTakesType,
     [](CommandLine& line, std::string_view value) { line.type = typeOf(value); }},
    {"--since", "REVISION", "begin with the changes after that revision", kTakesSince,
     [](CommandLine& line, std::string_view value) { line.since = revisionOf(value); }},
    {"--dry-run", "", "print what would change, and change nothing", kTakesDryRun,
     [](CommandLine& line, std::string_view) { line.dryRun = true; }},
    {"--managed", "", "only applications, with what their bundles declare", kTakesManaged,
     [](CommandLine& line, std::string_view) { line.managed = true; }},
    {"--help", "", "print what the tool, or the verb, does", kNoOptions,
     [](CommandLine& line, std::string_view) { line.help = true; }},
    {"--version", "", "print the version", kNoOptions,
     [](CommandLine& line, std::string_view) { line.version = true; }},
};

const Option& optionNamed(std::string_view name) {
    if (name == "-h") name = "--help";
    std::vector<std::string_view> names;
    for (const auto& option : kOptions) {
        if (option.name == name) return option;
        names.push_back(option.name);
    }
    refuse("there is no option " + std::string(name) + didYouMean(name, names));
}

// Reads the option at the front of the arguments; answers how many it takes.
std::size_t takeOption(CommandLine& line, std::span<const char* const> arguments) {
    const std::string_view argument = arguments[0];
    const auto assignment = argument.find('=');
    const auto& option = optionNamed(argument.substr(0, assignment));
    const bool attached = assignment != std::string_view::npos;
    if (option.operand.empty()) {
        if (attached) refuse(std::string(option.name) + " takes no value");
        option.apply(line, {});
        return 1;
    }
    if (!attached && arguments.size() < 2)
        refuse(std::string(option.name) + " needs a value: " + std::string(option.operand));
    option.apply(line, attached ? argument.substr(assignment + 1) : arguments[1]);
    return attached ? 1 : 2;
}

bool isOption(std::string_view argument) {
    return argument.starts_with("--") || argument == "-h";
}

void takeWord(CommandLine& line, std::string_view word) {
    if (line.verb.empty()) {
        if (word.empty()) refuse("the verb is empty");
        line.verb = word;
    } else {
        line.operands.push_back(word);
    }
}

}  // namespace

unsigned CommandLine::given() const noexcept {
    return (user ? kTakesUser : 0U) | (type ? kTakesType : 0U) | (since ? kTakesSince : 0U) |
           (dryRun ? kTakesDryRun : 0U) | (managed ? kTakesManaged : 0U);
}

std::span<const Option> options() {
    return kOptions;
}

void parseCommandLine(std::span<const char* const> arguments, CommandLine& line) {
    bool optionsOver = false;
    while (!arguments.empty()) {
        std::size_t taken = 1;
        const std::string_view argument = arguments[0];
        if (!optionsOver && argument == "--") {
            optionsOver = true;
        } else if (!optionsOver && isOption(argument)) {
            taken = takeOption(line, arguments);
        } else {
            takeWord(line, argument);
        }
        arguments = arguments.subspan(taken);
    }
    if (line.runtimeDir && line.runtimeDir->empty()) refuse("--runtime-dir names no folder");
}

std::string optionsHelp(unsigned set) {
    std::string text;
    for (const auto& option : kOptions) {
        if (option.set != kNoOptions && (option.set & set) == 0) continue;
        auto head = "  " + std::string(option.name) + " " + std::string(option.operand);
        head.resize(std::max<std::size_t>(head.size() + 1, 24), ' ');
        text.append(head).append(option.summary).append("\n");
    }
    return text;
}

std::int32_t userIdOf(std::string_view text) {
    const auto number = okv::parseInteger(text);
    if (number && *number >= 1 && *number <= INT32_MAX) return static_cast<std::int32_t>(*number);
    refuse("an application user is a number from 1 on, not '" + std::string(text) + "'");
}

std::int64_t revisionOf(std::string_view text) {
    const auto number = okv::parseInteger(text);
    if (number && *number >= 0) return *number;
    refuse("a revision is a number from 0 on, not '" + std::string(text) + "'");
}

}  // namespace okvctl
