// What arrives while this side invalidates its connection: read already, and not looked at yet.
#include "ConnectionFixture.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <utility>

using namespace connection_test;

namespace {

/// Called once on its thread, when bytes were received there and before the caller has them.
thread_local std::function<void()> afterReceiving;

}  // namespace

#pragma GCC visibility push(default)
extern "C" ssize_t recv(int fd, void* bytes, std::size_t count, int flags) {
    static auto* const next =
        reinterpret_cast<ssize_t (*)(int, void*, std::size_t, int)>(dlsym(RTLD_NEXT, "recv"));
    const auto received = next(fd, bytes, count, flags);
    if (received > 0 && afterReceiving) std::exchange(afterReceiving, nullptr)();
    return received;
}
#pragma GCC visibility pop

namespace {

class Invalidation : public ConnectionTest {
protected:
    Invalidation() { okv::send<&Desk::lendBell>(*root_, okv::lend<Bell>(*bell_)); }
    void invalidateWhileReceiving() {
        afterReceiving = [this] { connection_->invalidate(); };
    }
    void serveForAWhile() {
        RunLoop::current()->runUntil(RunLoop::Clock::now() + std::chrono::milliseconds(20));
    }
    void expectNothingServedAndOneDeath() {
        serveForAWhile();
        EXPECT_EQ(bell_->rings, 0);
        EXPECT_EQ(mourner_->deaths, 1);
        EXPECT_FALSE(connection_->isValid());
    }

    okv::Ref<BellObject> bell_ = okv::make<BellObject>();
};

}  // namespace

TEST_F(Invalidation, DropsARequestThatACallIsJustReceiving) {
    invalidateWhileReceiving();
    EXPECT_EQ(failureOf([&] { okv::send<&Desk::ringBell>(*root_); }),
              ConnectionError::Kind::outcomeUnknown);
    EXPECT_FALSE(afterReceiving) << "it was not in between";
    expectNothingServedAndOneDeath();
}

TEST_F(Invalidation, DropsARequestThatTheRunLoopIsJustReceiving) {
    okv::post<&Desk::ringBell>(*root_);
    invalidateWhileReceiving();
    serveUntil([] { return !afterReceiving; });
    expectNothingServedAndOneDeath();
}

TEST_F(Invalidation, AfterThePeerHungUpDropsWhatItHadAskedBefore) {
    EXPECT_EQ(failureOf([&] { okv::send<&Desk::ringAndHangUp>(*root_); }),
              ConnectionError::Kind::outcomeUnknown);
    EXPECT_EQ(mourner_->deaths, 0)
        << "the request waits for the run loop, and the notice behind it";
    connection_->invalidate();
    EXPECT_EQ(mourner_->deaths, 1);
    expectNothingServedAndOneDeath();
}

TEST_F(Invalidation, OfWhoServesARequestDropsThoseBehindIt) {
    bell_->onRing = [&] { connection_->invalidate(); };
    okv::send<&Desk::ringBell>(*root_);
    okv::send<&Desk::ringBell>(*root_);
    okv::send<&Desk::ringBell>(*root_);
    serveUntil([&] { return mourner_->deaths == 1; });
    serveForAWhile();
    EXPECT_EQ(bell_->rings, 1);
    EXPECT_EQ(mourner_->deaths, 1);
}
