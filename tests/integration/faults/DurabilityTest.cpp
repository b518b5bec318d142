#include "Support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

extern char** environ;

using namespace faults;
using okv::Array;
using okv::Value;

namespace {

constexpr int kKeys = 40;

/// Writes ever higher numbers in turn to its own keys, and remembers what was acknowledged.
class Writer {
public:
    explicit Writer(std::string name) : name_(std::move(name)) {}
    virtual ~Writer() = default;

    /// Until the server is gone.
    void write() {
        while (writeNext()) {
        }
    }
    bool writeNext() {
        const auto number = ++tried_;
        auto& key = keys_[static_cast<std::size_t>(number % kKeys)];
        key.tried = number;
        if (!put(keyOf(number), number)) return false;
        key.acknowledged = number;
        ++acknowledgedInAll_;
        return true;
    }
    /// Every key has the last value that was acknowledged, or a later one whose outcome is unknown.
    void expectKept(okv::RemoteObject& root) const {
        for (int i = 0; i < kKeys; ++i) {
            const auto& key = keys_[static_cast<std::size_t>(i)];
            if (key.tried == 0) continue;
            const auto read = okv::send<&Data::okvDataPT>(root, keyOf(i)).longLongValue();
            EXPECT_GE(read, key.acknowledged) << keyOf(i);
            EXPECT_LE(read, key.tried) << keyOf(i);
        }
    }
    long tried() const { return tried_; }
    long acknowledged() const { return acknowledgedInAll_; }

protected:
    /// Whether it was acknowledged.
    virtual bool put(const std::string& key, std::int64_t number) = 0;

private:
    struct Key {
        std::int64_t tried = 0, acknowledged = 0;
    };
    std::string keyOf(std::int64_t number) const {
        return name_ + "." + std::to_string(number % kKeys);
    }

    const std::string name_;
    std::array<Key, kKeys> keys_{};
    std::int64_t tried_ = 0;
    long acknowledgedInAll_ = 0;
};

class SendingWriter final : public Writer {
public:
    using Writer::Writer;

    void connectAgain() { root_ = connect(); }

protected:
    bool put(const std::string& key, std::int64_t number) override {
        try {
            EXPECT_TRUE(okv::send<&Admin::setOKVCommonDataAllPT>(
                *root_, Value(okv::Dictionary{{key, number}})));
            return true;
        } catch (const okv::ConnectionError&) {
            return false;
        }
    }

private:
    okv::Ref<okv::RemoteObject> root_;
};

/// `okvctl set`, a process for every write.
class ToolWriter final : public Writer {
public:
    using Writer::Writer;

protected:
    bool put(const std::string& key, std::int64_t number) override {
        auto setting = key + "=" + std::to_string(number);
        std::string words[] = {OKV_OKVCTL, "set", setting};
        char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        pid_t pid = -1;
        const int failure = posix_spawn(&pid, OKV_OKVCTL, &actions, nullptr, arguments, environ);
        posix_spawn_file_actions_destroy(&actions);
        int status = 0;
        return failure == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
               WEXITSTATUS(status) == 0;
    }
};

struct Past {
    std::string epoch;
    std::int64_t revision = 0;
};

// Answers how many changes there were since, all numbered one after the other.
std::int64_t expectNoGap(okv::RemoteObject& root, Past& past) {
    const auto answer = okv::send<&Admin::changesPT>(root, past.revision).as<okv::Dictionary>();
    const auto& changes = answer["changes"].as<Array>();
    for (const auto& change : changes)
        EXPECT_EQ(change.as<okv::Dictionary>()["revision"], Value(++past.revision));
    EXPECT_EQ(status(root)["revision"], Value(past.revision));
    const auto epoch = answer["epoch"].as<std::string>();
    if (!past.epoch.empty()) {
        EXPECT_EQ(epoch, past.epoch);
    }
    past.epoch = epoch;
    return static_cast<std::int64_t>(changes.size());
}

template <class Writers>
long sumOf(const Writers& writers, long (Writer::*number)() const) {
    long sum = 0;
    for (const auto* writer : writers) sum += (writer->*number)();
    return sum;
}

// Everybody writes; the server is killed once so many writes more were acknowledged.
void killWhileWriting(ServerProcess& server, const std::vector<Writer*>& writers, int round) {
    std::vector<std::thread> threads;
    std::atomic<int> begun{0};
    for (auto* writer : writers) {
        threads.emplace_back([&begun, writer] {
            writer->writeNext();
            ++begun;
            writer->write();
        });
    }
    while (begun < static_cast<int>(writers.size())) std::this_thread::yield();
    // At another moment of the commit in every round.
    std::this_thread::sleep_for(
        std::chrono::microseconds(round * 397 * kSlowness % (20000 * kSlowness)));
    server.signal(SIGKILL);
    for (auto& thread : threads) thread.join();
    server.wait();
}

}  // namespace

TEST(WhatWasAcknowledged, IsThereAfterEveryOfAHundredKillsAndNoRevisionIsMissing) {
    ServerProcess server;
    SendingWriter senders[]{SendingWriter("a"), SendingWriter("b"), SendingWriter("c"),
                            SendingWriter("d")};
    ToolWriter tool("tool");
    const std::vector<Writer*> writers{&senders[0], &senders[1], &senders[2], &senders[3], &tool};
    Past past;
    for (int round = 0; round < rounds(100); ++round) {
        ASSERT_TRUE(server.start());
        for (auto& sender : senders) sender.connectAgain();
        const auto tried = sumOf(writers, &Writer::tried);
        const auto acknowledged = sumOf(writers, &Writer::acknowledged);
        killWhileWriting(server, writers, round);
        ASSERT_TRUE(server.start());
        const auto root = connect();
        for (const auto* writer : writers) writer->expectKept(*root);
        const auto changes = expectNoGap(*root, past);
        EXPECT_GE(changes, sumOf(writers, &Writer::acknowledged) - acknowledged);
        EXPECT_LE(changes, sumOf(writers, &Writer::tried) - tried);
        server.signal(SIGKILL);
        server.wait();
        ASSERT_FALSE(HasFailure()) << "round " << round;
    }
    EXPECT_GE(tool.acknowledged(), rounds(100) / 2);
    RecordProperty("acknowledged", std::to_string(sumOf(writers, &Writer::acknowledged)));
}
