#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace okvctl {

/// What a shell may put in a word's place.
struct Candidate {
    std::string word;
    std::string_view summary;  ///< for shells that show one
};

struct Candidates {
    enum class Kind { words, files, folders };

    Kind kind = Kind::words;
    bool ended = true;  ///< a blank follows the word
    std::vector<Candidate> words;
};

/// What only the data server knows; each answers nothing where it cannot be reached.
struct Sources {
    using Words = std::vector<std::string>;

    std::function<Words(std::string_view prefix)> keys;
    std::function<Words()> lockedKeys;
    std::function<Words()> users;
    std::function<Words()> accounts;
    std::function<Words(std::string_view list)> processes;
};

/// The words of a call as far as they are written, without the tool's own name; the last one is to
/// be completed. What is said before it decides: options, verbs, a verb's second word, keys.
Candidates complete(std::span<const std::string_view> words, const Sources& sources);

/// The value that the words give an option, "" where they give none.
std::string_view optionIn(std::span<const std::string_view> words, std::string_view name);

/// Puts "--name", "=" and "VALUE" together again where a shell cut a word at "=" or ":".
std::vector<std::string> joinedAtSigns(std::span<const std::string_view> words);

/// The script that teaches a shell ("bash", "zsh", "fish") to ask the tool; "" for any other.
std::string_view completionScript(std::string_view shell);

}  // namespace okvctl
