#include "CapturedStderr.h"

#include "support/ForkedChild.h"

#include <OKVPlatform/system/NSLog.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace {

/// Collects texts for the life of a test.
class Recorded {
public:
    Recorded() {
        okv::setNSLogSink([this](std::string_view text) { texts_.emplace_back(text); });
    }
    ~Recorded() { okv::setNSLogSink(nullptr); }
    const std::vector<std::string>& texts() const { return texts_; }

private:
    std::vector<std::string> texts_;
};

}  // namespace

TEST(NSLog, WritesDateTimeProcessAndTextAsOneLineInOneWrite) {
    CapturedStderr standardError;
    okv::NSLog("DataFW: %s %d. ", "text", 7);
    const std::string line = standardError.nextWrite();
    const std::string tag = std::string(program_invocation_short_name) + '[' +
                            std::to_string(getpid()) + ':' + std::to_string(syscall(SYS_gettid)) +
                            ']';
    ASSERT_GT(line.size(), 24U);
    EXPECT_THAT(line.substr(0, 24),
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} "
                                      "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "));
    EXPECT_EQ(line.substr(24), tag + " DataFW: text 7. \n");
    EXPECT_EQ(standardError.nextWrite(), "");
}

TEST(NSLog, ALineFeedInTheTextCannotForgeASecondLine) {
    CapturedStderr standardError;
    okv::NSLog("first\nsecond\n");
    const std::string line = standardError.nextWrite();
    EXPECT_TRUE(line.ends_with("] first\\nsecond\n")) << line;
}

TEST(NSLog, GivesTheSinkTheTextAloneUntilItIsTakenAway) {
    CapturedStderr standardError;
    {
        const Recorded recorded;
        okv::NSLog("-> %d\n", 1);
        EXPECT_EQ(recorded.texts(), std::vector<std::string>{"-> 1\n"});
    }
    okv::NSLog("unheard");
    EXPECT_NE(standardError.nextWrite(), "");
}

TEST(NSLog, KeepsErrno) {
    CapturedStderr standardError;
    errno = ENOENT;
    okv::NSLog("text");
    EXPECT_EQ(errno, ENOENT);
}

TEST(NSLog, FormatsTextsOfAnyLength) {
    CapturedStderr standardError;
    const Recorded recorded;
    const std::string text(3000, 'x');
    okv::NSLog("%s", text.c_str());
    okv::NSLog("%s", "");
    EXPECT_EQ(recorded.texts(), (std::vector<std::string>{text, ""}));
}

TEST(NSLog, TheSinkMayChangeWhileOtherThreadsLog) {
    CapturedStderr standardError;
    std::atomic<int> heard{0};
    std::atomic<bool> done{false};
    std::jthread logger([&] {
        while (!done) {
            okv::NSLog("x");
            standardError.nextWrite();
        }
    });
    while (heard < 50) {
        okv::setNSLogSink([&heard](std::string_view) { ++heard; });
        okv::setNSLogSink(nullptr);
    }
    done = true;
    logger.join();
    EXPECT_GE(heard, 50);
}

TEST(NSLog, WritesInAForkedChildWhateverOtherThreadsOfTheParentWereLogging) {
    support::expectChildrenSucceedWhile([] { okv::logLine("in the parent"); },
                                        [] { return !okv::logLine("in the child").empty(); }, 300);
}
