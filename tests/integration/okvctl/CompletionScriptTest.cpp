#include "ToolRun.h"

#include "support/Files.h"

#include <OKVTesting/RuntimeFolder.h>

#include <gmock/gmock.h>

#include <unistd.h>

#include <sstream>

namespace okvctl_test::completion_script {

using support::TempFolder;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Words = std::vector<std::string>;

namespace {

/// All lines that a shell prints.
Words linesOf(const std::string& shell, const std::string& commands) {
    Child child(shell, {"-c", commands + "\necho end"});
    Words lines;
    for (auto line = child.line(); line != "end"; line = child.line()) {
        if (line.empty()) {
            ADD_FAILURE() << "the shell came to no end: " << commands;
            return lines;
        }
        lines.push_back(line);
    }
    EXPECT_EQ(child.wait(), 0) << commands;
    return lines;
}

/// A shell does not wait for a busy server, so that the tool offers none of its keys then: what it
/// offers when asked until it offers something, or often enough.
template <class Ask>
Words offeredBy(Ask ask) {
    constexpr int kTries = 10;
    auto words = ask();
    for (int i = 1; i < kTries && words.empty(); ++i) words = ask();
    return words;
}

/// What bash would offer; `words` are COMP_WORDS after the tool's name, as bash cuts them.
Words inBashAtOnce(const std::string& words) {
    return linesOf("/bin/bash",
                   "source <(" OKVCTL_PROGRAM
                   " completions bash)\n"
                   "COMP_WORDS=(" OKVCTL_PROGRAM " " +
                       words +
                       ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_okvctl 2>&1\n"
                       "for word in \"${COMPREPLY[@]}\"; do printf '%s\\n' \"$word\"; done");
}

Words inBash(const std::string& words) {
    return offeredBy([&] { return inBashAtOnce(words); });
}

void storeSomeKeys() {
    run({"set", "dc-gui-colour=1", "dc-gui-size=2", "dc-net a=3"});
    run({"set", "--user=1", "dc-gui-own=1"});
    run({"users", "assign", "501", "12"});
    run({"lock", "dc-gui-size"});
}

bool isThere(const char* program) {
    return access(program, X_OK) == 0;
}

}  // namespace

TEST(Bash, CompletesVerbsOptionsAndRealKeys) {
    const DataCenter server;
    storeSomeKeys();
    EXPECT_THAT(inBash("des"), ElementsAre("describe"));
    EXPECT_THAT(inBash("lo"), ElementsAre("lock", "locks"));
    EXPECT_THAT(inBash("--ru"), ElementsAre("--runtime-dir"));
    EXPECT_THAT(inBash("get dc-gui-"), ElementsAre("dc-gui-colour", "dc-gui-size"));
    EXPECT_THAT(inBash("get --user 1 dc-gui-"),
                ElementsAre("dc-gui-colour", "dc-gui-own", "dc-gui-size"));
    EXPECT_THAT(inBash("unlock ''"), ElementsAre("dc-gui-size"));
    EXPECT_THAT(inBash("set dc-gui-c"), ElementsAre("dc-gui-colour="));
    EXPECT_THAT(inBash("get dc-n"), ElementsAre("dc-net\\ a"));
    EXPECT_THAT(inBash("users sw"), ElementsAre("switch"));
    EXPECT_THAT(inBash("users switch 501 ''"), ElementsAre("1", "12"));
}

TEST(Bash, CompletesWhatFollowsASignThatItCutsAt) {
    const DataCenter server;
    storeSomeKeys();
    EXPECT_THAT(inBash("get --user ="), ElementsAre("1", "12"));
    EXPECT_THAT(inBash("get --user = 12"), ElementsAre("12"));
    EXPECT_THAT(inBash("--format = pl"), ElementsAre("plist"));
    EXPECT_THAT(inBashAtOnce("set dc-gui-colour = x"), IsEmpty());
}

TEST(Bash, CompletesFilesAndFolders) {
    const TempFolder folder;
    const auto file = folder.write("store.json", "");
    EXPECT_THAT(inBash("import " + folder / "st"), ElementsAre(file));
    EXPECT_THAT(inBashAtOnce("--runtime-dir " + folder / "st"), IsEmpty());
}

TEST(Bash, IsOfferedVerbsAndNoWordOfComplaintWithoutAServer) {
    const okv::testing::RuntimeFolder folder;
    EXPECT_THAT(inBashAtOnce("get dc-"), IsEmpty());
    EXPECT_THAT(inBash("unl"), ElementsAre("unlock"));
}

TEST(Completion, LooksWhereTheWordsSayThatTheServerIs) {
    const DataCenter server;
    run({"set", "dc-a=1"});
    const std::string folder = getenv("OKV_RUNTIME_DIR");
    const okv::testing::RuntimeFolder elsewhere;
    EXPECT_THAT(inBashAtOnce("get dc-"), IsEmpty());
    EXPECT_THAT(inBash("--runtime-dir " + folder + " get dc-"), ElementsAre("dc-a"));
}

TEST(Completion, IsSilentAndSaysWhatKindItIs) {
    const okv::testing::RuntimeFolder folder;
    const auto ran = run({"complete", "zsh", "--", "get", ""});
    EXPECT_EQ(ran.code, 0);
    EXPECT_EQ(ran.out, "words\n");
    EXPECT_EQ(ran.error, "");
    EXPECT_EQ(run({"complete", "fish", "--", "unse"}).out,
              "words\nunset\ttake values away, all of them or none\n");
}

TEST(Zsh, CompletesVerbsAndRealKeys) {
    if (!isThere("/usr/bin/zsh")) GTEST_SKIP() << "no zsh here";
    const DataCenter server;
    storeSomeKeys();
    // The completion system's own words for offering and for files, as far as the script uses them.
    const std::string offers =
        "compdef() { : }\n"
        "compadd() { while [[ $1 != -- ]]; do shift; done; shift; print -rl -- \"$@\" }\n"
        "_files() { print -r -- files }\n"
        "source <(" OKVCTL_PROGRAM " completions zsh)\n";
    const auto offered = [&](const std::string& words) {
        return linesOf("/usr/bin/zsh", offers + "words=(" OKVCTL_PROGRAM " " + words +
                                           ")\nCURRENT=${#words}\n_okvctl 2>&1 || :");
    };
    EXPECT_THAT(offered("des"), ElementsAre("describe"));
    const auto keys = [&](const std::string& words) {
        return offeredBy([&] { return offered(words); });
    };
    EXPECT_THAT(keys("get dc-gui-"), UnorderedElementsAre("dc-gui-colour", "dc-gui-size"));
    EXPECT_THAT(keys("get dc-n"), ElementsAre("dc-net\\ a"));
    EXPECT_THAT(offered("import ''"), ElementsAre("files"));
    EXPECT_THAT(offered("ping ''"), IsEmpty());
}

TEST(Zsh, TakesTheScriptAsAnAutoloadedFunction) {
    if (!isThere("/usr/bin/zsh")) GTEST_SKIP() << "no zsh here";
    const TempFolder folder;
    folder.write("_okvctl", run({"completions", "zsh"}).out);
    EXPECT_THAT(linesOf("/usr/bin/zsh", "fpath=(" + folder / "" +
                                            " $fpath)\nautoload -U compinit && compinit -D -u\n"
                                            "print -r -- ${_comps[okvctl]}"),
                ElementsAre("_okvctl"));
}

TEST(Fish, CompletesVerbsAndRealKeys) {
    if (!isThere("/usr/bin/fish")) GTEST_SKIP() << "no fish here";
    const DataCenter server;
    storeSomeKeys();
    const TempFolder home;
    const auto offered = [&](const std::string& line) {
        const auto ask = [&] {
            return linesOf("/usr/bin/fish", "set -x HOME " + home / "" +
                                                "\nfunction okvctl; " OKVCTL_PROGRAM
                                                " $argv; end\n" OKVCTL_PROGRAM
                                                " completions fish | source\ncomplete -C 'okvctl " +
                                                line + "'");
        };
        return offeredBy(ask);
    };
    EXPECT_THAT(offered("des"), ElementsAre("describe\ttell where a value comes from"));
    EXPECT_THAT(offered("get dc-gui-"), ElementsAre("dc-gui-colour", "dc-gui-size"));
    EXPECT_THAT(offered("users switch 501 1"), ElementsAre("1", "12"));
}

}  // namespace okvctl_test::completion_script
