#include "SystemPoster.h"

#include <OKVPlatform/ipc/NotificationLogReader.h>

#include <OKVTesting/RuntimeFolder.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using datacenter::SystemPoster;
using okv::Array;
using okv::Dictionary;
using namespace std::chrono_literals;

namespace {

constexpr char kName[] = "jp.nrm.test.notice";

/// A poster on a clock of the test's, to a folder that can be made unfit.
class ASystemPoster : public testing::Test {
protected:
    void makeUnfit() { std::filesystem::permissions(folder_.path(), std::filesystem::perms(0777)); }
    void makeFit() { std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755)); }
    void post(int number) { poster_.post(kName, {{"n", number}, {"keys", Array{"k"}}}); }

    /// The numbers of the notices that were posted since the last look; a number of one that
    /// carries no keys is negative.
    std::vector<std::int64_t> posted() {
        std::vector<std::int64_t> numbers;
        reader_.refresh(true);
        while (const auto entry = reader_.next()) {
            const auto& information = entry->notification->userInfo.as<Dictionary>();
            const auto number = information["n"].longLongValue();
            numbers.push_back(information.contains("keys") ? number : -number);
        }
        return numbers;
    }
    using Numbers = std::vector<std::int64_t>;

    okv::testing::RuntimeFolder folder_;
    SystemPoster::Clock::time_point now_ = SystemPoster::Clock::now();
    std::vector<std::string> log_;
    SystemPoster poster_{[this](const std::string& line) { log_.push_back(line); },
                         [this] { return now_; }};
    okv::NotificationLogReader reader_{folder_.path()};
};

}  // namespace

TEST_F(ASystemPoster, PostsWhatItIsGivenAndLogsNothing) {
    post(1);
    post(2);
    EXPECT_EQ(posted(), (Numbers{1, 2}));
    EXPECT_TRUE(log_.empty());
}

TEST_F(ASystemPoster, ThatFailsLogsTheReasonAndTriesNothingForTwoSeconds) {
    post(1);
    makeUnfit();
    post(2);
    ASSERT_EQ(log_.size(), 1U);
    EXPECT_NE(log_[0].find("a notice could not be posted"), std::string::npos) << log_[0];
    EXPECT_NE(log_[0].find("others may write it"), std::string::npos) << log_[0];
    makeFit();
    now_ += 1999ms;
    post(3);
    EXPECT_EQ(posted(), Numbers{1}) << "not even tried";
    EXPECT_EQ(log_.size(), 1U);
}

TEST_F(ASystemPoster, TellsAfterwardsThatAnyKeyMayHaveChangedAndThenNamesThemAgain) {
    makeUnfit();
    post(1);
    makeFit();
    post(2);
    now_ += SystemPoster::kQuietAfterFailure;
    post(3);
    post(4);
    EXPECT_EQ(posted(), (Numbers{-3, 4}));
}

TEST_F(ASystemPoster, ThatGoesOnFailingLogsOneLineInTwoSecondsHoweverOftenItIsAsked) {
    makeUnfit();
    for (int number = 0; number < 100; ++number) {
        post(number);
        now_ += 100ms;
    }
    EXPECT_EQ(log_.size(), 5U);
    makeFit();
    post(100);
    EXPECT_EQ(posted(), Numbers{-100});
}
