#include "../Completion.h"
#include "../Nearest.h"
#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include <algorithm>
#include <cstdlib>

namespace okvctl {

namespace {

using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;
using Words = Sources::Words;

// Somebody waits for the shell: a data server that does not answer soon is none.
constexpr double kPatience = 0.5;

constexpr std::string_view kShells[] = {"bash", "zsh", "fish"};

ExitCode printScript(Call& call) {
    expectOperands(call, 1, 1, "bash, zsh or fish");
    expectFormats(call, kJson | kPlist | kRaw);
    const auto shell = call.operands()[0];
    const auto script = completionScript(shell);
    if (script.empty()) throwUsage(noneSuch("script for", shell, kShells));
    if (call.prints(kJson) || call.prints(kPlist)) {
        confirm(call, "script", script);
    } else {
        call.out.raw(script);
    }
    return ExitCode::done;
}

// The keys of a dictionary that can stand in a shell's line.
void addKeys(Words& words, const okv::Value& answer) {
    const auto* dictionary = answer.getIf<okv::Dictionary>();
    if (dictionary == nullptr) return;
    for (const auto& entry : *dictionary) {
        const auto* text = entry.key.getIf<std::string>();
        if (text == nullptr) {
            words.push_back(cellText(entry.key));
        } else if (isPrintable(*text)) {
            words.push_back(*text);
        }
    }
}

/// Asks, and takes no answer for nothing to offer.
template <class Ask>
Words offered(Ask ask) {
    Words words;
    try {
        ask(words);
    } catch (const ToolError&) {
        words.clear();
    }
    return words;
}

Words keysFor(Server& server, std::string_view user, std::string_view prefix) {
    return offered([&](Words& words) {
        addKeys(words, server.ask<&Admin::okvDataListPT>("", prefix));
        if (user.empty()) return;
        addKeys(words, server.ask<&Admin::okvDataListPT_appUid>("", prefix, userIdOf(user)));
        std::sort(words.begin(), words.end());
        words.erase(std::unique(words.begin(), words.end()), words.end());
    });
}

Words usersOf(Server& server) {
    return offered([&](Words& words) {
        const auto answer = server.ask<&Data::useridAppListPT>("");
        for (const auto& id : arrayIn(answer)) words.push_back(cellText(id));
    });
}

Words processesOf(Server& server, std::string_view list) {
    return offered([&](Words& words) {
        if (list == "white") addKeys(words, server.ask<&Data::okvFltProcWhiteListPT>(""));
        if (list == "black") addKeys(words, server.ask<&Data::okvFltProcBlackListPT>(""));
        if (list == "kill") addKeys(words, server.ask<&Data::okvKillWebProcListPT>(""));
    });
}

Sources sourcesFrom(Server& server, std::string_view user) {
    Sources sources;
    sources.keys = [&server, user](auto prefix) { return keysFor(server, user, prefix); };
    sources.lockedKeys = [&server] {
        return offered([&](Words& words) { addKeys(words, server.ask<&Admin::lockListPT>("")); });
    };
    sources.users = [&server] { return usersOf(server); };
    sources.accounts = [&server] {
        return offered([&](Words& words) { addKeys(words, server.ask<&Data::uidListPT>("")); });
    };
    sources.processes = [&server](auto list) { return processesOf(server, list); };
    return sources;
}

std::string_view nameOf(const Candidates& candidates) {
    if (candidates.kind == Candidates::Kind::files) return "files";
    if (candidates.kind == Candidates::Kind::folders) return "folders";
    return candidates.ended ? "words" : "words-open";
}

// bash puts a candidate in the place of what follows the last sign that it cut the word at.
std::string_view replacedFor(bool cut, std::string_view last, std::string_view word) {
    const auto sign = cut ? last.find_last_of("=:") : std::string_view::npos;
    return sign == std::string_view::npos ? word : word.substr(sign + 1);
}

ExitCode completeWords(Call& call) {
    expectOperands(call, 1, kAnyNumber, "SHELL");
    const bool isBash = call.operands()[0] == "bash";
    const auto given = call.operands().subspan(1);
    const auto joined = joinedAtSigns(given);
    const auto words = isBash ? std::vector<std::string_view>(joined.begin(), joined.end())
                              : std::vector<std::string_view>(given.begin(), given.end());
    const auto folder = optionIn(words, "--runtime-dir");
    if (!folder.empty()) setenv("OKV_RUNTIME_DIR", std::string(folder).c_str(), 1);
    Server server(kPatience);
    const auto found = complete(words, sourcesFrom(server, optionIn(words, "--user")));
    call.out.line(nameOf(found));
    const auto last = words.empty() ? std::string_view() : words.back();
    for (const auto& [word, summary] : found.words) {
        call.out.raw(replacedFor(isBash, last, word));
        if (!isBash && !summary.empty()) call.out.raw("\t" + std::string(summary));
        call.out.raw("\n");
    }
    return ExitCode::done;
}

constexpr OperandOffer kCompletionsOffers[] = {{0, Offer::choice, kShells}};

}  // namespace

const Verb kCompletions{
    "completions",
    "bash|zsh|fish",
    "print the script that completes words in a shell",
    "Verbs, options, and the keys, users and names that the data server holds. An installed tool\n"
    "brings the scripts along; by hand: source <(okvctl completions bash)\n",
    kNoOptions,
    printScript,
    kCompletionsOffers,
};

const Verb kComplete{
    "complete", "SHELL -- WORD...", "what the scripts ask", "", kNoOptions, completeWords, {}, {},
    true,
};

}  // namespace okvctl
