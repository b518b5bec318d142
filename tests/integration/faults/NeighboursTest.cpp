// Clients that behave badly for as long as they like: the server goes on answering the others, and
// its memory stays bounded. How fast it answers is measured elsewhere.

#include "HostileBytes.h"
#include "Support.h"

#include "support/RawRequests.h"
#include "support/Sockets.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/RegisteredName.h>

#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <thread>

using namespace faults;
using okv::Value;
using support::connectRaw;
using support::push;
using support::readingRequest;
using support::repeated;

namespace {

constexpr char kLarge[] = "large";
constexpr std::size_t kLargeSize = 200U << 10;

class BadNeighbours : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.start());
        root_ = connect();
        ASSERT_TRUE(set(*root_, kLarge, std::string(kLargeSize, 'x')));
        before_ = memoryOfServer();
    }
    // A sanitizer keeps what was freed for a while.
    void TearDown() override {
        EXPECT_LT(memoryOfServer(), before_ + allowed_ + (kSlowness > 1 ? 256U << 20 : 0));
        EXPECT_EQ(get(*connect(), kLarge), Value(std::string(kLargeSize, 'x')));
    }

    /// Others are answered, old clients and new ones, reading and writing.
    void expectService() {
        for (int i = 0; i < rounds(200); ++i) {
            ASSERT_TRUE(set(*root_, "k", i));
            ASSERT_EQ(get(*connect(), "k"), Value(i));
        }
    }
    ServerProcess server_;
    okv::Ref<okv::RemoteObject> root_;
    std::size_t allowed_ = 8U << 20;  ///< that the server may grow by

private:
    std::size_t memoryOfServer() const {
        return static_cast<std::size_t>(support::residentKilobytes(server_.pid())) << 10;
    }

    std::size_t before_ = 0;
};

}  // namespace

TEST_F(BadNeighbours, ThatAreStoppedWithUnreadAnswers) {
    allowed_ = 4 * (10U << 20);  // each may leave 4 MiB and one answer unread; buffers are doubled
    const support::Child neighbour([](const auto& begun) {
        std::vector<okv::PrivateDescriptor> sockets;
        for (int i = 0; i < 4; ++i) {
            sockets.push_back(connectRaw());
            push(sockets.back(), okv::encodeHello() + repeated(readingRequest(kLarge), 100));
        }
        begun();
        raise(SIGSTOP);
    });
    ASSERT_TRUE(neighbour.isReady());
    expectService();
    EXPECT_TRUE(support::isRunning(neighbour.pid())) << "nobody was bad any more";
}

// Of small answers there are a hundred thousand until it is not read from any more.
TEST_F(BadNeighbours, ThatAskForSomethingSmallAndNeverRead) {
    allowed_ = 10U << 20;
    const support::Child neighbour([](const auto& begun) {
        const auto socket = connectRaw();
        const auto requests = repeated(readingRequest("k"), 100);
        push(socket, okv::encodeHello());
        begun();
        while (send(socket.get(), requests.data(), requests.size(), MSG_NOSIGNAL) > 0) {
        }
    });
    ASSERT_TRUE(neighbour.isReady());
    expectService();
    EXPECT_TRUE(support::isRunning(neighbour.pid())) << "nobody was bad any more";
}

TEST_F(BadNeighbours, ThatSendByteByByteAreAnsweredInTheEnd) {
    const auto socket = connectRaw();
    push(socket, okv::encodeHello());
    for (const char byte : readingRequest("k")) {
        ASSERT_EQ(push(socket, {&byte, 1}), 1U);
        ASSERT_EQ(get(*root_, kLarge), Value(std::string(kLargeSize, 'x')));
    }
    expectService();
    okv::FrameBuffer bytes;
    for (bool answered = false; !answered;) {
        const auto room = bytes.room();
        const auto count = recv(socket.get(), room.data(), room.size(), 0);
        ASSERT_GT(count, 0);
        bytes.added(static_cast<std::size_t>(count));
        while (const auto frame = bytes.next()) answered |= frame->kind == okv::FrameKind::reply;
    }
}

TEST_F(BadNeighbours, ThatConnectTenThousandTimes) {
    std::promise<void> done;
    std::thread storm([&] {
        const auto path = server_.runtimeFolder() + "/" + kOKVDataServerName;
        for (int i = 0; i < rounds(10000); ++i) support::connectOnly(path);
        done.set_value();
    });
    auto over = done.get_future();
    const auto held = connection();
    held->setReplyTimeout(10.0 * kSlowness);
    long answered = 0;
    for (; over.wait_for(std::chrono::seconds(0)) != std::future_status::ready; ++answered)
        EXPECT_EQ(okv::send<&Data::defaultUserIdPT>(*held->rootProxy()), 1);
    storm.join();
    EXPECT_GT(answered, 0);
    expectService();
}

TEST_F(BadNeighbours, ThatPostNoticesWithoutAPause) {
    const support::Child neighbour([](const auto& begun) {
        auto& center = okv::DistributedNotificationCenter::defaultCenter();
        const Value information(okv::Dictionary{{"text", std::string(200, 'n')}});
        begun();
        for (;;) center.post("flood", {}, information);
    });
    ASSERT_TRUE(neighbour.isReady());
    expectService();
    EXPECT_TRUE(support::isRunning(neighbour.pid())) << "nobody was bad any more";
}

TEST_F(BadNeighbours, ThatDieInEveryStateOfACall) {
    const auto greeting = okv::encodeHello(), request = readingRequest("k"),
               large = readingRequest(kLarge);
    std::string change;
    okv::beginRequest(change, okv::kRootObject, "setOKVDataPT:value:appUid:", "@@i");
    okv::CborWriter writer(change);
    writer.text("by the dead");
    writer.integer(7);
    writer.integer(1);
    okv::finishRequest(change);
    const std::string lives[]{"",
                              greeting.substr(0, 3),
                              greeting,
                              greeting + request.substr(0, 4),
                              greeting + request.substr(0, 12),
                              greeting + request,
                              greeting + large,
                              greeting + change,
                              greeting + repeated(large, 50)};
    for (int i = 0; i < rounds(50); ++i) {
        for (const auto& life : lives) push(connectRaw(), life);
        ASSERT_EQ(okv::send<&Data::defaultUserIdPT>(*root_), 1);
    }
    expectService();
    EXPECT_EQ(get(*root_, "by the dead"), Value(7)) << "who was taken is carried out";
}
