#include "Support.h"

#include "support/ForkedChild.h"

#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVTesting/RuntimeFolder.h>
#include <OKVTesting/ServiceThread.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>
#include <utility>
#include <vector>

using namespace faults;
using okv::ConnectionError;
using okv::PublishedName;
using okv::Value;

namespace {

constexpr char kName[] = "jp.nrm.test.forking";

/// A pipe that a child holds open until it ends, or until it is told to go on.
struct Pipe {
    Pipe() {
        if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    }
    ~Pipe() {
        for (const int end : ends) close(end);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void tell() const { (void)!write(ends[1], "x", 1); }
    bool await() const {
        char byte = 0;
        return read(ends[0], &byte, 1) == 1;
    }
    /// For a child that is to go on, too, when nobody is left who could tell it.
    void onlyAwait() { close(std::exchange(ends[1], -1)); }
    int ends[2];
};

}  // namespace

TEST(AForkedChild, OfAProcessWhoseThreadsAreCallingDisturbsNoneOfThem) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto held = connection();
    const auto root = held->rootProxy();
    std::atomic<bool> stop{false};
    std::atomic<long> answered{0}, wrong{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            const auto key = "k" + std::to_string(thread);
            set(*root, key, thread);
            while (!stop) {
                wrong += get(*root, key) != Value(thread);
                ++answered;
            }
        });
    }
    for (int i = 0; i < rounds(50); ++i) {
        const auto before = answered.load();
        EXPECT_TRUE(support::succeedsInAChild([&] { return !held->isValid(); }));
        while (answered < before + 20) std::this_thread::yield();
    }
    stop = true;
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(held->isValid());
}

TEST(AForkedChild, HasInvalidOnesAndTheParentsPublicationAndConnectionWorkOn) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    const auto held = connection();
    const auto root = held->rootProxy();
    std::string why;
    auto mine = okv::Publication::publish(kName, {}, {}, why);
    ASSERT_TRUE(mine) << why;
    EXPECT_TRUE(support::succeedsInAChild([&] {
        EXPECT_FALSE(held->isValid());
        EXPECT_FALSE(mine->isValid());
        EXPECT_EQ(failureOf([&] { get(*root, "k"); }), ConnectionError::Kind::notSent);
        held->invalidate();
        mine->invalidate();
        mine = nullptr;
    }));
    EXPECT_TRUE(set(*root, "k", 1));
    EXPECT_TRUE(mine->isValid());
    EXPECT_EQ(okv::connectToName(kName).peer.pid, getpid());
}

TEST(AForkedChild, ThatLivesOnDoesNotKeepTheNameOfItsKilledParent) {
    const okv::testing::RuntimeFolder folder;
    const Pipe published;
    Pipe over;
    const auto publisher = support::startChild([&] {
        std::string why;
        const auto name = PublishedName::publish(kName, {}, why);
        if (name && fork() == 0) {
            over.onlyAwait();
            published.tell();
            over.await();
            _exit(0);
        }
        pause();
    });
    ASSERT_TRUE(published.await());
    std::string why;
    EXPECT_FALSE(PublishedName::publish(kName, {}, why));
    EXPECT_EQ(why, "the name is taken");
    kill(publisher, SIGKILL);
    waitpid(publisher, nullptr, 0);
    EXPECT_TRUE(PublishedName::publish(kName, {}, why)) << why;
    over.tell();
}
