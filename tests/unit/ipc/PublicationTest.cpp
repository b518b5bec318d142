#include "PublicationFixture.h"

#include <thread>

// A publication's clients: greeting, requests, ends.

namespace ipctest {

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
    bool isGreeted = false;
    // A machine that does other things meanwhile may be late itself; then there is more time.
    for (const int within : {100, 1000, 8000}) {
        publish({.greetWithin = std::chrono::milliseconds(within)});
        RawClient slow(kName);
        serveFor(std::chrono::milliseconds(within / 4));
        slow.greet();
        ASSERT_TRUE(serveUntil([&] {
            const auto frame = slow.next();
            isGreeted = frame && frame->kind == FrameKind::hello;
            return isGreeted || slow.isClosed();
        }));
        if (!isGreeted) continue;
        RawClient silent(kName);
        EXPECT_EQ(farewellTo(silent), "no greeting in time") << "who came later";
        EXPECT_TRUE(isServed(slow));
        break;
    }
    EXPECT_TRUE(isGreeted);
}

TEST_F(PublicationTest, BeyondTheNumberOfSilentOnesTheLongestSilentIsDropped) {
    publish({.maxUngreeted = 2, .greetWithin = std::chrono::minutes(1)});
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
    okv::CborWriter(secondVersion).text("whatever it may hold");
    okv::finishFrame(secondVersion, 0, 0);
    std::string longHello;
    okv::beginFrame(longHello, FrameKind::hello);
    okv::CborWriter(longHello).integer(okv::kWireVersion);
    okv::CborWriter(longHello).boolean(true);
    okv::finishFrame(longHello, 0, 0);
    const std::vector<std::pair<std::string, std::string>> cases{
        {longHello, "bytes are left over at byte 1"},
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

TEST_F(PublicationTest, AClientThatWentBeforeItWasAcceptedIsNotToldOf) {
    int connected = 0;
    publish({.connected = [&](okv::MessagePort&) { ++connected; }});
    for (int i = 0; i < 20; ++i) RawClient(kName).hangUp();
    auto client = greeted();
    EXPECT_EQ(connected, 1);
    EXPECT_TRUE(isServed(client));
}

TEST_F(PublicationTest, AClientThatIsNotReadIsStillSeenToGo) {
    publish({.maxPendingRequests = 1});
    auto client = greeted();
    for (std::uint32_t i = 1; i <= 3; ++i) client.send(RawClient::request(i, "keep", 1));
    ASSERT_TRUE(serveUntil([&] { return root_.kept.size() == 1; }));
    client.hangUp();
    EXPECT_TRUE(serveUntil([&] { return publication_->connectionCount() == 0; }));
}

// The server is told once of what came and of the end behind it: both must be seen.
TEST_F(PublicationTest, WhatCameTogetherWithItsSendersEndIsServedAndTheEndIsSeen) {
    publish();
    auto client = greeted();
    client.send(RawClient::request(1, "keep", 1));
    client.hangUp();
    ASSERT_TRUE(serveUntil([&] { return publication_->connectionCount() == 0; }));
    EXPECT_EQ(root_.handled, 1);
}

TEST_F(PublicationTest, AClientThatOnlyEndsItsOwnSideIsLetGo) {
    publish();
    auto client = greeted();
    client.send(RawClient::request(1, "keep", 1));
    client.endSending();
    ASSERT_TRUE(serveUntil([&] { return publication_->connectionCount() == 0; }));
    EXPECT_EQ(root_.handled, 1);
}

// Far more than is read in one turn, and nothing comes behind it that would tell of it again.
TEST_F(PublicationTest, RequestsThatCameInOneBurstAreAllServed) {
    constexpr int requests = 500;
    publish();
    auto client = greeted();
    std::string burst;
    for (std::uint32_t i = 1; i <= requests; ++i) burst += RawClient::request(i, "echo", i);
    ASSERT_GT(burst.size(), 8192U);
    ASSERT_EQ(client.send(burst), burst.size());
    EXPECT_TRUE(serveUntil([&] { return root_.handled == requests; }));
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

namespace {

/// Ends its publication at the first request that it is given.
struct Ender {
    static void handle(void* target, okv::IncomingRequest&) {
        auto& self = *static_cast<Ender*>(target);
        ++self.handled;
        self.publication->invalidate();
    }
    okv::Ref<Publication> publication;
    int handled = 0;
};

std::string requests(std::uint32_t count) {
    std::string all;
    for (std::uint32_t i = 1; i <= count; ++i) all += RawClient::request(i, "echo", i);
    return all;
}

}  // namespace

TEST_F(PublicationTest, RequestsBehindTheOneThatInvalidatesItAreNotServed) {
    for (const std::uint32_t count : {2U, 80U}) {
        Ender ender;
        std::string why;
        ender.publication = Publication::publish(kName, {&Ender::handle, &ender, nullptr}, {}, why);
        ASSERT_TRUE(ender.publication) << why;
        auto client = greeted();
        client.send(requests(count));
        ASSERT_TRUE(serveUntil([&] { return ender.handled > 0; }));
        serveForAWhile();
        EXPECT_EQ(ender.handled, 1);
        EXPECT_EQ(ender.publication->connectionCount(), 0U);
    }
}

TEST_F(PublicationTest, RequestsThatWereReadAndWaitForTheirTurnAreNotServedOnceItIsInvalidated) {
    publish();
    auto client = greeted();
    client.send(requests(80));
    for (int turn = 0; turn < 100 && root_.handled == 0; ++turn) RunLoop::current()->dispatch();
    const auto handled = root_.handled;
    ASSERT_GT(handled, 0);
    ASSERT_LT(handled, 80) << "a turn takes some of them";
    publication_->invalidate();
    serveForAWhile();
    EXPECT_EQ(root_.handled, handled);
}

TEST_F(PublicationTest, RequestsThatHaveComeUnreadAreNotServedOnceItIsInvalidated) {
    publish();
    auto client = greeted();
    client.send(requests(3));
    publication_->invalidate();
    serveForAWhile();
    EXPECT_EQ(root_.handled, 0);
}

TEST_F(PublicationTest, ATextThatIsSentFromWhereItLiesComesWholeHoweverLittleTheClientTakes) {
    publish();
    for (int i = 0; i < 1 << 20; ++i) root_.longText.push_back(static_cast<char>('a' + i % 23));
    auto client = greeted();
    for (std::uint32_t serial = 1; serial <= 3; ++serial)
        client.send(RawClient::request(serial, "long", ""));
    ASSERT_TRUE(serveUntil([&] { return root_.handled == 3; }));
    for (int reply = 1; reply <= 3; ++reply) {
        std::optional<RawClient::Received> received;
        ASSERT_TRUE(serveUntil([&] { return (received = client.next()).has_value(); }));
        EXPECT_TRUE(textOf(*received) == root_.longText) << reply;
    }
    EXPECT_TRUE(isServed(client));
}

TEST_F(PublicationTest, ATextThatIsSentFromWhereItLiesMayAnswerFromAnotherThread) {
    publish();
    root_.longText.assign(100000, 'x');
    auto client = greeted();
    client.send(RawClient::request(5, "keep", ""));
    ASSERT_TRUE(serveUntil([&] { return root_.kept.size() == 1; }));
    std::thread([&] { root_.answerLong(*root_.kept[0]); }).join();
    root_.kept.clear();
    std::optional<RawClient::Received> received;
    ASSERT_TRUE(serveUntil([&] { return (received = client.next()).has_value(); }));
    EXPECT_TRUE(textOf(*received) == root_.longText);
}

// The other thread may be done before the handler returns, or after: the request must be of use to
// nobody else before.
TEST_F(PublicationTest, RequestsThatAnotherThreadAnswersAtOnceAreEachAnsweredWithWhatTheyAsked) {
    std::string why;
    const auto handler = [](void*, okv::IncomingRequest& request) {
        std::thread([held = okv::Ref<okv::IncomingRequest>::retaining(&request)]() mutable {
            Root::answer(*held);
            held = nullptr;
        }).detach();
    };
    publication_ = Publication::publish(kName, {handler, nullptr, nullptr}, {}, why);
    ASSERT_TRUE(publication_) << why;
    auto client = greeted();
    for (std::uint32_t serial = 1; serial <= 500; ++serial) {
        const auto text = "text " + std::to_string(serial);
        client.send(RawClient::request(serial, "echo", text));
        std::optional<RawClient::Received> received;
        ASSERT_TRUE(serveUntil([&] { return (received = client.next()).has_value(); }));
        EXPECT_EQ(received->serial, serial);
        EXPECT_EQ(textOf(*received), text);
    }
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

}  // namespace ipctest
