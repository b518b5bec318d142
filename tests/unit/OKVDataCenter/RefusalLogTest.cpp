#include "RefusalLog.h"

#include <gtest/gtest.h>

#include <vector>

using Lines = std::vector<std::string>;

namespace {

class RefusalLogTest : public testing::Test {
protected:
    Lines lines_;
    datacenter::RefusalLog log_{[this](const std::string& line) { lines_.push_back(line); }};
};

}  // namespace

TEST_F(RefusalLogTest, NamesTheCallerAndTheMethodAndNothingElse) {
    log_.note({77, 1000, 1000, {}}, "setOKVDataPT:value:appUid:", 0);
    EXPECT_EQ(lines_, Lines{"refused setOKVDataPT:value:appUid: to uid 1000, process 77"});
}

TEST_F(RefusalLogTest, AnAccountThatAsksWithoutPauseGetsTenLinesInTenSeconds) {
    for (int i = 0; i < 1000; ++i) log_.note({77 + i, 1000, 1000, {}}, "endServer", 5);
    EXPECT_EQ(lines_.size(), 10U);
    log_.note({77, 1000, 1000, {}}, "endServer", 15);
    ASSERT_EQ(lines_.size(), 12U);
    EXPECT_EQ(lines_[10], "990 more refused requests");
    EXPECT_EQ(log_.count(), 1001);
}

TEST_F(RefusalLogTest, AnAccountThatAsksWithoutPauseKeepsNoOtherOutOfTheLog) {
    for (int i = 0; i < 1000; ++i) log_.note({77, 1000, 1000, {}}, "endServer", 5);
    log_.note({78, 1001, 1001, {}}, "reloadDataPT", 6);
    EXPECT_EQ(lines_.back(), "refused reloadDataPT to uid 1001, process 78");
}

TEST_F(RefusalLogTest, AHundredLinesAreWrittenInTenSecondsWhoeverAsks) {
    for (uid_t uid = 1; uid <= 1000; ++uid) log_.note({77, uid, uid, {}}, "endServer", 5);
    EXPECT_EQ(lines_.size(), 100U);
    log_.tellLeftOut();
    EXPECT_EQ(lines_.back(), "900 more refused requests");
}

TEST_F(RefusalLogTest, TellsOnceHowManyWereLeftOutAndNothingWhereNoneWas) {
    log_.tellLeftOut();
    EXPECT_TRUE(lines_.empty());
    for (int i = 0; i < 12; ++i) log_.note({77, 1000, 1000, {}}, "endServer", 5);
    EXPECT_TRUE(log_.hasLeftOut());
    log_.tellLeftOut();
    EXPECT_FALSE(log_.hasLeftOut());
    EXPECT_EQ(lines_.back(), "2 more refused requests");
    log_.tellLeftOut();
    log_.note({77, 1000, 1000, {}}, "endServer", 20);
    EXPECT_EQ(lines_.size(), 12U);
}
