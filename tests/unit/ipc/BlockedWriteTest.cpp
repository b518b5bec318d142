#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Protocol.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <future>
#include <thread>

// Requests that the socket does not take at once, because the peer does not read.

using okv::Connection;
using okv::ConnectionError;
using okv::FrameKind;
using okv::Value;

namespace {

class Store {
public:
    virtual ~Store() = default;
    virtual Value swap_for(const Value& given, std::int32_t size) = 0;
};

}  // namespace

template <>
inline constexpr auto okv::protocol<Store> =
    okv::protocolTable(okv::row<&Store::swap_for>("swap:for:"));

namespace {

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

/// A peer that answers in the way of a simple server: it reads nothing while it writes.
class BlockingPeer {
public:
    explicit BlockingPeer(int socket) : socket_(socket) {
        std::string hello;
        okv::beginFrame(hello, FrameKind::hello);
        okv::CborWriter writer(hello);
        writer.integer(okv::kWireVersion);
        writer.boolean(true);
        okv::finishFrame(hello, 0, 0);
        write(hello);
    }

    /// The serial of the next request, read whole; 0 when the client has gone.
    std::uint32_t take() {
        for (;;) {
            while (const auto frame = bytes_.next()) {
                if (frame->kind == FrameKind::request) return frame->serial;
            }
            const auto room = bytes_.room();
            const auto count = recv(socket_.get(), room.data(), room.size(), 0);
            if (count <= 0) return 0;
            bytes_.added(static_cast<std::size_t>(count));
        }
    }
    void takeBytes(std::size_t count) {
        std::string bytes(count, '\0');
        recv(socket_.get(), bytes.data(), count, MSG_WAITALL);
    }
    void answer(std::uint32_t serial, std::size_t size) {
        std::string frame;
        okv::beginFrame(frame, FrameKind::reply);
        okv::CborWriter(frame).value(std::string(size, 'x'));
        okv::finishFrame(frame, 0, serial);
        write(frame);
    }

private:
    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            const auto count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count <= 0) return;
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }

    okv::PrivateDescriptor socket_;
    okv::FrameBuffer bytes_;
};

class BlockedWriteTest : public testing::Test {
protected:
    BlockedWriteTest() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("socketpair");
        peer_ = std::make_unique<BlockingPeer>(ends[1]);
        connection_ = Connection::connectionWithSocket(okv::PrivateDescriptor(ends[0]), {});
        root_ = connection_->rootProxy();
    }
    std::size_t swap(std::size_t given) {
        return okv::send<&Store::swap_for>(*root_, std::string(given, 'y'), 0)
            .as<std::string>()
            .size();
    }

    std::unique_ptr<BlockingPeer> peer_;
    okv::Ref<Connection> connection_;
    okv::Ref<okv::RemoteObject> root_;
};

}  // namespace

TEST_F(BlockedWriteTest, ALateAnswerThatNobodyTookDoesNotBlockTheNextRequestForEver) {
    std::promise<void> gaveUp;
    std::thread serving([&] {
        const auto late = peer_->take();
        gaveUp.get_future().get();
        peer_->answer(late, 8 * kMebibyte);
        peer_->answer(peer_->take(), 3);
    });
    connection_->setReplyTimeout(0.05);
    EXPECT_THROW(swap(1), ConnectionError);
    connection_->setReplyTimeout(0);
    gaveUp.set_value();
    EXPECT_EQ(swap(4 * kMebibyte), 3U);
    serving.join();
}

TEST_F(BlockedWriteTest, LargeRequestsAndAnswersOfSeveralThreadsPassEachOther) {
    constexpr int threads = 4;
    constexpr int calls = 6;
    std::thread serving([&] {
        for (int i = 0; i < threads * calls; ++i) peer_->answer(peer_->take(), 2 * kMebibyte);
    });
    std::vector<std::thread> callers;
    std::atomic<int> wrong{0};
    for (int t = 0; t < threads; ++t) {
        callers.emplace_back([&] {
            for (int i = 0; i < calls; ++i) wrong += swap(kMebibyte) != 2 * kMebibyte;
        });
    }
    for (auto& caller : callers) caller.join();
    serving.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(BlockedWriteTest, ARequestThatIsNotTakenInTimeTimesOutAndEndsTheConnection) {
    connection_->setRequestTimeout(0.05);
    try {
        swap(8 * kMebibyte);
        ADD_FAILURE() << "did not throw";
    } catch (const ConnectionError& error) {
        EXPECT_EQ(error.kind(), ConnectionError::Kind::timedOut);
    }
    EXPECT_FALSE(connection_->isValid()) << "a part of the request cannot be taken back";
}

TEST_F(BlockedWriteTest, APeerThatGoesWhileARequestIsWrittenFailsItAsNotSent) {
    std::thread going([&] {
        peer_->takeBytes(kMebibyte);
        peer_ = nullptr;
    });
    try {
        swap(8 * kMebibyte);
        ADD_FAILURE() << "did not throw";
    } catch (const ConnectionError& error) {
        EXPECT_EQ(error.kind(), ConnectionError::Kind::notSent);
    }
    going.join();
}
