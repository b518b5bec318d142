#include "../system/CapturedStderr.h"

#include <OKVLog/OKVLog.h>

#include <gtest/gtest.h>

#include <sys/syslog.h>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

namespace {

using Entry = std::pair<int, std::string>;

class Recorded {
public:
    Recorded() {
        okv::setLogSink(
            [this](int level, std::string_view text) { entries_.emplace_back(level, text); });
    }
    ~Recorded() { okv::setLogSink(nullptr); }
    const std::vector<Entry>& entries() const { return entries_; }

private:
    std::vector<Entry> entries_;
};

}  // namespace

TEST(OKVSystemLog, TheLevelInForceIs10UnlessSet) {
    EXPECT_EQ(okv::logLevel(), 10);
    okv::setLogLevel(30);
    EXPECT_EQ(okv::logLevel(), 30);
    okv::setLogLevel(okv::kDefaultLogLevel);
}

TEST(OKVSystemLog, ASinkSeesEveryCallAlsoThoseAboveTheLevelInForce) {
    CapturedStderr standardError;
    const Recorded recorded;
    OKVSystemLog(10, "->bRet:%d", 0);
    OKVSystemLog(30, "->userSwitch! osUid:%d, sessionUserId:%d", 501, 2);
    EXPECT_EQ(
        recorded.entries(),
        (std::vector<Entry>{{10, "->bRet:0"}, {30, "->userSwitch! osUid:501, sessionUserId:2"}}));
}

TEST(OKVSystemLog, KeepsErrno) {
    CapturedStderr standardError;
    errno = ENOENT;
    OKVSystemLog(10, "text");
    EXPECT_EQ(errno, ENOENT);
}

struct PriorityRow {
    int level;
    int priority;
};

class Priority : public testing::TestWithParam<PriorityRow> {};

TEST_P(Priority, FollowsTheLevel) {
    EXPECT_EQ(okv::journalPriority(GetParam().level), GetParam().priority);
}

INSTANTIATE_TEST_SUITE_P(Rows, Priority,
                         testing::Values(PriorityRow{INT32_MIN, LOG_ERR}, PriorityRow{0, LOG_ERR},
                                         PriorityRow{1, LOG_NOTICE}, PriorityRow{9, LOG_NOTICE},
                                         PriorityRow{10, LOG_INFO}, PriorityRow{19, LOG_INFO},
                                         PriorityRow{20, LOG_DEBUG}, PriorityRow{30, LOG_DEBUG}));
