#include "Completion.h"

#include "Verb.h"

#include <algorithm>

namespace okvctl {

namespace {

using Words = std::span<const std::string_view>;

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

void addAll(Candidates& to, std::string_view prefix, std::span<const std::string_view> words) {
    for (const auto word : words) add(to, prefix, std::string(word));
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
    if (option.name == "--format") addAll(to, prefix, kFormatNames);
    if (option.name == "--type") addAll(to, prefix, valueTypeNames());
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

bool fits(const OperandOffer& offer, std::span<const std::string_view> operands) {
    const bool isEvery = offer.place == kEveryPlace;
    if (!isEvery && offer.place != operands.size()) return false;
    if (offer.behind.empty()) return true;
    const std::size_t deciding = isEvery ? 1 : 0;
    return operands.size() > deciding && operands[deciding] == offer.behind;
}

void addKeysToSet(Candidates& to, std::string_view prefix, const Sources& sources) {
    if (prefix.find('=') != std::string_view::npos) return;
    to.ended = false;
    for (const auto& key : sources.keys(prefix)) add(to, prefix, key + "=");
}

Candidates offered(const OperandOffer& offer, const Written& written, std::string_view prefix,
                   const Sources& sources) {
    Candidates to;
    switch (offer.offer) {
        case Offer::choice:
            addAll(to, prefix, offer.choice);
            break;
        case Offer::keys:
            addAll(to, prefix, sources.keys(prefix));
            break;
        case Offer::keysToSet:
            addKeysToSet(to, prefix, sources);
            break;
        case Offer::lockedKeys:
            addAll(to, prefix, sources.lockedKeys());
            break;
        case Offer::users:
            addAll(to, prefix, sources.users());
            break;
        case Offer::accounts:
            addAll(to, prefix, sources.accounts());
            break;
        case Offer::processes:
            addAll(to, prefix, sources.processes(written.operands[0]));
            break;
        case Offer::files:
            to.kind = Candidates::Kind::files;
            break;
    }
    return to;
}

Candidates operandsFor(const Written& written, std::string_view prefix, const Sources& sources) {
    for (const auto& offer : written.verb->offers) {
        if (fits(offer, written.operands)) return offered(offer, written, prefix, sources);
    }
    Candidates to;
    if (!written.operands.empty()) return to;
    for (const auto& action : written.verb->actions) add(to, prefix, std::string(action.name));
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
    return operandsFor(written, last, sources);
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
