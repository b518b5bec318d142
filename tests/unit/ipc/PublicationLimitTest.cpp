#include "PublicationFixture.h"

#include <OKVTesting/ServiceThread.h>

#include <poll.h>
#include <sys/resource.h>

// How much the outside may take of a publishing process.

namespace ipctest {

using okv::testing::ServiceThread;

TEST_F(PublicationTest, AClientThatDoesNotReadIsNotReadAndTheOthersAreServed) {
    constexpr int requests = 40;
    publish({.maxQueuedOutput = 256 * 1024});
    auto deaf = greeted();
    auto other = greeted();
    std::string all;
    for (std::uint32_t i = 1; i <= requests; ++i)
        all += RawClient::request(i, "echo", std::string(64 * 1024, 'x'));
    std::string_view left = all;
    for (int turn = 0; turn < 200; ++turn) {
        left.remove_prefix(deaf.send(left));
        RunLoop::current()->dispatch();
    }
    const int handledOfDeaf = root_.handled;
    EXPECT_LT(handledOfDeaf, requests) << "bounded by what may be queued";
    EXPECT_FALSE(publication_->isFlushed());
    EXPECT_TRUE(isServed(other));
    int answers = 0;
    EXPECT_TRUE(serveUntil([&] {
        left.remove_prefix(deaf.send(left));
        while (deaf.next()) ++answers;
        return answers == requests;
    })) << "all is answered once it reads";
    EXPECT_TRUE(publication_->isFlushed());
}

TEST_F(PublicationTest, BeyondThePendingRequestsAClientIsNotRead) {
    publish({.maxPendingRequests = 4});
    auto client = greeted();
    for (std::uint32_t i = 1; i <= 10; ++i) client.send(RawClient::request(i, "keep", i));
    ASSERT_TRUE(serveUntil([&] { return root_.handled == 4; }));
    serveForAWhile();
    EXPECT_EQ(root_.handled, 4);
    auto other = greeted();
    EXPECT_TRUE(isServed(other));
    Root::answer(*root_.kept[0]);
    ASSERT_TRUE(serveUntil([&] { return root_.kept.size() == 5; }));
    while (root_.kept.size() < 10) {
        const auto last = root_.kept.back();
        Root::answer(*last);
        ASSERT_TRUE(serveUntil([&] { return root_.kept.back() != last; }));
    }
}

TEST_F(PublicationTest, AnAnswerThatMakesRoomDoesNotServeTheNextRequestInsideTheFirst) {
    constexpr int requests = 500;
    publish({.maxPendingRequests = 1});
    auto client = greeted();
    std::string all;
    for (std::uint32_t i = 1; i <= requests; ++i) all += RawClient::request(i, "echo", 1);
    EXPECT_EQ(client.send(all), all.size());
    int answers = 0;
    EXPECT_TRUE(serveUntil([&] {
        while (client.next()) ++answers;
        return answers == requests;
    }));
    EXPECT_EQ(root_.deepest, 1) << "a burst would use up the stack";
}

namespace {

std::string manyRequests(std::uint32_t count) {
    std::string all;
    for (std::uint32_t i = 1; i <= count; ++i) all += RawClient::request(i, "echo", 1);
    return all;
}

}  // namespace

TEST_F(PublicationTest, AClientWithManyRequestsAtOnceLetsTheOthersComeInBetween) {
    publish();
    auto busy = greeted(), other = greeted();
    const auto all = manyRequests(80);
    EXPECT_EQ(busy.send(all), all.size());
    other.send(RawClient::request(77, "echo", "a single one"));
    for (int turn = 0; turn < 80 && !other.next(); ++turn) RunLoop::current()->dispatch();
    EXPECT_LT(root_.handled, 20);
    int answers = 0;
    EXPECT_TRUE(serveUntil([&] {
        while (busy.next()) ++answers;
        return answers == 80;
    }));
}

TEST_F(PublicationTest, RequestsThatWaitForTheirTurnAreServedThoughTheClientHasHungUp) {
    publish();
    auto client = greeted();
    client.send(manyRequests(80));
    client.hangUp();
    EXPECT_TRUE(serveUntil([&] { return publication_->connectionCount() == 0; }));
    EXPECT_EQ(root_.handled, 80);
}

TEST_F(PublicationTest, RunningOutOfDescriptorsIsSurvived) {
    EXPECT_TRUE(succeedsInAChild([&] {
        publish();
        auto before = greeted();
        isServed(before);  // a sanitizer's first look at a type takes descriptors, too
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 128;
        setrlimit(RLIMIT_NOFILE, &limit);
        RawClient waiting(kName);
        waiting.greet();
        std::vector<okv::PrivateDescriptor> taken;
        for (int fd = dup(0); fd >= 0; fd = dup(0)) taken.emplace_back(fd);
        RunLoop::current()->dispatch();
        pollfd loop{RunLoop::current()->fd(), POLLIN, 0};
        const bool isCalm = poll(&loop, 1, 0) == 0;  // not told again and again
        const bool isServing = isServed(before) && !waiting.next();
        taken.clear();
        return isCalm && isServing && isServed(waiting);
    }));
}

TEST(PublicationLimits, ARefusedClientsExceptionCarriesTheReason) {
    const RuntimeFolder folder;
    Root root;
    ServiceThread service(kName, {&Root::handle, &root, nullptr}, {.maxConnections = 1});
    auto first = Connection::connectionWithRegisteredName(kName);
    ASSERT_TRUE(first->rootProxy());
    const auto second = Connection::connectionWithRegisteredName(kName);
    ASSERT_TRUE(second);
    EXPECT_EQ(failureOf([&] { second->rootProxy(); }), "too many connections: 1");
    EXPECT_TRUE(first->isValid());
    first = nullptr;
    const auto isAccepted = [] {
        const auto third = Connection::connectionWithRegisteredName(kName);
        return failureOf([&] { third->rootProxy(); }).empty();
    };
    EXPECT_TRUE(serveUntil(isAccepted)) << "its place is free";
}

TEST(PublicationLimits, OneAccountCannotTakeEveryPlace) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can change accounts";
    const RuntimeFolder folder;
    Root root;
    ServiceThread service(kName, {&Root::handle, &root, nullptr}, {.maxConnectionsPerUid = 1});
    EXPECT_TRUE(succeedsInAChild([] {
        if (setresuid(kAccount, kAccount, kAccount) != 0) return false;
        const auto first = Connection::connectionWithRegisteredName(kName);
        if (!first || !first->rootProxy()) return false;
        const auto second = Connection::connectionWithRegisteredName(kName);
        return failureOf([&] { second->rootProxy(); }) == "too many connections of uid 23401: 1";
    }));
    const auto first = Connection::connectionWithRegisteredName(kName);
    const auto second = Connection::connectionWithRegisteredName(kName);
    EXPECT_TRUE(first->rootProxy());
    EXPECT_TRUE(second->rootProxy()) << "root is not counted";
}

}  // namespace ipctest
