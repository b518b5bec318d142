#include "CommandLine.h"

#include "ToolError.h"

#include <gmock/gmock.h>

#include <vector>

using okvctl::CommandLine;
using okvctl::ExitCode;
using okvctl::parseCommandLine;
using okvctl::ToolError;
using okvctl::ValueType;
using testing::ElementsAre;
using testing::HasSubstr;
using Words = std::vector<const char*>;

namespace {

CommandLine parsed(const Words& words) {
    CommandLine line;
    parseCommandLine(words, line);
    return line;
}

std::string mistakeIn(const Words& words) {
    try {
        parsed(words);
    } catch (const ToolError& error) {
        EXPECT_EQ(error.code(), ExitCode::usage);
        return error.what();
    }
    return "none";
}

struct MistakeRow {
    Words words;
    const char* mistake;
};

class Mistake : public testing::TestWithParam<MistakeRow> {};

}  // namespace

TEST(CommandLine, OptionsStandBeforeAndBehindTheVerb) {
    const auto line = parsed({"--user", "2", "set", "--type=int", "a=1", "--json", "--timeout",
                              "2.5", "--runtime-dir=/x", "b=2"});
    EXPECT_EQ(line.verb, "set");
    EXPECT_THAT(line.operands, ElementsAre("a=1", "b=2"));
    EXPECT_EQ(line.format, okvctl::kJson);
    EXPECT_EQ(line.user, 2);
    EXPECT_EQ(line.type, ValueType::integer);
    EXPECT_EQ(line.timeout, 2.5);
    EXPECT_EQ(line.runtimeDir, "/x");
    EXPECT_EQ(line.given(), unsigned{okvctl::kTakesUser | okvctl::kTakesType});
}

TEST(CommandLine, OneFormatMayBeAskedForTwice) {
    EXPECT_EQ(parsed({"get", "--json", "--format=json"}).format, okvctl::kJson);
    EXPECT_EQ(parsed({"get", "a"}).format, std::nullopt);
}

TEST(CommandLine, SwitchesAreOffUnlessGiven) {
    const auto plain = parsed({"list"});
    EXPECT_TRUE(plain.legend);
    EXPECT_FALSE(plain.wait);
    EXPECT_FALSE(plain.dryRun);
    const auto all = parsed({"list", "--no-legend", "--wait", "--dry-run"});
    EXPECT_FALSE(all.legend);
    EXPECT_TRUE(all.wait);
    EXPECT_TRUE(all.dryRun);
}

TEST(CommandLine, TwoDashesEndTheOptions) {
    EXPECT_THAT(parsed({"get", "--", "--json"}).operands, ElementsAre("--json"));
}

TEST(CommandLine, OneDashBeginsAWord) {
    EXPECT_THAT(parsed({"lists", "set", "-5"}).operands, ElementsAre("set", "-5"));
}

TEST(CommandLine, EmptyWordsAreKept) {
    EXPECT_THAT(parsed({"list", ""}).operands, ElementsAre(""));
}

TEST(CommandLine, TellsWhatCameBeforeTheMistake) {
    CommandLine line;
    const Words words{"get", "--nonsense"};
    EXPECT_THROW(parseCommandLine(words, line), ToolError);
    EXPECT_EQ(line.verb, "get");
}

TEST_P(Mistake, IsNamed) {
    EXPECT_THAT(mistakeIn(GetParam().words), HasSubstr(GetParam().mistake));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Mistake,
    testing::Values(
        MistakeRow{{"--jsno"}, "did you mean --json?"}, MistakeRow{{"--json=1"}, "takes no value"},
        MistakeRow{{"--json", "--format", "table"}, "two formats were asked for"},
        MistakeRow{{"--format=plist", "--json"}, "two formats were asked for"},
        MistakeRow{{"--format", "xml"}, "table|json|plist|raw, not 'xml'"},
        MistakeRow{{"--wait=1"}, "takes no value"}, MistakeRow{{"--user"}, "needs a value"},
        MistakeRow{{"--user", "0"}, "not '0'"}, MistakeRow{{"--user", "-1"}, "not '-1'"},
        MistakeRow{{"--user", "2147483648"}, "from 1 on"}, MistakeRow{{"--user="}, "not ''"},
        MistakeRow{{"--timeout", "nan"}, "not 'nan'"}, MistakeRow{{"--timeout", "-1"}, "not '-1'"},
        MistakeRow{{"--timeout", "inf"}, "not 'inf'"},
        MistakeRow{{"--type", "integer"}, "string|int|bool|real|date|data|json|null"},
        MistakeRow{{"--since", "-1"}, "from 0 on"}, MistakeRow{{"--since", "x"}, "from 0 on"},
        MistakeRow{{"--runtime-dir", ""}, "names no folder"}, MistakeRow{{""}, "empty"}));
