#include "HostileBytes.h"
#include "Support.h"

#include "support/Patience.h"
#include "support/RawRequests.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/RegisteredName.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <list>
#include <vector>

using namespace faults;
using okv::Value;
using support::residentKilobytes;

namespace {

/// Whoever is forked while it lives has so few descriptors, for good; this process keeps its own.
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t count) {
        static const int registered = pthread_atfork(nullptr, nullptr, limitChild);
        EXPECT_EQ(registered, 0);
        few = count;
    }
    ~FewDescriptors() { few = 0; }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    static void limitChild() {
        const rlimit limit{few, few};
        if (few != 0) setrlimit(RLIMIT_NOFILE, &limit);
    }
    static inline rlim_t few = 0;
};

/// A client that greets and asks, and looks whether it was answered.
class PatientClient {
public:
    PatientClient() : socket_(std::move(okv::connectToName(kOKVDataServerName).socket)) {
        std::string request;
        okv::beginRequest(request, okv::kRootObject, "defaultUserIdPT", "");
        okv::finishRequest(request);
        send(okv::encodeHello() + request);
    }
    /// How many bytes went out without waiting.
    std::size_t send(std::string_view bytes) const { return support::push(socket_, bytes); }
    /// Whether it was told something, or the end, within the time.
    bool isToldSomething(std::chrono::milliseconds within) const {
        pollfd entry{socket_.get(), POLLIN, 0};
        return poll(&entry, 1, static_cast<int>(within.count())) == 1;
    }
    bool isAnswered() {
        for (;;) {
            while (const auto frame = bytes_.next()) {
                if (frame->kind == okv::FrameKind::reply) return true;
            }
            const auto room = bytes_.room();
            const auto count = recv(socket_.get(), room.data(), room.size(), 0);
            if (count <= 0) return false;
            bytes_.added(static_cast<std::size_t>(count));
        }
    }
    const okv::PrivateDescriptor& socket() const { return socket_; }

private:
    okv::PrivateDescriptor socket_;
    okv::FrameBuffer bytes_;
};

/// Waits until one of them is told something; false when none is within a second.
bool awaitAny(const std::vector<PatientClient*>& clients) {
    std::vector<pollfd> entries;
    for (const auto* client : clients) entries.push_back({client->socket().get(), POLLIN, 0});
    return poll(entries.data(), entries.size(), 1000) > 0;
}

/// How many are answered: once it is more than so many, until nobody was for a second.
int answeredOf(std::list<PatientClient>& clients, int soMany) {
    std::vector<PatientClient*> waiting;
    for (auto& client : clients) waiting.push_back(&client);
    int answered = 0;
    for (support::Patience patience(std::chrono::seconds(20)); patience.isLeft();) {
        const bool came = awaitAny(waiting);
        std::erase_if(waiting, [&](PatientClient* client) {
            const bool isTold = client->isToldSomething(std::chrono::milliseconds(0));
            answered += isTold && client->isAnswered();
            return isTold;
        });
        if (!came && answered > soMany) break;
    }
    return answered;
}

class Listener final : public okv::Object {
public:
    explicit Listener(okv::DistributedNotificationCenter& center) : center_(center) {
        center_.addObserver(*this, &Listener::heard, "jp.nrm.okv6.notification");
    }
    void heard(const okv::Notification&) {
        ++notices;
        okv::RunLoop::current()->stop();
    }
    int notices = 0;

protected:
    void dealloc() override { center_.removeObserver(*this); }

private:
    okv::DistributedNotificationCenter& center_;
};

}  // namespace

TEST(ServerLimits, TwoHundredClientsOfAServerWithSixtyFourDescriptorsAreSurvived) {
    ServerProcess server;
    {
        const FewDescriptors few(64);
        ASSERT_TRUE(server.start());
    }
    const auto early = connect();
    okv::DistributedNotificationCenter center(server.runtimeFolder());
    const auto listener = okv::make<Listener>(center);
    std::list<PatientClient> clients(200);
    const int answered = answeredOf(clients, 20);
    EXPECT_GT(answered, 20);
    EXPECT_LT(answered, 64);
    // Who is connected is served meanwhile, to the disk and to the notices.
    EXPECT_TRUE(set(*early, "k", 1));
    EXPECT_EQ(get(*early, "k"), Value(1));
    okv::RunLoop::current()->runUntil(Clock::now() + std::chrono::seconds(10));
    EXPECT_EQ(listener->notices, 1);
    clients.clear();
    const auto late = PatientClient();
    EXPECT_TRUE(late.isToldSomething(std::chrono::seconds(60)));
    EXPECT_EQ(get(*connect(), "k"), Value(1));
}

TEST(ServerLimits, WhoNeverGreetsIsDroppedAfterTwoSecondsAndWhoGreetedIsNot) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto begun = Clock::now();
    const auto silent = okv::connectToName(kOKVDataServerName);
    const auto greeted = connect();
    pollfd entry{silent.socket.get(), POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 60000), 1);
    EXPECT_GE(Clock::now() - begun, std::chrono::milliseconds(1900));
    std::string text(200, '\0');
    const auto count = recv(silent.socket.get(), text.data(), text.size(), 0);
    ASSERT_GT(count, 0);
    text.resize(static_cast<std::size_t>(count));
    EXPECT_NE(text.find("no greeting in time"), std::string::npos);
    EXPECT_EQ(recv(silent.socket.get(), text.data(), text.size(), 0), 0);
    EXPECT_EQ(okv::send<&Data::defaultUserIdPT>(*greeted), 1);
}

TEST(ServerLimits, ClientsThatNeverReadMakeTheServerKeepSoMuchAndNoMore) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto root = connect();
    const std::string large(200U << 10, 'x');
    ASSERT_TRUE(set(*root, "large", large));
    // 200 MB of answers, were they made.
    const auto requests = support::repeated(support::readingRequest("large"), 1000);
    const auto before = residentKilobytes(server.pid());
    std::list<PatientClient> greedy(5);
    for (auto& client : greedy) {
        while (client.send(requests) == requests.size()) {
        }
        EXPECT_TRUE(client.isToldSomething(std::chrono::seconds(20)));
    }
    for (int i = 0; i < 50; ++i) EXPECT_EQ(get(*root, "large"), Value(large));
    // A client's output is bounded by 4 MiB and one answer; buffers grow by doubling.
    const auto grown = residentKilobytes(server.pid()) - before;
    EXPECT_LT(grown, 5 * 10 * 1024 + (kSlowness > 1 ? 200 * 1024 : 0));
    RecordProperty("kilobytes", std::to_string(grown));
    greedy.clear();
    EXPECT_EQ(get(*connect(), "large"), Value(large));
}
