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

struct Row {
    Words words;
    const char* mistake;
};

class Mistake : public testing::TestWithParam<Row> {};

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
    testing::Values(Row{{"--jsno"}, "did you mean --json?"}, Row{{"--json=1"}, "takes no value"},
                    Row{{"--json", "--format", "table"}, "two formats were asked for"},
                    Row{{"--format=plist", "--json"}, "two formats were asked for"},
                    Row{{"--format", "xml"}, "table|json|plist|raw, not 'xml'"},
                    Row{{"--wait=1"}, "takes no value"}, Row{{"--user"}, "needs a value"},
                    Row{{"--user", "0"}, "not '0'"}, Row{{"--user", "-1"}, "not '-1'"},
                    Row{{"--user", "2147483648"}, "from 1 on"}, Row{{"--user="}, "not ''"},
                    Row{{"--timeout", "nan"}, "not 'nan'"}, Row{{"--timeout", "-1"}, "not '-1'"},
                    Row{{"--timeout", "inf"}, "not 'inf'"},
                    Row{{"--type", "integer"}, "string|int|bool|real|date|data|json|null"},
                    Row{{"--since", "-1"}, "from 0 on"}, Row{{"--since", "x"}, "from 0 on"},
                    Row{{"--runtime-dir", ""}, "names no folder"}, Row{{""}, "empty"}));
