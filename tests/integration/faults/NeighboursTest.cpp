// Clients that behave badly for as long as they like: the server goes on answering the others, and
// its memory stays bounded. How fast it answers is measured elsewhere.

#include "HostileBytes.h"
#include "Support.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/RegisteredName.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <future>
#include <thread>

using namespace faults;
using okv::Value;

namespace {

constexpr char kLarge[] = "large";
constexpr std::size_t kLargeSize = 200U << 10;

std::string requestFor(std::string_view key) {
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, "okvDataPT:appUid:", "@i");
    okv::CborWriter writer(frame);
    writer.text(key);
    writer.integer(1);
    okv::finishRequest(frame);
    return frame;
}

okv::PrivateDescriptor connectRaw() {
    auto connected = okv::connectToName(kOKVDataServerName);
    if (!connected.socket.isValid()) throw std::runtime_error(connected.why);
    return std::move(connected.socket);
}

// How many bytes went out without waiting.
std::size_t push(const okv::PrivateDescriptor& socket, std::string_view bytes) {
    const auto count = send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

std::string repeated(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
}

/// A process that runs the body until it is killed, with this object.
class Neighbour {
public:
    /// The body calls its argument once it has begun to misbehave.
    explicit Neighbour(const std::function<void(const std::function<void()>& begun)>& body) {
        int ends[2];
        if (pipe(ends) != 0) throw std::runtime_error("no pipe");
        pid_ = fork();
        if (pid_ == 0) {
            try {
                body([&] { (void)!write(ends[1], "", 1); });
            } catch (const std::exception&) {
            }
            _exit(1);
        }
        close(ends[1]);
        char byte = 1;
        begun_ = read(ends[0], &byte, 1) == 1;
        close(ends[0]);
    }
    Neighbour(const Neighbour&) = delete;
    Neighbour& operator=(const Neighbour&) = delete;
    ~Neighbour() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    bool hasBegun() const { return begun_; }

private:
    pid_t pid_ = -1;
    bool begun_ = false;
};

class BadNeighbours : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.start());
        root_ = connect();
        ASSERT_TRUE(set(*root_, kLarge, std::string(kLargeSize, 'x')));
        before_ = residentBytes();
    }
    // A sanitizer keeps what was freed for a while.
    void TearDown() override {
        EXPECT_LT(residentBytes(), before_ + allowed_ + (kSlowness > 1 ? 256U << 20 : 0));
        EXPECT_EQ(get(*connect(), kLarge), Value(std::string(kLargeSize, 'x')));
    }

    /// Others are answered, old clients and new ones, reading and writing.
    void expectService() {
        for (int i = 0; i < rounds(200); ++i) {
            ASSERT_TRUE(set(*root_, "k", i));
            ASSERT_EQ(get(*connect(), "k"), Value(i));
        }
    }
    std::size_t residentBytes() const {
        std::ifstream file("/proc/" + std::to_string(server_.pid()) + "/status");
        for (std::string line; std::getline(file, line);) {
            if (line.rfind("VmRSS:", 0) == 0) return std::stoul(line.substr(6)) << 10;
        }
        return SIZE_MAX;
    }

    ServerProcess server_;
    okv::Ref<okv::RemoteObject> root_;
    std::size_t allowed_ = 8U << 20;  ///< that the server may grow by

private:
    std::size_t before_ = 0;
};

}  // namespace

TEST_F(BadNeighbours, ThatAreStoppedWithUnreadAnswers) {
    allowed_ = 4 * (10U << 20);  // each may leave 4 MiB and one answer unread; buffers are doubled
    const Neighbour neighbour([](const auto& begun) {
        std::vector<okv::PrivateDescriptor> sockets;
        for (int i = 0; i < 4; ++i) {
            sockets.push_back(connectRaw());
            push(sockets.back(), okv::encodeHello() + repeated(requestFor(kLarge), 100));
        }
        begun();
        raise(SIGSTOP);
    });
    ASSERT_TRUE(neighbour.hasBegun());
    expectService();
}

// Of small answers there are a hundred thousand until it is not read from any more.
TEST_F(BadNeighbours, ThatAskForSomethingSmallAndNeverRead) {
    allowed_ = 10U << 20;
    const Neighbour neighbour([](const auto& begun) {
        const auto socket = connectRaw();
        const auto requests = repeated(requestFor("k"), 100);
        push(socket, okv::encodeHello());
        begun();
        while (send(socket.get(), requests.data(), requests.size(), MSG_NOSIGNAL) > 0) {
        }
    });
    ASSERT_TRUE(neighbour.hasBegun());
    expectService();
}

TEST_F(BadNeighbours, ThatSendByteByByteAreAnsweredInTheEnd) {
    const auto socket = connectRaw();
    push(socket, okv::encodeHello());
    for (const char byte : requestFor("k")) {
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
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (server_.runtimeFolder() + "/" + kOKVDataServerName)
            .copy(address.sun_path, sizeof address.sun_path - 1);
        for (int i = 0; i < rounds(10000); ++i) {
            const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            (void)::connect(made, reinterpret_cast<const sockaddr*>(&address), sizeof address);
            close(made);
        }
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
    const Neighbour neighbour([](const auto& begun) {
        auto& center = okv::DistributedNotificationCenter::defaultCenter();
        const Value information(okv::Dictionary{{"text", std::string(200, 'n')}});
        begun();
        for (;;) center.post("flood", {}, information);
    });
    ASSERT_TRUE(neighbour.hasBegun());
    expectService();
}

TEST_F(BadNeighbours, ThatDieInEveryStateOfACall) {
    const auto greeting = okv::encodeHello(), request = requestFor("k"), large = requestFor(kLarge);
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
