#include "support/ForkedChild.h"

#include <OKVPlatform/values/Lasting.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <future>
#include <memory>

namespace {

struct Number {
    explicit Number(int is) : value(is) { ++living; }
    Number(const Number&) = delete;
    Number& operator=(const Number&) = delete;
    ~Number() { --living; }

    int value;
    static inline int living = 0;
};

struct EndsTheProcess {
    ~EndsTheProcess() { _exit(1); }
};

// Asks on a thread of its own, which is in the middle of making it when the constructor returns.
class SlowMaker {
public:
    SlowMaker(okv::OnDemand<Number>& number, int value)
        : got_(std::async(std::launch::async, [this, &number, value] {
              return number
                  .get([&] {
                      begun_.set_value();
                      mayEnd_.get_future().wait();
                      return std::make_unique<Number>(value);
                  })
                  .value;
          })) {
        begun_.get_future().wait();
    }
    int got() {
        mayEnd_.set_value();
        return got_.get();
    }

private:
    std::promise<void> begun_, mayEnd_;
    std::future<int> got_;
};

int valueOf(okv::OnDemand<Number>& number, int otherwise) {
    return number.get([=] { return std::make_unique<Number>(otherwise); }).value;
}

}  // namespace

TEST(OnDemand, IsMadeByTheFirstWhoAsks) {
    static constinit okv::OnDemand<Number> number;
    EXPECT_EQ(valueOf(number, 1), 1);
    EXPECT_EQ(valueOf(number, 2), 1);
}

TEST(OnDemand, OfSeveralMadeAtOnceTheFirstOneDoneStaysAlone) {
    static constinit okv::OnDemand<Number> number;
    const auto before = Number::living;
    SlowMaker slow(number, 1);
    EXPECT_EQ(valueOf(number, 2), 2);
    EXPECT_EQ(slow.got(), 2);
    EXPECT_EQ(Number::living, before + 1);
}

TEST(OnDemand, IsMadeByAChildThatWasForkedWhileTheParentMadeOne) {
    static constinit okv::OnDemand<Number> number;
    SlowMaker slow(number, 1);
    EXPECT_TRUE(support::succeedsInAChild([] { return valueOf(number, 2) == 2; }));
    EXPECT_EQ(slow.got(), 1);
}

TEST(Lasting, IsNotDestroyedWhenTheProcessEnds) {
    EXPECT_EXIT(
        {
            static constinit okv::Lasting<EndsTheProcess> object;
            [[maybe_unused]] const auto& used = *object;
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}
