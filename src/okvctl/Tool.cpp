#include "Tool.h"

#include "Nearest.h"
#include "Terminal.h"
#include "Verb.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace okvctl {

namespace {

constexpr std::string_view kUsage = "okvctl [OPTION]... VERB ...";

std::string usageOf(const Verb& verb) {
    std::string usage("okvctl ");
    usage.append(verb.name);
    if (!verb.operands.empty()) usage.append(" ").append(verb.operands);
    return usage;
}

// What a usage mistake's message ends with.
std::string usageFor(std::string_view name) {
    const auto* const verb = findVerb(name);
    if (verb != nullptr) return "; usage: " + usageOf(*verb);
    return "; usage: " + std::string(kUsage) + "; okvctl --help lists the verbs";
}

const Verb& verbNamed(std::string_view name) {
    if (name.empty()) throwUsage("no verb was given");
    if (const auto* const verb = findVerb(name)) return *verb;
    std::vector<std::string_view> names{"--help", "--version"};
    for (const auto* verb : verbs()) {
        if (!verb->hidden) names.push_back(verb->name);
    }
    throwUsage("there is no verb '" + std::string(name) + "'" + didYouMean(name, names));
}

std::string toolHelp() {
    std::string text("usage: " + std::string(kUsage) +
                     "\n\nReads and changes the suite's settings at the data server.\n\nverbs:\n");
    for (const auto* verb : verbs()) {
        if (verb->hidden) continue;
        auto head = "  " + std::string(verb->name);
        head.resize(std::max<std::size_t>(head.size() + 1, 14), ' ');
        text.append(head).append(verb->summary).append("\n");
    }
    text.append("\noptions:\n").append(optionsHelp(kEveryOption));
    text.append(
        "\nexit codes: 0 done, 1 failure, 2 usage, 3 time-out, 4 refused,\n"
        "            8 data server not running, 10 not set\n"
        "\nJSON: null is the null object, a real has a point or an exponent, and an object\n"
        "whose only key begins with $ stands for what JSON lacks: {\"$date\": \"...Z\"},\n"
        "{\"$data\": \"base64\"}, {\"$bytes\": \"base64\"} (a string that is not UTF-8),\n"
        "{\"$real\": \"nan\"}, {\"$nil\": true}, {\"$dictionary\": [[key, value], ...]}.\n");
    return text;
}

std::string verbHelp(const Verb& verb) {
    std::string text("usage: " + usageOf(verb) + "\n\n");
    text.append(verb.summary).append("\n");
    if (!verb.details.empty()) text.append("\n").append(verb.details);
    return text.append("\noptions:\n").append(optionsHelp(verb.takes));
}

// An option that would be passed over in silence could mean that somebody else is changed than was
// meant.
void checkOptions(const Verb& verb, const CommandLine& line) {
    const auto foreign = line.given() & ~verb.takes;
    for (const auto& option : options()) {
        if ((option.set & foreign) != 0) throwUsage("it takes no " + std::string(option.name));
    }
}

ExitCode runVerb(const Verb& verb, const CommandLine& line, Output& out) {
    if (line.help) {
        out.raw(verbHelp(verb));
        return ExitCode::done;
    }
    checkOptions(verb, line);
    out.setLegend(line.legend);
    Server server(line.timeout, line.wait);
    Call call{line, server, out};
    return verb.run(call);
}

ExitCode runLine(const CommandLine& line, Output& out) {
    if (line.runtimeDir) setenv("OKV_RUNTIME_DIR", std::string(*line.runtimeDir).c_str(), 1);
    if (line.version) {
        out.line("okvctl " OKVCTL_VERSION);
        return ExitCode::done;
    }
    if (line.help && line.verb.empty()) {
        out.raw(toolHelp());
        return ExitCode::done;
    }
    return runVerb(verbNamed(line.verb), line, out);
}

ExitCode run(std::span<const char* const> arguments, Output& out) {
    CommandLine line;
    try {
        parseCommandLine(arguments, line);
        return runLine(line, out);
    } catch (const ToolError& error) {
        std::string text = error.what();
        if (findVerb(line.verb) != nullptr) text = std::string(line.verb) + ": " + text;
        if (error.code() == ExitCode::usage) text += usageFor(line.verb);
        throw ToolError(error.code(), text);
    }
}

}  // namespace

void complain(std::string_view text) {
    const auto line = "okvctl: " + messageText(text);
    const auto red = wantsColours(STDERR_FILENO) ? Style::bad : Style::plain;
    std::fprintf(stderr, "%s\n", styled(line, red).c_str());
}

void throwUsage(const std::string& mistake) {
    throw ToolError(ExitCode::usage, mistake);
}

int runTool(std::span<const char* const> arguments) {
    try {
        std::signal(SIGPIPE, SIG_IGN);  // a reader that has read enough is no mistake
        Output out(STDOUT_FILENO);
        const auto code = run(arguments, out);
        out.flush();
        return static_cast<int>(code);
    } catch (const ToolError& error) {
        complain(error.what());
        return static_cast<int>(error.code());
    }
}

}  // namespace okvctl
