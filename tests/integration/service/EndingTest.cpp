#include "Support.h"

#include <atomic>
#include <csignal>
#include <map>
#include <thread>

using namespace service;
using okv::Value;

namespace {

/// Writes one new key after the other, and remembers what became of each.
class Writer {
public:
    explicit Writer(int number) : name_("w" + std::to_string(number) + "."), root_(connect()) {}

    /// Until the server is gone.
    void write(std::atomic<int>& stored) {
        for (int i = 0;; ++i) {
            const auto key = name_ + std::to_string(i);
            const auto answer = writeOne(*root_, key);
            outcomes_[key] = answer;
            if (answer == Outcome::unknown) return;
            if (answer == Outcome::stored) ++stored;
        }
    }
    void expectKept(okv::RemoteObject& root) const {
        for (const auto& [key, outcome] : outcomes_) {
            const bool isThere = get(root, key) == Value("x");
            if (outcome != Outcome::unknown) {
                EXPECT_EQ(isThere, outcome == Outcome::stored) << key;
            }
        }
    }

private:
    enum class Outcome { stored, refused, unknown };

    static Outcome writeOne(okv::RemoteObject& root, const std::string& key) {
        try {
            const auto answer =
                okv::sendForAnswer<&Data::setOKVDataPT_value_appUid>(root, key, "x", 1);
            if (answer.value) return Outcome::stored;
            EXPECT_EQ(answer.refusal->reason, "the data server is ending");
            return Outcome::refused;
        } catch (const okv::ConnectionError&) {
            return Outcome::unknown;
        }
    }

    std::string name_;
    okv::Ref<okv::RemoteObject> root_;
    std::map<std::string, Outcome> outcomes_;
};

/// A client that would be told to disconnect.
class Client final : public okv::Object, public OKVClientMng_protocol {
public:
    void disConnectSrv() override { ++told; }
    int told = 0;

protected:
    void dealloc() override { okv::ExportedObjects::withdraw(*this); }
};

void endWhileManyWrite(ServerProcess& server, std::atomic<int>& stored,
                       std::vector<Writer>& writers) {
    std::vector<std::thread> threads;
    for (auto& writer : writers) threads.emplace_back([&] { writer.write(stored); });
    while (stored < 20 * static_cast<int>(writers.size()) / kSlowness) std::this_thread::yield();
    server.signal(SIGTERM);
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(server.wait(), 0);
}

}  // namespace

TEST(ATerminatedServer, KeepsEveryWriteThatItAnsweredAndNoneThatItRefused) {
    for (int round = 0; round < rounds(10); ++round) {
        ServerProcess server;
        ASSERT_TRUE(server.start());
        const auto client = okv::make<Client>();
        const auto registered = connection();
        ASSERT_TRUE(okv::send<&Data::registerAsClient>(*registered->rootProxy(),
                                                       okv::lend<OKVClientMng_protocol>(*client)));
        std::vector<Writer> writers;
        for (int i = 0; i < 8; ++i) writers.emplace_back(i);
        std::atomic<int> stored{0};
        endWhileManyWrite(server, stored, writers);
        okv::RunLoop::current()->dispatch();
        EXPECT_EQ(client->told, 0);
        EXPECT_FALSE(registered->isValid());
        ASSERT_TRUE(server.start());
        for (const auto& writer : writers) writer.expectKept(*connect());
        ASSERT_FALSE(HasFailure()) << "round " << round;
    }
}

TEST(ATerminatedServer, CommitsAndAnswersAllThatItTookAndRefusesWhatComesAfter) {
    ServerProcess server;
    const HoldableDisk disk(server.file("gate"));
    const Manager manager(server);
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));  // a backup flushes, too
    EXPECT_EQ(manager.next(), "READY=1");
    const auto late = connect();
    std::vector<std::thread> writers;
    Gate gate(server.file("gate"));
    const auto write = [](int i) {
        EXPECT_TRUE(set(*connect(), "k" + std::to_string(i), i)) << "what is taken is answered";
    };
    writers.emplace_back(write, 0);
    ASSERT_TRUE(gate.awaitArrival());
    for (int i = 1; i < 10; ++i) writers.emplace_back(write, i);
    while (status(*late)["waiting"] != Value(9)) std::this_thread::yield();
    server.signal(SIGTERM);
    EXPECT_EQ(manager.next(), "STOPPING=1") << "told before the last commits";
    const auto refused =
        okv::sendForAnswer<&Data::setOKVDataPT_value_appUid>(*late, "late", 1, 1).refusal;
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->reason, "the data server is ending");
    EXPECT_THROW(connect(), std::runtime_error);
    gate.letGo();
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(server.wait(), 0);
    ASSERT_TRUE(server.start());
    const auto root = connect();
    for (int i = 0; i < 10; ++i) EXPECT_EQ(get(*root, "k" + std::to_string(i)), Value(i));
    EXPECT_TRUE(get(*root, "late").isNull());
}
