// The soak itself, for a short time, and with faults that it must find.

#include "../faults/ProgramRun.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

namespace {

faults::Ran soakFor(const std::string& arguments) {
    return faults::runProgram(OKV_SOAK " " + arguments);
}

void expectFound(const std::string& fault, const std::string& told) {
    const auto ran = soakFor("12 " + fault);
    EXPECT_EQ(ran.code, 1) << ran.output;
    EXPECT_NE(ran.output.find(told), std::string::npos) << ran.output;
    EXPECT_NE(ran.output.find("soak: BROKEN"), std::string::npos) << ran.output;
}

// How the soak judges: the server does there what it does in the one that is kept.
class SoakJudge : public testing::Test {
protected:
    void SetUp() override {
        if (support::kIsSanitized) GTEST_SKIP() << "tested where no sanitizer slows it down";
    }
};

}  // namespace

// A sanitizer finds in a shorter time what it can find at all.
TEST(Soak, IsKeptForHalfAMinuteOrForLessUnderASanitizer) {
    const auto ran = soakFor(support::kIsSanitized ? "12" : "30");
    EXPECT_NE(ran.output.find("5 restarts"), std::string::npos) << ran.output;
    EXPECT_NE(ran.output.find(", 0 others"), std::string::npos) << ran.output;
    // A busy machine, or a sanitizer, leaves too few samples to judge growth by; nothing else does.
    if (ran.code == 3 && ran.output.find("too few samples") != std::string::npos)
        GTEST_SKIP() << "so slow that growth could not be judged; nothing was lost or went wrong";
    EXPECT_EQ(ran.code, 0) << ran.output;
    EXPECT_NE(ran.output.find("soak: kept"), std::string::npos) << ran.output;
}

TEST_F(SoakJudge, FindsAClientThatLeaksADescriptorASecond) {
    expectFound("descriptors", "something grew");
}

TEST_F(SoakJudge, FindsAClientThatLeaksAMegabyteASecond) {
    expectFound("memory", "something grew");
}

TEST_F(SoakJudge, FindsAFailureThatNoRestartExplains) {
    expectFound("error", "an error put in on purpose");
}

TEST_F(SoakJudge, FindsAnAcknowledgedWriteThatIsGone) {
    expectFound("lost-write", ": 0 is not in");
}

TEST_F(SoakJudge, SaysThatItCouldNotJudgeARunThatIsTooShort) {
    const auto ran = soakFor("3");
    EXPECT_EQ(ran.code, 3) << ran.output;
    EXPECT_NE(ran.output.find("the run is too short"), std::string::npos) << ran.output;
    EXPECT_NE(ran.output.find("soak: NOT JUDGED"), std::string::npos) << ran.output;
}

TEST_F(SoakJudge, SaysThatItCouldNotJudgeARunThatWasInterrupted) {
    const auto ran = faults::runProgram("timeout --preserve-status 4 " OKV_SOAK " 3600");
    EXPECT_EQ(ran.code, 3) << ran.output;
    EXPECT_NE(ran.output.find("interrupted"), std::string::npos) << ran.output;
    EXPECT_NE(ran.output.find("the server: too few samples"), std::string::npos) << ran.output;
}

TEST_F(SoakJudge, FindsWhatBrokeInARunThatIsTooShortToo) {
    const auto ran = soakFor("3 error");
    EXPECT_EQ(ran.code, 1) << ran.output;
}

TEST(Soak, TellsHowItIsUsed) {
    for (const auto* arguments : {"", "0", "5 nonsense", "5 error more"})
        EXPECT_EQ(soakFor(arguments).code, 2) << arguments;
}
