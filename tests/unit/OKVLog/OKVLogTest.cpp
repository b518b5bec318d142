#include "../system/CapturedStderr.h"

#include <OKVLog/Journal.h>
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

std::vector<std::string> journalFields;

int recordFields(const iovec* fields, int count) {
    journalFields.clear();
    for (int i = 0; i < count; ++i)
        journalFields.emplace_back(static_cast<const char*>(fields[i].iov_base), fields[i].iov_len);
    return 0;
}

int refuseFields(const iovec* fields, int count) {
    recordFields(fields, count);
    return -EIO;
}

/// A journal whose socket is a path that exists or one that does not.
okv::Journal journal(okv::SendToJournal (*find)(), const char* socketPath = "/dev/null") {
    journalFields.clear();
    return {socketPath, find};
}

}  // namespace

TEST(OKVSystemLog, WritesTextPriorityLevelAndNameToTheJournalAlone) {
    CapturedStderr standardError;
    okv::writeLogText(journal([] { return &recordFields; }), 30, "two\nlines");
    EXPECT_EQ(journalFields,
              (std::vector<std::string>{
                  "MESSAGE=two\nlines", "PRIORITY=7", "OKV_LEVEL=30",
                  std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name}));
    EXPECT_EQ(standardError.nextWrite(), "");
}

TEST(OKVSystemLog, WritesToStandardErrorWhereNoJournalListens) {
    CapturedStderr standardError;
    okv::writeLogText(journal([] { return &recordFields; }, "/nonexistent/socket"), 10, "text");
    EXPECT_TRUE(standardError.nextWrite().ends_with("] text\n"));
    EXPECT_TRUE(journalFields.empty());
}

TEST(OKVSystemLog, WritesToStandardErrorWithoutTheJournalsLibrary) {
    CapturedStderr standardError;
    okv::writeLogText(journal([]() -> okv::SendToJournal { return nullptr; }), 10, "text");
    EXPECT_TRUE(standardError.nextWrite().ends_with("] text\n"));
}

TEST(OKVSystemLog, WritesToStandardErrorWhatTheJournalRefuses) {
    CapturedStderr standardError;
    okv::writeLogText(journal([] { return &refuseFields; }), 10, "text");
    EXPECT_FALSE(journalFields.empty());
    EXPECT_TRUE(standardError.nextWrite().ends_with("] text\n"));
}

TEST(OKVSystemLog, WritesNothingAboveTheLevelInForce) {
    if (access("/run/systemd/journal/socket", F_OK) == 0)
        GTEST_SKIP() << "a journal takes the texts";
    CapturedStderr standardError;
    OKVSystemLog(11, "too detailed");
    EXPECT_EQ(standardError.nextWrite(), "");
    OKVSystemLog(10, "written");
    EXPECT_TRUE(standardError.nextWrite().ends_with("] written\n"));
    okv::setLogLevel(11);
    OKVSystemLog(11, "detailed");
    okv::setLogLevel(okv::kDefaultLogLevel);
    EXPECT_TRUE(standardError.nextWrite().ends_with("] detailed\n"));
}

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
