#include "BackgroundLog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <vector>

using datacenter::BackgroundLog;
using Clock = std::chrono::steady_clock;

namespace {

/// Takes lines; can be held in the middle of one.
class Sink {
public:
    void take(const std::string& line) {
        arrived_.count_down();
        const std::lock_guard lock(gate);
        lines.push_back(line);
    }
    void awaitFirst() { arrived_.wait(); }

    std::mutex gate;
    std::vector<std::string> lines;

private:
    struct Once {
        void count_down() {
            std::call_once(flag, [this] { promise.set_value(); });
        }
        void wait() { promise.get_future().wait(); }
        std::once_flag flag;
        std::promise<void> promise;
    };
    Once arrived_;
};

/// Shared, because a log that hangs outlives the test's frame.
datacenter::LogLine into(const std::shared_ptr<Sink>& sink) {
    return [sink](const std::string& line) { sink->take(line); };
}

}  // namespace

TEST(BackgroundLog, WritesWhatWasAddedInItsOrderBeforeItEnds) {
    const auto sink = std::make_shared<Sink>();
    std::vector<std::string> expected;
    {
        BackgroundLog log(into(sink));
        for (int i = 0; i < 500; ++i) {
            log.add(std::to_string(i));
            expected.push_back(std::to_string(i));
        }
    }
    EXPECT_EQ(sink->lines, expected);
}

TEST(BackgroundLog, NobodyWaitsForOneThatHangsAndWhatDoesNotFitIsCounted) {
    const auto sink = std::make_shared<Sink>();
    {
        BackgroundLog log(into(sink));
        {
            const std::lock_guard held(sink->gate);
            log.add("first");
            sink->awaitFirst();
            for (int i = 0; i < 1100; ++i) log.add("line");  // would wait for ever
        }
    }
    ASSERT_EQ(sink->lines.size(), 1U + 1024U + 1U);
    EXPECT_EQ(sink->lines.back(), "76 lines were left out: the log was too slow");
}

TEST(BackgroundLog, EndsInTimeWhereTheLogHangs) {
    const auto sink = std::make_shared<Sink>();
    const auto begun = Clock::now();
    {
        const std::lock_guard held(sink->gate);
        BackgroundLog log(into(sink));
        log.add("first");
        sink->awaitFirst();
    }
    EXPECT_LT(Clock::now() - begun, std::chrono::seconds(20));
}
