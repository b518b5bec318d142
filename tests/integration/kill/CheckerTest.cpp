#include "Checker.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace killing;

namespace {

using Names = std::vector<std::string>;
using Lines = std::vector<std::string>;

History historyOf(const Lines& lines) {
    std::stringstream text;
    for (const auto& line : lines) text << line << '\n';
    return readHistory(text);
}

Names faultsIn(const Lines& lines) {
    Names names;
    for (const auto& fault : check(historyOf(lines))) names.push_back(nameOf(fault.kind));
    return names;
}

// Two writers and a watcher; the server was killed after revision 3, in the middle of 1.2.
Lines good() {
    return {
        "invoke 1 1 1.0 k1=1.1 k2=1.1 m1.1=1.1",
        "invoke 2 1 1.1 o2.1=2.1",
        "ok 1 1 1.2",
        "ok 2 1 1.3",
        "saw 1 1 k1 k2 m1.1",
        "saw 1 2 o2.1",
        "invoke 2 2 1.4 k2=2.2 k3=2.2 m2.2=2.2",
        "ok 2 2 1.5",
        "invoke 1 2 1.6 k1=1.2 k3=1.2 m1.2=1.2 m1.1=",
        "unknown 1 2 1.7",
        "saw 1 3 k2 k3 m2.2",
        "read 3 k1=1.1 k2=2.2 k3=2.2 m1.1=1.1 m2.2=2.2 o2.1=2.1",
        "invoke 1 3 2.0 k1=1.3 m1.3=1.3 m1.1= m1.2=",
        "ok 1 3 2.1",
        "saw 1 4 k1 m1.1 m1.2 m1.3",
        "read 4 k1=1.3 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1",
        "picture 1 4 k1=1.3 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1",
    };
}

Lines with(Lines lines, const std::string& line, const std::string& instead) {
    const auto found = std::find(lines.begin(), lines.end(), line);
    if (found == lines.end()) ADD_FAILURE() << "no line: " << line;
    *found = instead;
    if (instead.empty()) lines.erase(found);
    return lines;
}

}  // namespace

TEST(KillChecker, FindsNothingInAGoodHistory) {
    EXPECT_EQ(faultsIn(good()), Names());
}

TEST(KillChecker, AcceptsAnUnknownWriteThatIsThereWholly) {
    auto lines = with(good(), "read 3 k1=1.1 k2=2.2 k3=2.2 m1.1=1.1 m2.2=2.2 o2.1=2.1",
                      "saw 1 4 k1 k3 m1.1 m1.2");
    lines = with(lines, "saw 1 4 k1 m1.1 m1.2 m1.3", "saw 1 5 k1 m1.1 m1.2 m1.3");
    lines = with(lines, "read 4 k1=1.3 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1",
                 "read 5 k1=1.3 k2=2.2 k3=1.2 m1.3=1.3 m2.2=2.2 o2.1=2.1");
    lines = with(lines, "picture 1 4 k1=1.3 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1",
                 "picture 1 5 k1=1.3 k2=2.2 k3=1.2 m1.3=1.3 m2.2=2.2 o2.1=2.1");
    EXPECT_EQ(faultsIn(lines), Names());
}

TEST(KillChecker, FindsAnAcknowledgedWriteThatNoRevisionIs) {
    auto lines = good();
    lines.insert(lines.end() - 2, {"invoke 2 3 2.2 o2.3=2.3", "ok 2 3 2.3"});
    EXPECT_EQ(faultsIn(lines), Names{"lost"});
}

TEST(KillChecker, FindsAnAcknowledgedWriteWhoseValueIsGone) {
    const auto lines = with(good(), "read 3 k1=1.1 k2=2.2 k3=2.2 m1.1=1.1 m2.2=2.2 o2.1=2.1",
                            "read 3 k1=1.1 k2=2.2 k3=2.2 m1.1=1.1 m2.2=2.2");
    EXPECT_EQ(faultsIn(lines), Names{"lost"});
}

TEST(KillChecker, FindsATornTransactionOfWhichAPartIsGone) {
    const auto lines = with(good(), "read 3 k1=1.1 k2=2.2 k3=2.2 m1.1=1.1 m2.2=2.2 o2.1=2.1",
                            "read 3 k1=1.1 k2=2.2 m1.1=1.1 m2.2=2.2 o2.1=2.1");
    EXPECT_EQ(faultsIn(lines), Names{"torn"});
}

TEST(KillChecker, FindsATornTransactionOfUnknownOutcomeOfWhichAPartIsThere) {
    const auto lines = with(good(), "read 3 k1=1.1 k2=2.2 k3=2.2 m1.1=1.1 m2.2=2.2 o2.1=2.1",
                            "read 3 k1=1.1 k2=2.2 k3=2.2 m1.1=1.1 m1.2=1.2 m2.2=2.2 o2.1=2.1");
    EXPECT_EQ(faultsIn(lines), Names{"torn"});
}

TEST(KillChecker, FindsAGap) {
    // And then what stands behind it, which is there without a revision.
    const auto found = faultsIn(with(good(), "saw 1 3 k2 k3 m2.2", ""));
    ASSERT_GT(found.size(), 2U);
    EXPECT_EQ(found[0] + " " + found[1] + " " + found[2], "gap gap lost");
    auto lines = with(good(), "read 4 k1=1.3 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1",
                      "read 5 k1=1.3 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1");
    EXPECT_EQ(faultsIn(lines), (Names{"gap", "stale"}));
}

TEST(KillChecker, FindsARevisionThatStandsForTwoChanges) {
    auto lines = good();
    lines.insert(lines.begin() + 12, {"saw 2 1 k1 k2 m1.1", "saw 2 2 o2.1", "saw 2 3 o2.2"});
    lines.push_back("picture 2 4 k1=1.3 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1");
    EXPECT_EQ(faultsIn(lines), Names{"duplicate"});
}

TEST(KillChecker, FindsARevisionThatIsToldTwiceOrGoesBack) {
    auto lines = good();
    lines.insert(lines.begin() + 6, "saw 1 2 o2.1");
    EXPECT_EQ(faultsIn(lines), Names{"duplicate"});
    lines = good();
    lines.insert(lines.end() - 3, "read 2 k1=1.1 k2=2.2 k3=2.2 m1.1=1.1 m2.2=2.2 o2.1=2.1");
    EXPECT_EQ(faultsIn(lines).front(), "duplicate");
}

TEST(KillChecker, FindsAChangeThatNobodyMade) {
    EXPECT_EQ(faultsIn(with(good(), "saw 1 2 o2.1", "saw 1 2 k1")).front(), "phantom");
    EXPECT_EQ(faultsIn(with(good(), "saw 1 2 o2.1", "saw 1 2 o3.1")).front(), "phantom");
    EXPECT_EQ(faultsIn(with(good(), "saw 1 2 o2.1", "saw 1 2")).front(), "phantom");
}

TEST(KillChecker, FindsAWriteThatWasToldNotToHaveBeenSent) {
    EXPECT_EQ(faultsIn(with(good(), "unknown 1 2 1.7", "unsent 1 2 1.7")), Names());
    EXPECT_EQ(faultsIn(with(good(), "ok 2 1 1.3", "unsent 2 1 1.3")), Names{"phantom"});
}

TEST(KillChecker, FindsAnOrderThatCannotHaveBeen) {
    auto lines = with(good(), "saw 1 2 o2.1", "saw 1 2 k2 k3 m2.2");
    // Writer 2's second write before the other writer's, which was answered before it began.
    lines = with(lines, "saw 1 1 k1 k2 m1.1", "saw 1 1 o2.1");
    lines = with(lines, "saw 1 3 k2 k3 m2.2", "saw 1 3 k1 k2 m1.1");
    EXPECT_EQ(faultsIn(lines).front(), "disordered");
}

TEST(KillChecker, FindsAStaleWatcher) {
    const std::string picture = "picture 1 4 k1=1.3 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1";
    for (const auto* stale :
         {"picture 1 4 k1=1.1 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1",
          "picture 1 4 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1",
          "picture 1 4 k1=1.3 k2=2.2 k3=2.2 m1.1=1.1 m1.3=1.3 m2.2=2.2 o2.1=2.1",
          "picture 1 3 k1=1.3 k2=2.2 k3=2.2 m1.3=1.3 m2.2=2.2 o2.1=2.1", ""})
        EXPECT_EQ(faultsIn(with(good(), picture, stale)), Names{"stale"}) << stale;
    auto lines = good();
    lines.push_back("resync 1");
    EXPECT_EQ(faultsIn(lines), Names{"gap"});
}

TEST(KillChecker, WantsSomethingToCompareWith) {
    EXPECT_EQ(faultsIn({}), Names{"unfinished"});
}

TEST(KillChecker, TellsNoMoreFaultsThanItIsAskedFor) {
    Lines lines{"read 50"};
    EXPECT_EQ(faultsIn(lines), Names{"gap"});
    lines.clear();
    for (int i = 1; i <= 50; ++i) lines.push_back("saw 1 " + std::to_string(i) + " k1");
    lines.push_back("read 50");
    EXPECT_EQ(faultsIn(lines).size(), 20U);
}

TEST(KillHistory, ReadsTheLinesThatItWrites) {
    Write write{3, 17, {{"k1", "3.17"}, {"m3.16", ""}}, 1.5, 2.25, Outcome::acknowledged};
    const auto history =
        historyOf({invokeLine(write), answerLine(write), sawLine(2, {9, {"a", "b"}}),
                   readLine(9, {{"k1", "3.17"}}), pictureLine(2, 9, {{"k1", "3.17"}})});
    const auto& read = history.writers.at(3).at(0);
    EXPECT_EQ(read.number, 17);
    EXPECT_EQ(read.settings, write.settings);
    EXPECT_EQ(read.invoked, 1.5);
    EXPECT_EQ(read.answered, 2.25);
    EXPECT_EQ(read.outcome, Outcome::acknowledged);
    EXPECT_EQ(history.watchers.at(2).seen.at(0).keys, (Names{"a", "b"}));
    EXPECT_EQ(history.watchers.at(2).revision, 9);
    EXPECT_EQ(history.readings.at(0).picture, (Picture{{"k1", "3.17"}}));
}

TEST(KillHistory, TellsTheLineThatIsNone) {
    for (const auto* line :
         {"nonsense", "invoke 1", "invoke 1 1 1.0", "invoke 1 x 1.0 k=1", "invoke 1 1 1.0 k",
          "invoke 1 1 1.0 =v", "ok 1 1 1.0", "saw 1 x", "read x", "read 1 a=1 a=2", ""}) {
        try {
            historyOf({"read 0", line});
            ADD_FAILURE() << line;
        } catch (const HistoryError& error) {
            EXPECT_EQ(std::string(error.what()).rfind("line 2: ", 0), 0U) << error.what();
        }
    }
    EXPECT_THROW(historyOf({"invoke 1 2 1.0 k=1", "invoke 1 2 1.1 k=1"}), HistoryError);
    EXPECT_THROW(historyOf({"invoke 1 2 1.0 k=1", "ok 1 1 1.1"}), HistoryError);
}
