#include "Support.h"

// The server's clock as a client reads it, and the local one that stands in for it.

namespace dmtest {
namespace {

using okv::Date;

/// The two clocks read together: the server's time belongs to a moment between the two local ones.
struct Reading {
    explicit Reading(const okvDataManager& manager)
        : before(Date::now().secondsSince1970),
          server(manager.serverTime().secondsSince1970),
          after(Date::now().secondsSince1970) {}
    double before;
    double server;
    double after;
};

/// Clocks are compared to within this many seconds: what a store keeps of a time is no finer.
constexpr double kSlack = 0.01;

void expectLocal(const Reading& reading) {
    EXPECT_GE(reading.server, reading.before);
    EXPECT_LE(reading.server, reading.after);
}

void expectRealTimeBetween(const Reading& first, const Reading& later) {
    const auto passed = later.server - first.server;
    EXPECT_GE(passed, later.before - first.after - kSlack);
    EXPECT_LE(passed, later.after - first.before + kSlack);
}

/// Reads the clock until the local one has gone on by a tenth of a second.
Reading readingLater(const okvDataManager& manager, const Reading& first) {
    Reading later(manager);
    while (later.before - first.after < 0.1) later = Reading(manager);
    return later;
}

class ServerClock : public RealServerTest {
protected:
    ServerClock() : manager_(connected()) {}
    void restartServer() {
        killServer();
        if (!server_.start() || !manager_->connectSrv()) throw std::runtime_error("no server");
    }
    okv::Ref<okvDataManager> manager_;
};

const Date kNoon{1700000000.25};

}  // namespace

TEST_F(ServerClock, TheLocalOneStandsInUntilItIsSet) {
    EXPECT_TRUE(okv::send<&Data::serverTimePT>(*support::connect()).isNil());
    expectLocal(Reading(*manager_));
    manager_->startServerTimeTimer();
    expectLocal(Reading(*manager_));
}

TEST_F(ServerClock, StandsUntilItIsStarted) {
    manager_->setServerTime(kNoon);
    EXPECT_EQ(manager_->serverTime(), kNoon);
    readingLater(*manager_, Reading(*manager_));
    EXPECT_EQ(manager_->serverTime(), kNoon);
    restartServer();
    EXPECT_EQ(manager_->serverTime(), kNoon);
}

TEST_F(ServerClock, RunsWithRealTimeAlsoOverARestart) {
    manager_->setServerTime(kNoon);
    manager_->startServerTimeTimer();
    const Reading first(*manager_);
    EXPECT_GE(first.server, kNoon.secondsSince1970);
    EXPECT_LT(first.server, kNoon.secondsSince1970 + 60);
    expectRealTimeBetween(first, readingLater(*manager_, first));
    restartServer();
    expectRealTimeBetween(first, Reading(*manager_));
}

TEST_F(ServerClock, StandsWhereItWasStopped) {
    manager_->setServerTime(kNoon);
    manager_->startServerTimeTimer();
    const Reading first(*manager_);
    readingLater(*manager_, first);
    manager_->stopServerTimeTimer();
    const auto stopped = manager_->serverTime();
    EXPECT_GE(stopped.secondsSince1970, first.server + 0.1 - kSlack);
    readingLater(*manager_, Reading(*manager_));
    EXPECT_EQ(manager_->serverTime(), stopped);
    restartServer();
    EXPECT_EQ(manager_->serverTime(), stopped);
}

TEST_F(ServerClock, TheLocalOneStandsInWithoutAConnection) {
    manager_->setServerTime(kNoon);
    manager_->disConnectSrv();
    expectLocal(Reading(*manager_));
}

}  // namespace dmtest
