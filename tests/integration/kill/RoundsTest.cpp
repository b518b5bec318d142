// The rounds themselves, a few of them, and with faults that the checker must find.

#include "../faults/ProgramRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <vector>

using testing::AnyOf;
using testing::Contains;
using testing::Each;

namespace {

class KillRounds : public testing::Test {
protected:
    faults::Ran run(const std::string& rounds, const std::string& fault = {}) const {
        return faults::runProgram(OKV_KILL_ROUNDS " " + rounds + " " + history_ + " " + fault);
    }
    const support::TempFolder folder_;
    const std::string history_ = folder_ / "history";
};

// What the checker finds: the server does there what it does in the rounds that are kept.
class KillRoundsWithAFault : public KillRounds {
protected:
    void SetUp() override {
        if (faults::kSlowness > 1) GTEST_SKIP() << "tested where no sanitizer slows it down";
    }
    void expectFound(const std::string& fault, const std::string& told) const {
        const auto ran = run("8", fault);
        EXPECT_EQ(ran.code, 1) << ran.output;
        EXPECT_NE(ran.output.find("\n  " + told), std::string::npos) << ran.output;
        EXPECT_NE(ran.output.find("kill-rounds: BROKEN"), std::string::npos) << ran.output;
    }
};

/// Of the faults that are told, a line each that begins with two blanks and the kind.
std::vector<std::string> kindsIn(const std::string& output) {
    std::vector<std::string> kinds;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("  ")) kinds.push_back(line.substr(2, line.find(':') - 2));
    }
    return kinds;
}

}  // namespace

TEST_F(KillRounds, LoseNothingAndTellEverythingOnce) {
    const auto ran = run(std::to_string(faults::rounds(15) + 2));
    EXPECT_EQ(ran.code, 0) << ran.output;
    EXPECT_NE(ran.output.find("kill-rounds: kept"), std::string::npos) << ran.output;
}

TEST_F(KillRoundsWithAFault, FindAnAcknowledgedWriteThatIsLost) {
    expectFound("lost", "lost: ");
}

TEST_F(KillRoundsWithAFault, FindATornTransaction) {
    expectFound("torn", "torn: ");
}

TEST_F(KillRoundsWithAFault, FindAGap) {
    expectFound("gap", "gap: ");
}

// One of the two changes that it stands for is missing then for those who saw the other one.
TEST_F(KillRoundsWithAFault, FindARevisionThatIsGivenTwice) {
    const auto ran = run("8", "duplicate");
    EXPECT_EQ(ran.code, 1) << ran.output;
    const auto kinds = kindsIn(ran.output);
    EXPECT_THAT(kinds, Contains(AnyOf("duplicate", "lost", "torn"))) << ran.output;
    EXPECT_THAT(kinds, Each(AnyOf("duplicate", "lost", "torn", "stale"))) << ran.output;
}

TEST_F(KillRoundsWithAFault, FindAWatcherThatOverlooksSomething) {
    expectFound("stale", "stale: watcher 3");
}

TEST_F(KillRounds, TellHowTheyAreUsed) {
    EXPECT_EQ(run("0").code, 2);
    EXPECT_EQ(run("5", "nonsense").code, 2);
    std::ofstream(history_) << "not to be written over\n";
    EXPECT_EQ(run("5").code, 2);
}
