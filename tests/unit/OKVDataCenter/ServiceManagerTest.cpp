#include "Harness.h"
#include "ServiceManager.h"

#include "support/Processes.h"
#include "support/Serving.h"
#include "support/Sockets.h"

#include <thread>

using datacenter::ServiceManager;
using std::chrono::milliseconds;

namespace {

/// Listens where a service manager would, and asks for a sign of life.
class Manager {
public:
    explicit Manager(int watchdogMicroseconds)
        : watched_("WATCHDOG_USEC", std::to_string(watchdogMicroseconds)) {}

    /// All that was told since.
    std::vector<std::string> take() const {
        std::vector<std::string> told;
        char text[512];
        for (ssize_t size = 0; (size = recv(socket_.get(), text, sizeof text, 0)) >= 0;)
            told.emplace_back(text, static_cast<std::size_t>(size));
        return told;
    }

private:
    support::TempFolder folder_;
    support::BoundSocket socket_{SOCK_DGRAM | SOCK_NONBLOCK, folder_ / "notify"};
    support::Environment toldAt_{"NOTIFY_SOCKET", folder_ / "notify"};
    support::Environment watched_;
};

void turnFor(milliseconds time) {
    okv::RunLoop::current()->runUntil(okv::RunLoop::Clock::now() + time);
}

/// Turns until the manager is told something so often; false when it is not.
bool turnUntilTold(const Manager& manager, std::size_t times) {
    std::size_t told = 0;
    return support::serveUntil([&] {
        told += manager.take().size();
        return told >= times;
    });
}

}  // namespace

TEST(ServiceManager, IsToldOfLifeOnlyWhileTheRunLoopTurns) {
    const Manager manager(20000);
    ServiceManager told;
    told.ready([] { return true; });
    EXPECT_EQ(manager.take(), (std::vector<std::string>{"READY=1", "WATCHDOG=1"}));
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_TRUE(manager.take().empty()) << "a stuck run loop is not noticed";
    EXPECT_TRUE(turnUntilTold(manager, 2));
}

TEST(ServiceManager, IsToldOfLifeOnlyWhileTheServerIsWell) {
    const Manager manager(20000);
    bool well = false;
    ServiceManager told;
    told.ready([&] { return well; });
    turnFor(milliseconds(50));
    EXPECT_EQ(manager.take(), std::vector<std::string>{"READY=1"});
    well = true;
    EXPECT_TRUE(turnUntilTold(manager, 1));
}

TEST(ServiceManager, IsToldWhenAReloadBeginsAndHowItEnded) {
    const Manager manager(0);
    ServiceManager told;
    told.reloading();
    const auto begun = manager.take().at(0);
    EXPECT_TRUE(begun.starts_with("RELOADING=1\nMONOTONIC_USEC=")) << begun;
    told.reloaded("");
    told.reloaded("no disk");
    EXPECT_EQ(manager.take(),
              (std::vector<std::string>{"READY=1\nSTATUS=",
                                        "READY=1\nSTATUS=The last reload failed: no disk"}));
    told.stopping();
    told.reloaded("");
    EXPECT_EQ(manager.take(), std::vector<std::string>{"STOPPING=1"});
}

TEST(Server, IsNotWellWhenItsWriterDoesNotGetOnAndSaysSoOnce) {
    Harness::Options options;
    options.limits.writerStuckAfter = std::chrono::seconds(0);
    Harness harness(options);
    EXPECT_TRUE(harness.server->isWell()) << "a writer without work is not stuck";
    harness.holdWriter();
    harness.log.clear();
    EXPECT_FALSE(harness.server->isWell());
    EXPECT_FALSE(harness.server->isWell());
    EXPECT_EQ(harness.log.size(), 1U);
    harness.letWriterGo();
    while (!harness.server->isWell()) std::this_thread::yield();
    Harness patient;
    patient.holdWriter();
    EXPECT_TRUE(patient.server->isWell()) << "a slow disk is no reason";
    patient.letWriterGo();
}

namespace {

/// Reloads, and serves until that was told; answers the failure.
std::string reload(Harness& harness) {
    std::optional<std::string> failure;
    harness.reloaded = [&](const std::string& told) { failure = told; };
    harness.server->reload();
    while (!failure)
        okv::RunLoop::current()->runUntil(okv::RunLoop::Clock::now() + milliseconds(5));
    harness.reloaded = nullptr;
    return *failure;
}

}  // namespace

TEST(Server, AReloadLooksForTheAdministratorsAgain) {
    Harness harness;
    const auto member = account(1000, {5000});
    EXPECT_FALSE(harness.askAs<&Data::reloadDataPT>(member).value);
    harness.administrators = gid_t{5000};
    EXPECT_FALSE(harness.askAs<&Data::reloadDataPT>(member).value) << "not before the reload";
    EXPECT_EQ(reload(harness), "");
    EXPECT_TRUE(harness.askAs<&Data::reloadDataPT>(member).value);
    EXPECT_FALSE(harness.askAs<&Data::reloadDataPT>(account(1000, {4001})).value);
}

TEST(Server, AReloadOfItsOwnThatFailsKeepsTheViewAndIsLogged) {
    Harness harness;
    harness.ask<&Data::setOKVDataPT_value_appUid>("k", 1, 1);
    datacenter::Database other(harness.storeFile(), SQLITE_OPEN_READWRITE);
    other.execute("UPDATE settings SET value = x'FF'");
    harness.log.clear();
    EXPECT_NE(reload(harness), "");
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), okv::Value(1));
    ASSERT_EQ(harness.log.size(), 1U);
    EXPECT_NE(harness.log[0].find("what was read before is kept"), std::string::npos);
    other.execute("UPDATE settings SET value = x'02'");
    EXPECT_EQ(reload(harness), "");
    EXPECT_EQ((harness.ask<&Data::okvDataPT_appUid>("k", 1)), okv::Value(2));
}
