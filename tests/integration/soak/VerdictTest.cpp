#include "Measure.h"
#include "Verdict.h"

#include "support/Processes.h"

#include <gtest/gtest.h>

#include <functional>

using namespace soak;
using support::numberOf;

namespace {

constexpr std::int64_t kMegabyte = 1 << 20;

// A sample every ten seconds.
Series seriesOf(double from, double to, const std::function<Sample(double at)>& made) {
    Series series{"it", {}};
    for (double at = from; at < to; at += 10) {
        auto sample = made(at);
        sample.at = at;
        series.samples.push_back(sample);
    }
    return series;
}

Series steady(double from, double to, std::int64_t bytes) {
    return seriesOf(from, to, [=](double) { return Sample{0, bytes, 9, 1}; });
}

std::vector<std::string> breachesOf(const Judgement& judgement) {
    std::vector<std::string> breaches;
    for (const auto& finding : judgement.findings) {
        if (finding.isBreach()) breaches.push_back(finding.name + " " + finding.measure);
    }
    return breaches;
}

std::vector<std::string> breachesInAnHour(const std::function<Sample(double at)>& made) {
    const auto hour = Schedule::of(3600);
    return breachesOf(judgeLasting(seriesOf(0, 3600, made), hour, Tolerance()));
}

using Names = std::vector<std::string>;

Failure failure(double begun, double ended, bool isWrong = false) {
    return failureOf(begun, ended, isWrong, "failed");
}

}  // namespace

TEST(SoakSchedule, HasTheSamePartsHoweverShort) {
    const auto hour = Schedule::of(3600), minute = Schedule::of(60);
    EXPECT_EQ(hour.settle, 300);
    EXPECT_EQ(hour.restartEvery, 300);
    EXPECT_EQ(hour.sampleEvery, 10);
    EXPECT_EQ(minute.settle, 10);
    EXPECT_EQ(minute.restartEvery, 10);
}

TEST(SoakVerdict, LetsWhatLastsGrowWhileItSettlesAndNotAfterwards) {
    EXPECT_EQ(breachesInAnHour([](double) { return Sample{0, kMegabyte, 9, 1}; }), Names());
    EXPECT_EQ(breachesInAnHour([](double at) {
                  return Sample{0, at < 290 ? kMegabyte : 9 * kMegabyte, at < 290 ? 9 : 30, 1};
              }),
              Names());
    EXPECT_EQ(breachesInAnHour([](double at) {
                  return Sample{0, static_cast<std::int64_t>(at * 1500), 9, 1};
              }),
              Names{"it bytes"});
    EXPECT_EQ(breachesInAnHour([](double at) {
                  return Sample{0, kMegabyte, 9 + static_cast<std::int64_t>(at / 900), 1};
              }),
              Names{"it descriptors"});
    EXPECT_EQ(breachesInAnHour([](double at) {
                  return Sample{0, kMegabyte, 9, at > 3000 ? 2 : 1};
              }),
              Names{"it threads"});
}

TEST(SoakVerdict, ToleratesTwoMegabytesOrFivePercentWhicheverIsMore) {
    const auto growing = [](std::int64_t before, std::int64_t after) {
        return breachesInAnHour([=](double at) {
            return Sample{0, at < 1800 ? before : after, 9, 1};
        });
    };
    EXPECT_EQ(growing(kMegabyte, 3 * kMegabyte), Names());
    EXPECT_EQ(growing(kMegabyte, 3 * kMegabyte + 1), Names{"it bytes"});
    EXPECT_EQ(growing(100 * kMegabyte, 105 * kMegabyte), Names());
    EXPECT_EQ(growing(100 * kMegabyte, 106 * kMegabyte), Names{"it bytes"});
}

TEST(SoakVerdict, TakesOneHighSampleOfMemoryForAnAccidentButNotOneOfDescriptors) {
    EXPECT_EQ(breachesInAnHour([](double at) {
                  return Sample{0, at == 2000 ? 90 * kMegabyte : kMegabyte, 9, 1};
              }),
              Names());
    EXPECT_EQ(breachesInAnHour([](double at) {
                  return Sample{0, kMegabyte, at == 2000 ? 90 : 9, 1};
              }),
              Names{"it descriptors"});
}

TEST(SoakVerdict, JudgesEveryLifeOfTheServerByItselfAndBesideTheSecond) {
    std::vector<Series> lives;
    for (int i = 0; i < 4; ++i) lives.push_back(steady(300 * i, 300 * i + 300, 5 * kMegabyte));
    EXPECT_EQ(breachesOf(judgeLives(lives, Tolerance())), Names());
    lives[0] = steady(0, 300, 90 * kMegabyte);
    EXPECT_EQ(breachesOf(judgeLives(lives, Tolerance())), Names()) << "the first settles";
    lives[2] = steady(600, 900, 8 * kMegabyte);
    EXPECT_EQ(breachesOf(judgeLives(lives, Tolerance())), Names{"it beside it bytes"});
    lives[2] = seriesOf(600, 900, [](double at) {
        return Sample{0, static_cast<std::int64_t>((at - 600) * 30000), 9, 1};
    });
    EXPECT_EQ(breachesOf(judgeLives(lives, Tolerance())), Names{"it by itself bytes"});
}

TEST(SoakVerdict, DoesNotJudgeAShortLifeByItself) {
    const std::vector<Series> lives{
        steady(0, 50, kMegabyte), seriesOf(50, 100, [](double at) {
            return Sample{0, static_cast<std::int64_t>(at) * kMegabyte, 9, 1};
        })};
    EXPECT_TRUE(judgeLives(lives, Tolerance()).findings.empty());
}

TEST(SoakVerdict, DoesNotTakeWhatHasTooFewSamplesForJudged) {
    const auto hour = Schedule::of(3600);
    const auto unjudged = [&](double from, double to) {
        return judgeLasting(steady(from, to, kMegabyte), hour, Tolerance()).unjudged;
    };
    EXPECT_EQ(unjudged(0, 3600), Names());
    EXPECT_EQ(unjudged(560, 1840), Names()) << "four samples in each stretch";
    EXPECT_EQ(unjudged(570, 1840), Names{"it"});
    EXPECT_EQ(unjudged(560, 1830), Names{"it"});
    EXPECT_EQ(unjudged(0, 250), Names{"it"}) << "ended while it settled";
    EXPECT_EQ(unjudged(0, 0), Names{"it"});
}

TEST(SoakVerdict, DoesNotTakeAServerForJudgedOfWhichNoTwoLivesCouldBeCompared) {
    const auto unjudged = [](const std::vector<Series>& lives) {
        return judgeLives(lives, Tolerance()).unjudged;
    };
    const auto life = steady(0, 300, kMegabyte), few = steady(0, 30, kMegabyte);
    EXPECT_EQ(unjudged({life, life, life}), Names());
    EXPECT_EQ(unjudged({few, life, few, life, few}), Names());
    for (const auto& lives : std::vector<std::vector<Series>>{
             {}, {life}, {life, life}, {life, few, life}, {life, life, few}})
        EXPECT_EQ(unjudged(lives), Names{"the server"});
}

TEST(SoakVerdict, IsKeptOnlyWhereAllWasJudgedAndNothingBroke) {
    EXPECT_EQ(verdictOf(false, {}), Verdict::kept);
    EXPECT_EQ(verdictOf(false, {"it"}), Verdict::notJudged);
    EXPECT_EQ(verdictOf(true, {}), Verdict::broken);
    EXPECT_EQ(verdictOf(true, {"it"}), Verdict::broken);
}

TEST(SoakVerdict, ExcusesAFailureOnlyByAnOutageThatTheCallWasUnderWayIn) {
    const std::vector<Outage> outages{{100, 101}, {200, 201}};
    EXPECT_TRUE(isConsequence(failure(99.9, 100.1), outages));
    EXPECT_TRUE(isConsequence(failure(100.4, 100.5), outages));
    EXPECT_TRUE(isConsequence(failure(200.9, 203), outages));
    EXPECT_FALSE(isConsequence(failure(101.1, 101.2), outages));
    EXPECT_FALSE(isConsequence(failure(99, 99.9), outages));
    EXPECT_FALSE(isConsequence(failure(100.5, 101 + kGiveUpWithin + 0.1), outages));
    EXPECT_FALSE(isConsequence(failure(100.4, 100.5, true), outages)) << "a wrong answer";
}

TEST(SoakSlot, KeepsFailuresInOrderAndTellsWhenItHadNoRoom) {
    auto& board = Board::make();
    auto& slot = board.add("one", Place::user, 2);
    EXPECT_STREQ(board.registers[1].key, "soak.one.1");
    for (int i = 0; i < 300; ++i) slot.failed(failure(i, i));
    EXPECT_EQ(slot.dropped(), 44);
    Failure taken;
    for (int i = 0; i < 256; ++i) {
        ASSERT_TRUE(slot.take(taken));
        EXPECT_EQ(taken.begun, i);
    }
    EXPECT_FALSE(slot.take(taken));
}

TEST(SoakMeasure, ReadsNumbersOfLines) {
    const std::string text = "0-1 [rollup]\nRss:  900 kB\nPrivate_Dirty:    120 kB\nSwap:  0 kB\n";
    EXPECT_EQ(numberOf(text, "Private_Dirty"), 120);
    EXPECT_EQ(numberOf(text, "Swap"), 0);
    EXPECT_EQ(numberOf(text, "Dirty"), 0);
    EXPECT_EQ(numberOf("", "Rss"), 0);
}

TEST(SoakMeasure, SeesWhatThisProcessTakes) {
    const auto before = measure(getpid(), 3);
    EXPECT_EQ(before.at, 3);
    EXPECT_GE(before.threads, 1);
    const std::string room(32 * kMegabyte, 'x');
    const int more = dup(0);
    const auto after = measure(getpid(), 4);
    EXPECT_EQ(after.descriptors, before.descriptors + 1);
    EXPECT_GT(after.bytes, before.bytes + 30 * kMegabyte);
    close(more);
}
