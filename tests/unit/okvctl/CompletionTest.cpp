#include "Completion.h"

#include "Verb.h"

#include <gmock/gmock.h>

using okvctl::Candidates;
using okvctl::complete;
using okvctl::joinedAtSigns;
using okvctl::optionIn;
using okvctl::Sources;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Line = std::vector<std::string_view>;

namespace {

Sources sources() {
    Sources known;
    known.keys = [](std::string_view prefix) {
        std::vector<std::string> keys;
        for (const auto* key : {"dc-a", "dc-b c", "other"}) {
            if (std::string_view(key).starts_with(prefix)) keys.emplace_back(key);
        }
        return keys;
    };
    known.lockedKeys = [] { return std::vector<std::string>{"dc-b c"}; };
    known.users = [] { return std::vector<std::string>{"1", "12"}; };
    known.accounts = [] { return std::vector<std::string>{"501"}; };
    known.processes = [](std::string_view list) {
        return std::vector<std::string>{std::string(list) + ".app"};
    };
    return known;
}

std::vector<std::string> wordsFor(const Line& words) {
    std::vector<std::string> found;
    for (auto& candidate : complete(words, sources()).words) found.push_back(candidate.word);
    return found;
}

struct CompletionRow {
    Line words;
    std::vector<std::string> found;
};

class Completes : public testing::TestWithParam<CompletionRow> {};

}  // namespace

TEST_P(Completes, WhatIsWritten) {
    EXPECT_EQ(wordsFor(GetParam().words), GetParam().found);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Completes,
    testing::Values(
        CompletionRow{{"unl"}, {"unlock"}}, CompletionRow{{"--json", "unl"}, {"unlock"}},
        CompletionRow{{"--user", "1", "unl"}, {"unlock"}},
        CompletionRow{{"get", "dc-"}, {"dc-a", "dc-b c"}},
        CompletionRow{{"get", "dc-a", "o"}, {"other"}},
        CompletionRow{{"get", "--user", "1"}, {"1", "12"}},
        CompletionRow{{"get", "--user=1"}, {"--user=1", "--user=12"}},
        CompletionRow{{"set", "o"}, {"other="}}, CompletionRow{{"set", "other=1"}, {}},
        CompletionRow{{"unlock", ""}, {"dc-b c"}}, CompletionRow{{"list", "o"}, {"other"}},
        CompletionRow{{"list", "dc-a", ""}, {}}, CompletionRow{{"users", "s"}, {"switch"}},
        CompletionRow{{"users", "switch", ""}, {"501"}},
        CompletionRow{{"users", "switch", "501", "12"}, {"12"}},
        CompletionRow{{"users", "default", ""}, {}},
        CompletionRow{{"users", "remove", ""}, {"1", "12"}}, CompletionRow{{"lists", "g"}, {"get"}},
        CompletionRow{{"lists", "get", "h"}, {"hammer_list"}},
        CompletionRow{{"procs", "k"}, {"kill"}}, CompletionRow{{"procs", "kill", "r"}, {"remove"}},
        CompletionRow{{"procs", "kill", "remove", ""}, {"kill.app"}},
        CompletionRow{{"procs", "kill", "remove", "a", ""}, {"kill.app"}},
        CompletionRow{{"procs", "kill", "add", ""}, {}}, CompletionRow{{"procs", "system", ""}, {}},
        CompletionRow{{"clock", "st"}, {"start", "stop"}},
        CompletionRow{{"completions", "z"}, {"zsh"}}, CompletionRow{{"--form"}, {"--format"}},
        CompletionRow{{"--format", "p"}, {"plist"}},
        CompletionRow{{"--format=j"}, {"--format=json"}},
        CompletionRow{{"set", "--type", "da"}, {"date", "data"}},
        CompletionRow{{"get", "--ty"}, {}}, CompletionRow{{"set", "--ty"}, {"--type"}},
        CompletionRow{{"import", "--d"}, {"--dry-run"}}, CompletionRow{{"get", "--", "--us"}, {}},
        CompletionRow{{"nonsense", "x"}, {}}, CompletionRow{{"complet"}, {"completions"}},
        CompletionRow{{"--no-such="}, {}}));

TEST(Completion, OfFilesAndFoldersIsLeftToTheShell) {
    EXPECT_EQ(complete(Line{"import", "x"}, sources()).kind, Candidates::Kind::files);
    EXPECT_EQ(complete(Line{"--runtime-dir", ""}, sources()).kind, Candidates::Kind::folders);
}

TEST(Completion, LeavesAKeyThatIsToBeSetOpen) {
    EXPECT_FALSE(complete(Line{"set", "o"}, sources()).ended);
    EXPECT_TRUE(complete(Line{"get", "o"}, sources()).ended);
}

TEST(Completion, OfNothingOffersEveryVerbButTheHiddenOnes) {
    const auto found = wordsFor({});
    for (const auto* verb : okvctl::verbs()) {
        if (verb->hidden) {
            EXPECT_THAT(found, Not(Contains(std::string(verb->name))));
        } else {
            EXPECT_THAT(found, Contains(std::string(verb->name)));
        }
    }
}

TEST(Completion, FindsAnOptionsValueInBothForms) {
    EXPECT_EQ(optionIn(Line{"get", "--user", "5"}, "--user"), "5");
    EXPECT_EQ(optionIn(Line{"--user=6", "get"}, "--user"), "6");
    EXPECT_EQ(optionIn(Line{"--user"}, "--user"), "");
    EXPECT_EQ(optionIn(Line{"--", "--user=6"}, "--user"), "");
    EXPECT_EQ(optionIn(Line{"--users=6"}, "--user"), "");
}

TEST(Completion, PutsWordsTogetherThatTheShellCut) {
    EXPECT_THAT(joinedAtSigns(Line{"get", "--user", "=", "1"}), ElementsAre("get", "--user=1"));
    EXPECT_THAT(joinedAtSigns(Line{"--user", "="}), ElementsAre("--user="));
    EXPECT_THAT(joinedAtSigns(Line{"a", ":", "b", "c"}), ElementsAre("a:b", "c"));
    EXPECT_THAT(joinedAtSigns(Line{}), IsEmpty());
}

TEST(CompletionScript, IsThereForThreeShells) {
    for (const auto* shell : {"bash", "zsh", "fish"})
        EXPECT_THAT(okvctl::completionScript(shell), testing::HasSubstr("okvctl"));
    EXPECT_EQ(okvctl::completionScript("tcsh"), "");
}
