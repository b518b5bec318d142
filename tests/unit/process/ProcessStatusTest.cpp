#include <OKVPlatform/process/ProcessStatus.h>

#include <gtest/gtest.h>

#include <string>

using okv::absoluteFirstArgument;
using okv::parseProcessStatus;

namespace {

std::string statusText(const std::string& name, const std::string& rest = "") {
    return "Name:\t" + name +
           "\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t42\nNgid:\t0\nPid:\t42\nPPid:\t7\n"
           "TracerPid:\t0\nUid:\t1000\t0\t0\t0\nGid:\t100\t5\t5\t5\nFDSize:\t64\n" +
           rest;
}

}  // namespace

TEST(ProcessStatus, GivesTheRealIdsTheParentAndTheName) {
    const auto status = parseProcessStatus(statusText("sshd", "Groups:\t0 \n"));
    ASSERT_TRUE(status);
    EXPECT_EQ(status->record.pid, 42);
    EXPECT_EQ(status->record.parentPid, 7);
    EXPECT_EQ(status->record.realUid, 1000U);
    EXPECT_EQ(status->record.realGid, 100U);
    EXPECT_STREQ(status->record.command, "sshd");
    EXPECT_EQ(status->threadGroup, 42);
    EXPECT_FALSE(status->hasEnded());
}

struct NameRow {
    const char* written;
    const char* expected;
};

class StatusName : public testing::TestWithParam<NameRow> {};

TEST_P(StatusName, IsReadBackAsTheProcessHasIt) {
    const auto status = parseProcessStatus(statusText(GetParam().written));
    ASSERT_TRUE(status);
    EXPECT_STREQ(status->record.command, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, StatusName,
    testing::Values(NameRow{"two words", "two words"}, NameRow{" lead", " lead"}, NameRow{"", ""},
                    NameRow{"a) R 1 (b", "a) R 1 (b"}, NameRow{"x\\nUid:\\t0", "x\nUid:t0"},
                    NameRow{"back\\\\slash", "back\\slash"}, NameRow{"end\\", "end\\"},
                    NameRow{"\\\\n", "\\n"}, NameRow{"\xff\xfe", "\xff\xfe"},
                    NameRow{"tab\there", "tab\there"}, NameRow{"Uid:\t0", "Uid:\t0"},
                    NameRow{"exactly16bytes!!", "exactly16bytes!!"},
                    NameRow{"kworker/u8:2-events_unbound", "kworker/u8:2-eve"},
                    NameRow{"\\n\\n\\n\\n\\n\\n\\n\\n\\n\\n\\n\\n\\n\\n\\n\\n\\n",
                            "\n\n\n\n\n\n\n\n\n\n\n\n\n\n\n\n"}));

TEST(ProcessStatus, IdsUseAll32Bits) {
    const auto status =
        parseProcessStatus("Pid:\t2147483647\nPPid:\t0\nUid:\t4294967295\t0\nGid:\t4294967294\n");
    ASSERT_TRUE(status);
    EXPECT_EQ(status->record.pid, INT32_MAX);
    EXPECT_EQ(status->record.realUid, 4294967295U);
    EXPECT_EQ(status->record.realGid, 4294967294U);
}

TEST(ProcessStatus, KnowsAProcessThatHasEnded) {
    const std::string rest = "\nTgid:\t1\nPid:\t1\nPPid:\t0\nUid:\t0\nGid:\t0\n";
    EXPECT_TRUE(parseProcessStatus("State:\tZ (zombie)" + rest)->hasEnded());
    EXPECT_TRUE(parseProcessStatus("State:\tX (dead)" + rest)->hasEnded());
    EXPECT_FALSE(parseProcessStatus("State:\tT (stopped)" + rest)->hasEnded());
}

class BadStatus : public testing::TestWithParam<std::string> {};

TEST_P(BadStatus, AnswersNone) {
    EXPECT_FALSE(parseProcessStatus(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BadStatus,
    testing::Values("", "\n\n\n", "Name:\tx\n", "Pid:\t1\nPPid:\t1\nUid:\t1\n",
                    "Pid:\tx\nPPid:\t1\nUid:\t1\nGid:\t1\n", "Pid:\nPPid:\t1\nUid:\t1\nGid:\t1\n",
                    "Pid:\t99999999999\nPPid:\t1\nUid:\t1\nGid:\t1\n",
                    "Pid:\t1\nPPid:\t1\nUid:\t-1\nGid:\t1\n",
                    "Pid:\t1x\nPPid:\t1\nUid:\t1\nGid:\t1\n",
                    "State:\t\nPid:\t1\nPPid:\t1\nUid:\t1\nGid:\t1\n",
                    std::string("Pid:\t1\0\nPPid:\t1\nUid:\t1\nGid:\t1\n", 30)));

TEST(CommandLine, OnlyAnAbsoluteFirstArgumentCounts) {
    using std::string_view_literals::operator""sv;
    EXPECT_EQ(absoluteFirstArgument("/bin/a b\0-x\0"sv), "/bin/a b");
    EXPECT_EQ(absoluteFirstArgument("/bin/cut"), "/bin/cut");
    EXPECT_EQ(absoluteFirstArgument("bin/a\0/etc\0"sv), "");
    EXPECT_EQ(absoluteFirstArgument("\0/bin/a\0"sv), "");
    EXPECT_EQ(absoluteFirstArgument(""), "");
}
