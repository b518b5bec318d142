#include "RawClient.h"

#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Publication.h>

#include <OKVTesting/RuntimeFolder.h>
#include <OKVTesting/ServiceThread.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using ipctest::RawClient;
using okv::Connection;
using okv::ConnectionError;
using okv::FrameKind;
using okv::Publication;
using okv::PublicationOptions;
using okv::RunLoop;
using okv::Value;
using okv::testing::RuntimeFolder;
using okv::testing::ServiceThread;

namespace {

constexpr char kName[] = "jp.nrm.test.publication";
constexpr uid_t kAccount = 23401;

/// Answers "echo" at once and keeps "keep".
class Root {
public:
    static void handle(void* target, okv::IncomingRequest& request) {
        static_cast<Root*>(target)->take(request);
    }
    void take(okv::IncomingRequest& request) {
        ++handled;
        deepest = std::max(deepest, ++depth_);
        if (request.selector() == "keep") {
            kept.push_back(okv::Ref<okv::IncomingRequest>::retaining(&request));
        } else {
            answer(request);
        }
        --depth_;
    }
    static void answer(okv::IncomingRequest& request) {
        std::string frame;
        okv::beginFrame(frame, FrameKind::reply);
        okv::CborWriter(frame).value(request.arguments().value());
        okv::finishFrame(frame, 0, 0);
        request.answer(std::move(frame));
    }

    int handled = 0;
    int deepest = 0;
    std::vector<okv::Ref<okv::IncomingRequest>> kept;

private:
    int depth_ = 0;
};

bool serveUntil(const std::function<bool()>& done) {
    const auto deadline = RunLoop::Clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (RunLoop::Clock::now() >= deadline) return false;
        RunLoop::current()->runUntil(RunLoop::Clock::now() + std::chrono::milliseconds(1));
    }
    return true;
}

void serveForAWhile() {
    RunLoop::current()->runUntil(RunLoop::Clock::now() + std::chrono::milliseconds(30));
}

std::string textOf(const RawClient::Received& frame) {
    return std::string(okv::CborReader(frame.payload).text());
}

// The farewell's text once the server has closed.
std::string farewellTo(RawClient& client) {
    std::string farewell = "(none)";
    EXPECT_TRUE(serveUntil([&] {
        while (const auto frame = client.next()) {
            if (frame->kind == FrameKind::farewell) farewell = textOf(*frame);
        }
        return client.isClosed();
    }));
    return farewell;
}

// What the call's ConnectionError says; empty when there is none.
std::string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const ConnectionError& error) {
        return error.what();
    }
    return {};
}

bool succeedsInAChild(const std::function<bool()>& task) {
    const pid_t child = fork();
    if (child == 0) _exit(task() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}

/// The publication lives on this thread's loop, beside raw clients that never wait.
class PublicationTest : public testing::Test {
protected:
    void publish(PublicationOptions options = {}) {
        std::string why;
        publication_ =
            Publication::publish(kName, {&Root::handle, &root_, nullptr}, std::move(options), why);
        ASSERT_TRUE(publication_) << why;
    }
    RawClient greeted() {
        RawClient client(kName);
        client.greet();
        EXPECT_TRUE(serveUntil([&] { return client.next().has_value(); }));
        return client;
    }
    static bool isServed(RawClient& client) {
        client.send(RawClient::request(77, "echo", "still there"));
        return serveUntil([&] {
            const auto frame = client.next();
            return frame && frame->serial == 77;
        });
    }

    RuntimeFolder folder_;
    Root root_;
    okv::Ref<Publication> publication_;
};

}  // namespace

TEST_F(PublicationTest, AGreetingIsAnsweredWithVersionAndRoot) {
    publish();
    RawClient client(kName);
    client.greet();
    std::optional<RawClient::Received> hello;
    ASSERT_TRUE(serveUntil([&] { return (hello = client.next()).has_value(); }));
    EXPECT_EQ(hello->kind, FrameKind::hello);
    okv::CborReader reader(hello->payload);
    EXPECT_EQ(reader.integer(), okv::kWireVersion);
    EXPECT_TRUE(reader.boolean());
}

TEST_F(PublicationTest, WhoNeverGreetsIsDroppedAfterTheTimeAndWhoGreetedIsNot) {
    publish({.greetWithin = std::chrono::milliseconds(30)});
    auto greetedOne = greeted();
    RawClient silent(kName);
    EXPECT_EQ(farewellTo(silent), "no greeting in time");
    EXPECT_EQ(publication_->connectionCount(), 1U);
    EXPECT_TRUE(isServed(greetedOne));
}

TEST_F(PublicationTest, WhoGreetsInTimeAfterAPauseIsNotDropped) {
    publish({.greetWithin = std::chrono::milliseconds(40)});
    RawClient slow(kName);
    ASSERT_TRUE(serveUntil([&] { return publication_->connectionCount() == 1; }));
    slow.greet();
    serveForAWhile();
    serveForAWhile();
    EXPECT_TRUE(isServed(slow));
}

TEST_F(PublicationTest, BeyondTheNumberOfSilentOnesTheLongestSilentIsDropped) {
    publish({.maxUngreeted = 2});
    auto greetedOne = greeted();
    RawClient first(kName);
    RawClient second(kName);
    RawClient third(kName);
    ASSERT_TRUE(serveUntil([&] {
        first.next();
        return first.isClosed();
    }));
    serveForAWhile();
    EXPECT_EQ(publication_->connectionCount(), 3U);
    for (auto* client : {&second, &third}) {
        client->greet();
        EXPECT_TRUE(isServed(*client));
    }
    EXPECT_TRUE(isServed(greetedOne));
}

TEST_F(PublicationTest, WhatIsNoProtocolEndsThatConnectionWithAReason) {
    publish();
    auto other = greeted();
    std::string strangeKind = okv::encodeHello();
    strangeKind[4] = 99;
    std::string secondVersion;
    okv::beginFrame(secondVersion, FrameKind::hello);
    okv::CborWriter(secondVersion).integer(okv::kWireVersion + 1);
    okv::finishFrame(secondVersion, 0, 0);
    const std::vector<std::pair<std::string, std::string>> cases{
        {strangeKind, "a frame of unknown kind 99"},
        {secondVersion, "this server speaks version 1 of the wire"},
        {RawClient::request(1, "echo", 1), "greet first"},
        {okv::encodeHello() + okv::encodeHello(), "a frame that has no place here"}};
    for (const auto& [bytes, farewell] : cases) {
        RawClient client(kName);
        client.send(bytes);
        EXPECT_EQ(farewellTo(client), farewell);
    }
    EXPECT_EQ(root_.handled, 0);
    EXPECT_TRUE(isServed(other));
}

TEST_F(PublicationTest, ARequestLargerThanAllowedEndsTheConnectionBeforeItCame) {
    publish({.maxRequestBytes = 1000});
    auto client = greeted();
    client.send(RawClient::request(1, "echo", std::string(2000, 'x')).substr(0, 100));
    EXPECT_NE(farewellTo(client).find("more than 1000"), std::string::npos);
}

TEST_F(PublicationTest, ARequestToAnUnknownObjectFailsAlone) {
    publish();
    auto client = greeted();
    std::string frame;
    okv::beginRequest(frame, 12345, "echo", "");
    okv::finishRequest(frame);
    client.send(frame);
    std::optional<RawClient::Received> answer;
    ASSERT_TRUE(serveUntil([&] { return (answer = client.next()).has_value(); }));
    EXPECT_EQ(answer->kind, FrameKind::failure);
    EXPECT_TRUE(isServed(client));
}

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

TEST_F(PublicationTest, AKeptRequestThatIsGivenUpAnswersAFailure) {
    publish();
    auto client = greeted();
    client.send(RawClient::request(5, "keep", 1));
    ASSERT_TRUE(serveUntil([&] { return root_.kept.size() == 1; }));
    root_.kept.clear();
    std::optional<RawClient::Received> answer;
    ASSERT_TRUE(serveUntil([&] { return (answer = client.next()).has_value(); }));
    EXPECT_EQ(answer->kind, FrameKind::failure);
    EXPECT_EQ(answer->serial, 5U);
}

TEST_F(PublicationTest, AClientThatGoesIsToldOfOnceAndItsLateAnswerDropped) {
    int connected = 0;
    int disconnected = 0;
    publish({.connected = [&](okv::MessagePort&) { ++connected; },
             .disconnected = [&](okv::MessagePort&) { ++disconnected; }});
    auto client = greeted();
    client.send(RawClient::request(5, "keep", 1));
    ASSERT_TRUE(serveUntil([&] { return root_.kept.size() == 1; }));
    client.hangUp();
    ASSERT_TRUE(serveUntil([&] { return disconnected == 1; }));
    Root::answer(*root_.kept[0]);
    root_.kept.clear();
    publication_->closeConnections();
    EXPECT_EQ(connected, 1);
    EXPECT_EQ(disconnected, 1);
    EXPECT_EQ(publication_->connectionCount(), 0U);
}

TEST_F(PublicationTest, AClientThatIsNotReadIsStillSeenToGo) {
    publish({.maxPendingRequests = 1});
    auto client = greeted();
    for (std::uint32_t i = 1; i <= 3; ++i) client.send(RawClient::request(i, "keep", 1));
    ASSERT_TRUE(serveUntil([&] { return root_.kept.size() == 1; }));
    client.hangUp();
    EXPECT_TRUE(serveUntil([&] { return publication_->connectionCount() == 0; }));
}

TEST_F(PublicationTest, WhoIsConnectedStaysSoWhenNoMoreAreAccepted) {
    publish();
    auto client = greeted();
    publication_->stopAccepting();
    EXPECT_FALSE(publication_->isValid());
    EXPECT_FALSE(RawClient(kName).isConnected());
    EXPECT_TRUE(isServed(client));
    publication_->invalidate();
    client.next();
    EXPECT_TRUE(client.isClosed());
}

TEST_F(PublicationTest, ClosingEveryConnectionLeavesTheNamePublished) {
    publish();
    auto client = greeted();
    publication_->closeConnections();
    client.next();
    EXPECT_TRUE(client.isClosed());
    auto again = greeted();
    EXPECT_TRUE(isServed(again));
}

TEST_F(PublicationTest, InAForkedChildItIsNothing) {
    publish();
    auto client = greeted();
    EXPECT_TRUE(succeedsInAChild([&] {
        const bool isNothing = !publication_->isValid();
        publication_ = nullptr;
        return isNothing;
    }));
    EXPECT_TRUE(isServed(client));
    EXPECT_TRUE(RawClient(kName).isConnected());
}

TEST_F(PublicationTest, RunningOutOfDescriptorsIsSurvived) {
    EXPECT_TRUE(succeedsInAChild([&] {
        publish();
        auto before = greeted();
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
