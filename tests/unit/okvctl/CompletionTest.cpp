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
using Words = std::vector<std::string_view>;

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

std::vector<std::string> wordsFor(const Words& words) {
    std::vector<std::string> found;
    for (auto& candidate : complete(words, sources()).words) found.push_back(candidate.word);
    return found;
}

struct Row {
    Words words;
    std::vector<std::string> found;
};

class Completes : public testing::TestWithParam<Row> {};

}  // namespace

TEST_P(Completes, WhatIsWritten) {
    EXPECT_EQ(wordsFor(GetParam().words), GetParam().found);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Completes,
    testing::Values(
        Row{{"unl"}, {"unlock"}}, Row{{"--json", "unl"}, {"unlock"}},
        Row{{"--user", "1", "unl"}, {"unlock"}}, Row{{"get", "dc-"}, {"dc-a", "dc-b c"}},
        Row{{"get", "dc-a", "o"}, {"other"}}, Row{{"get", "--user", "1"}, {"1", "12"}},
        Row{{"get", "--user=1"}, {"--user=1", "--user=12"}}, Row{{"set", "o"}, {"other="}},
        Row{{"set", "other=1"}, {}}, Row{{"unlock", ""}, {"dc-b c"}}, Row{{"list", "o"}, {"other"}},
        Row{{"list", "dc-a", ""}, {}}, Row{{"users", "s"}, {"switch"}},
        Row{{"users", "switch", ""}, {"501"}}, Row{{"users", "switch", "501", "12"}, {"12"}},
        Row{{"users", "default", ""}, {}}, Row{{"users", "remove", ""}, {"1", "12"}},
        Row{{"lists", "g"}, {"get"}}, Row{{"lists", "get", "h"}, {"hammer_list"}},
        Row{{"procs", "k"}, {"kill"}}, Row{{"procs", "kill", "r"}, {"remove"}},
        Row{{"procs", "kill", "remove", ""}, {"kill.app"}},
        Row{{"procs", "kill", "remove", "a", ""}, {"kill.app"}},
        Row{{"procs", "kill", "add", ""}, {}}, Row{{"procs", "system", ""}, {}},
        Row{{"clock", "st"}, {"start", "stop"}}, Row{{"completions", "z"}, {"zsh"}},
        Row{{"--form"}, {"--format"}}, Row{{"--format", "p"}, {"plist"}},
        Row{{"--format=j"}, {"--format=json"}}, Row{{"set", "--type", "da"}, {"date", "data"}},
        Row{{"get", "--ty"}, {}}, Row{{"set", "--ty"}, {"--type"}},
        Row{{"import", "--d"}, {"--dry-run"}}, Row{{"get", "--", "--us"}, {}},
        Row{{"nonsense", "x"}, {}}, Row{{"complet"}, {"completions"}}, Row{{"--no-such="}, {}}));

TEST(Completion, OfFilesAndFoldersIsLeftToTheShell) {
    EXPECT_EQ(complete(Words{"import", "x"}, sources()).kind, Candidates::Kind::files);
    EXPECT_EQ(complete(Words{"--runtime-dir", ""}, sources()).kind, Candidates::Kind::folders);
}

TEST(Completion, LeavesAKeyThatIsToBeSetOpen) {
    EXPECT_FALSE(complete(Words{"set", "o"}, sources()).ended);
    EXPECT_TRUE(complete(Words{"get", "o"}, sources()).ended);
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
    EXPECT_EQ(optionIn(Words{"get", "--user", "5"}, "--user"), "5");
    EXPECT_EQ(optionIn(Words{"--user=6", "get"}, "--user"), "6");
    EXPECT_EQ(optionIn(Words{"--user"}, "--user"), "");
    EXPECT_EQ(optionIn(Words{"--", "--user=6"}, "--user"), "");
    EXPECT_EQ(optionIn(Words{"--users=6"}, "--user"), "");
}

TEST(Completion, PutsWordsTogetherThatTheShellCut) {
    EXPECT_THAT(joinedAtSigns(Words{"get", "--user", "=", "1"}), ElementsAre("get", "--user=1"));
    EXPECT_THAT(joinedAtSigns(Words{"--user", "="}), ElementsAre("--user="));
    EXPECT_THAT(joinedAtSigns(Words{"a", ":", "b", "c"}), ElementsAre("a:b", "c"));
    EXPECT_THAT(joinedAtSigns(Words{}), IsEmpty());
}

TEST(CompletionScript, IsThereForThreeShells) {
    for (const auto* shell : {"bash", "zsh", "fish"})
        EXPECT_THAT(okvctl::completionScript(shell), testing::HasSubstr("okvctl"));
    EXPECT_EQ(okvctl::completionScript("tcsh"), "");
}
