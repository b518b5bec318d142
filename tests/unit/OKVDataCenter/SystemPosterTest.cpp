#include "SystemPoster.h"

#include <OKVPlatform/ipc/NotificationLogReader.h>

#include <OKVTesting/RuntimeFolder.h>

#include "support/Patience.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

using datacenter::Change;
using datacenter::SystemPoster;
using okv::Dictionary;
using namespace std::chrono_literals;

namespace {

/// A poster to a folder that can be made unfit.
class ASystemPoster : public testing::Test {
protected:
    void makeUnfit() { std::filesystem::permissions(folder_.path(), std::filesystem::perms(0777)); }
    void makeFit() { std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755)); }

    void post(int revision) {
        Change change;
        change.revision = revision;
        change.appUid = 5;
        change.keys = std::vector<std::string>{"k"};
        poster_->post({std::move(change), "E"});
    }
    void postSwitch(int revision, int account, int user) {
        Change change;
        change.revision = revision;
        change.osUserId = account;
        change.sessionUserId = user;
        poster_->post({std::move(change), "E"});
    }

    /// Each notice in a word: its revision, then the user and the keys that it names, or the
    /// account and its new user. Waits until there are so many.
    std::vector<std::string> posted(std::size_t count) {
        support::Patience patience(20s);
        while (posted_.size() < count && patience.isLeft()) look();
        look();
        return posted_;
    }
    /// Whether the last notice is one of this revision, soon.
    bool endsWith(const std::string& revision) {
        support::Patience patience(20s);
        const auto isLast = [&] {
            return !posted_.empty() && posted_.back().starts_with(revision);
        };
        while (!isLast() && patience.isLeft()) look();
        return isLast();
    }
    std::vector<std::string> logged(std::size_t count) {
        support::Patience patience(20s);
        for (;;) {
            const std::lock_guard lock(mutex_);
            if (log_.size() >= count || !patience.isLeft()) return log_;
        }
    }
    using Words = std::vector<std::string>;

    void look() {
        reader_.refresh(true);
        while (const auto entry = reader_.next()) {
            const auto& information = entry->notification->userInfo.as<Dictionary>();
            const auto number = [&](const char* name) {
                return std::to_string(information[name].longLongValue());
            };
            auto word = number("revision");
            if (information.contains("appuid")) word += " of " + number("appuid");
            if (information.contains("keys")) word += " keys";
            if (number("osuserid") != "-1")
                word += ": " + number("osuserid") + " is " + number("session_userid");
            posted_.push_back(std::move(word));
        }
    }

    static constexpr auto kQuiet = 50ms;

    okv::testing::RuntimeFolder folder_;
    std::mutex mutex_;
    Words log_, posted_;
    okv::NotificationLogReader reader_{folder_.path()};
    std::optional<SystemPoster> poster_{std::in_place,
                                        [this](const std::string& line) {
                                            const std::lock_guard lock(mutex_);
                                            log_.push_back(line);
                                        },
                                        kQuiet};
};

}  // namespace

TEST_F(ASystemPoster, PostsWhatItIsGivenAndLogsNothing) {
    post(1);
    postSwitch(2, 501, 7);
    EXPECT_EQ(posted(2), (Words{"1 of 5 keys", "2: 501 is 7"}));
    EXPECT_TRUE(logged(0).empty());
}

TEST_F(ASystemPoster, ThatFailsLogsTheReasonOnceAndThatItIsOver) {
    makeUnfit();
    post(1);
    const auto lines = logged(1);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_NE(lines[0].find("a notice could not be posted"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("others may write it"), std::string::npos) << lines[0];
    std::this_thread::sleep_for(4 * kQuiet);  // some more attempts, at which nothing is logged
    EXPECT_EQ(logged(1).size(), 1U);
    makeFit();
    EXPECT_EQ(logged(2).at(1), "notices are posted again");
}

TEST_F(ASystemPoster, MakesGoodByItselfWhatItCouldNotPost) {
    makeUnfit();
    post(1);
    logged(1);
    makeFit();
    EXPECT_EQ(posted(1), Words{"1"}) << "whatever changed, and whose";
}

TEST_F(ASystemPoster, TellsOfWhatItMissedTheLastSwitchOfEachAccountAndOneChangeOfAnything) {
    makeUnfit();
    postSwitch(1, 501, 7);
    post(2);
    logged(1);
    postSwitch(3, 502, 9);
    postSwitch(4, 501, 8);
    post(5);
    makeFit();
    const Words missed{"3: 502 is 9", "4: 501 is 8", "5"};
    EXPECT_EQ(posted(3), missed);
    post(6);
    EXPECT_EQ(posted(4).back(), "6 of 5 keys") << "and then names them again";
}

TEST_F(ASystemPoster, KeepsNobodyWaitingWhileAnotherOneHoldsTheLog) {
    post(1);
    posted(1);
    const int lock = open((folder_.path() / okv::kNotificationLockFile).c_str(), O_RDWR);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    for (int revision = 2; revision < 5000; ++revision) post(revision);
    logged(1);  // told as soon as the first of them was given up
    close(lock);
    EXPECT_TRUE(endsWith("4999"));
    EXPECT_LT(posted_.size(), 4999U) << "what could not be posted is told in one notice";
}

TEST_F(ASystemPoster, IsSettledOnceWhatItWasToldIsPostedOrCannotBe) {
    for (int revision = 1; revision <= 50; ++revision) post(revision);
    poster_->settle();
    EXPECT_EQ(posted(0).size(), 50U);
    makeUnfit();
    post(51);
    poster_->settle();
    EXPECT_EQ(logged(0).size(), 1U);
}

TEST_F(ASystemPoster, PostsWhatWaitsBeforeItEnds) {
    for (int revision = 1; revision <= 500; ++revision) post(revision);
    poster_.reset();
    EXPECT_EQ(posted(0).size(), 500U);
}

TEST_F(ASystemPoster, EndsWhereNothingCanBePosted) {
    makeUnfit();
    post(1);
    post(2);
    poster_.reset();
    EXPECT_EQ(logged(1).size(), 1U);
    EXPECT_TRUE(posted(0).empty());
}
