#include "Completion.h"

#include "Verb.h"

#include <algorithm>

namespace okvctl {

namespace {

using Words = std::span<const std::string_view>;

enum class Kind { choice, keys, keysToSet, lockedKeys, users, accounts, processes, files };

constexpr std::size_t kEvery = SIZE_MAX;  // this operand and all that follow

// What stands at an operand's place; `before` is the operand in front of it, where that matters.
struct Rule {
    std::string_view verb;
    std::size_t place;
    std::string_view before;
    Kind kind;
    std::string_view choice;
};

constexpr Rule kRules[] = {
    {"get", kEvery, "", Kind::keys, ""},
    {"set", kEvery, "", Kind::keysToSet, ""},
    {"unset", kEvery, "", Kind::keys, ""},
    {"list", 0, "", Kind::keys, ""},
    {"describe", 0, "", Kind::keys, ""},
    {"lock", kEvery, "", Kind::keys, ""},
    {"unlock", kEvery, "", Kind::lockedKeys, ""},
    {"users", 0, "", Kind::choice, "list|assign|unassign|remove|default|max|current|switch"},
    {"users", 1, "assign", Kind::accounts, ""},
    {"users", 1, "unassign", Kind::accounts, ""},
    {"users", 1, "switch", Kind::accounts, ""},
    {"users", 1, "remove", Kind::users, ""},
    {"users", 1, "current", Kind::users, ""},
    {"users", 2, "assign", Kind::users, ""},
    {"users", 2, "switch", Kind::users, ""},
    {"lists", 0, "", Kind::choice, "get|set"},
    {"lists", 1, "", Kind::choice, "user_setting|contents_words|hammer_list|black_extension_list"},
    {"procs", 0, "", Kind::choice, "white|black|kill|system"},
    {"procs", 1, "white", Kind::choice, "add|remove"},
    {"procs", 1, "black", Kind::choice, "add|remove"},
    {"procs", 1, "kill", Kind::choice, "add|remove"},
    {"procs", kEvery, "remove", Kind::processes, ""},
    {"clock", 0, "", Kind::choice, "get|set|start|stop"},
    {"export", 0, "", Kind::files, ""},
    {"import", 0, "", Kind::files, ""},
    {"category", 0, "", Kind::choice, "encode|decode"},
    {"completions", 0, "", Kind::choice, "bash|zsh|fish"},
};

/// The written words, told apart.
struct Written {
    const Verb* verb = nullptr;
    std::vector<std::string_view> operands;
    const Option* open = nullptr;  // its value is what is being written
    bool optionsOver = false;
};

const Option* findOption(std::string_view name) {
    const auto all = options();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Option& each) { return each.name == name; });
    return found != all.end() ? &*found : nullptr;
}

const Verb* findVerb(std::string_view name) {
    const auto all = verbs();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Verb* each) { return each->name == name; });
    return found != all.end() ? *found : nullptr;
}

void take(Written& written, std::string_view word) {
    if (written.open != nullptr) {
        written.open = nullptr;
    } else if (!written.optionsOver && word == "--") {
        written.optionsOver = true;
    } else if (!written.optionsOver && word.starts_with("--")) {
        const auto* option = findOption(word);
        if (option != nullptr && !option->operand.empty()) written.open = option;
    } else if (written.verb == nullptr) {
        written.verb = findVerb(word);
    } else {
        written.operands.push_back(word);
    }
}

void add(Candidates& to, std::string_view prefix, std::string word, std::string_view summary = {}) {
    if (word.starts_with(prefix)) to.words.push_back({std::move(word), summary});
}

void addAll(Candidates& to, std::string_view prefix, const Sources::Words& words) {
    for (const auto& word : words) add(to, prefix, word);
}

void addChoice(Candidates& to, std::string_view prefix, std::string_view choice) {
    while (!choice.empty()) {
        const auto end = std::min(choice.find('|'), choice.size());
        add(to, prefix, std::string(choice.substr(0, end)));
        choice.remove_prefix(std::min(end + 1, choice.size()));
    }
}

Candidates optionNames(std::string_view prefix, const Verb* verb) {
    Candidates to;
    const unsigned taken = verb != nullptr ? verb->takes : kEveryOption;
    for (const auto& option : options()) {
        if (option.set == kNoOptions || (option.set & taken) != 0)
            add(to, prefix, std::string(option.name), option.summary);
    }
    return to;
}

Candidates optionValues(const Option& option, std::string_view prefix, const Sources& sources) {
    Candidates to;
    if (option.name == "--format") addChoice(to, prefix, "table|json|plist|raw");
    if (option.name == "--type") addChoice(to, prefix, valueTypeNames());
    if (option.name == "--user") addAll(to, prefix, sources.users());
    if (option.name == "--runtime-dir") to.kind = Candidates::Kind::folders;
    return to;
}

Candidates verbNames(std::string_view prefix) {
    Candidates to;
    for (const auto* verb : verbs()) {
        if (!verb->hidden) add(to, prefix, std::string(verb->name), verb->summary);
    }
    return to;
}

const Rule* ruleFor(const Written& written) {
    const auto place = written.operands.size();
    for (const auto& rule : kRules) {
        if (rule.verb != written.verb->name) continue;
        const auto deciding = rule.place == kEvery ? std::size_t{1} : std::size_t{0};
        const bool isHere = rule.place == kEvery || rule.place == place;
        const bool fits =
            rule.before.empty() || (place > deciding && written.operands[deciding] == rule.before);
        if (isHere && fits) return &rule;
    }
    return nullptr;
}

void addKeysToSet(Candidates& to, std::string_view prefix, const Sources& sources) {
    if (prefix.find('=') != std::string_view::npos) return;
    to.ended = false;
    for (const auto& key : sources.keys(prefix)) add(to, prefix, key + "=");
}

Candidates operandsFor(const Rule& rule, const Written& written, std::string_view prefix,
                       const Sources& sources) {
    Candidates to;
    switch (rule.kind) {
        case Kind::choice:
            addChoice(to, prefix, rule.choice);
            break;
        case Kind::keys:
            addAll(to, prefix, sources.keys(prefix));
            break;
        case Kind::keysToSet:
            addKeysToSet(to, prefix, sources);
            break;
        case Kind::lockedKeys:
            addAll(to, prefix, sources.lockedKeys());
            break;
        case Kind::users:
            addAll(to, prefix, sources.users());
            break;
        case Kind::accounts:
            addAll(to, prefix, sources.accounts());
            break;
        case Kind::processes:
            addAll(to, prefix, sources.processes(written.operands[0]));
            break;
        case Kind::files:
            to.kind = Candidates::Kind::files;
            break;
    }
    return to;
}

// "--name=VALUE" is completed as a whole.
Candidates attachedValues(std::string_view word, const Sources& sources) {
    const auto sign = word.find('=');
    const auto* option = findOption(word.substr(0, sign));
    if (option == nullptr) return {};
    auto to = optionValues(*option, word.substr(sign + 1), sources);
    for (auto& candidate : to.words)
        candidate.word.insert(0, std::string(word.substr(0, sign + 1)));
    return to;
}

}  // namespace

Candidates complete(Words words, const Sources& sources) {
    Written written;
    const auto last = words.empty() ? std::string_view() : words.back();
    for (const auto word : words.first(words.empty() ? 0 : words.size() - 1)) take(written, word);
    if (written.open != nullptr) return optionValues(*written.open, last, sources);
    if (!written.optionsOver && last.starts_with("-")) {
        const bool attached = last.find('=') != std::string_view::npos;
        return attached ? attachedValues(last, sources) : optionNames(last, written.verb);
    }
    if (written.verb == nullptr) return verbNames(last);
    const auto* rule = ruleFor(written);
    return rule != nullptr ? operandsFor(*rule, written, last, sources) : Candidates();
}

std::string_view optionIn(Words words, std::string_view name) {
    std::string_view value;
    for (std::size_t i = 0; i < words.size() && words[i] != "--"; ++i) {
        if (words[i] == name && i + 1 < words.size()) value = words[i + 1];
        if (words[i].starts_with(name) && words[i].substr(name.size()).starts_with('='))
            value = words[i].substr(name.size() + 1);
    }
    return value;
}

std::vector<std::string> joinedAtSigns(Words words) {
    std::vector<std::string> joined;
    bool open = false;
    for (const auto word : words) {
        const bool isSign = word == "=" || word == ":";
        if (!joined.empty() && (open || isSign)) {
            joined.back().append(word);
        } else {
            joined.emplace_back(word);
        }
        open = isSign;
    }
    return joined;
}

}  // namespace okvctl
