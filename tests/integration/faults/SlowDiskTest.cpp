#include "Support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace faults;
using okv::Value;

TEST(AHangingDisk, DelaysNoReadOnlyTheWritesAndTheirAcknowledgements) {
    ServerProcess server;
    const HoldableDisk disk(server.file("gate"));
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));  // it flushes, too
    const auto root = connect();
    ASSERT_TRUE(set(*root, "k", "old"));
    Gate gate(server.file("gate"));
    std::atomic<bool> acknowledged{false};
    std::thread writer([&] {
        EXPECT_TRUE(set(*root, "k", "new"));
        acknowledged = true;
    });
    ASSERT_TRUE(gate.awaitArrival());
    const auto other = connect();
    for (int i = 0; i < 1000; ++i) {
        // What is not committed is not read, on the writer's connection neither.
        EXPECT_EQ(get(i % 2 == 0 ? *root : *other, "k"), Value("old"));
    }
    EXPECT_EQ(okv::send<&Data::defaultUserIdPT>(*connect()), 1) << "new clients are taken";
    EXPECT_FALSE(acknowledged);
    gate.letGo();
    writer.join();
    EXPECT_TRUE(acknowledged);
    EXPECT_EQ(get(*other, "k"), Value("new"));
}

TEST(AHangingDisk, LetsWritesWaitInOrderAndTellsHowManyDo) {
    ServerProcess server;
    const HoldableDisk disk(server.file("gate"));
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));  // it flushes, too
    const auto root = connect();
    Gate gate(server.file("gate"));
    std::thread first([&] { EXPECT_TRUE(set(*root, "k", 0)); });
    ASSERT_TRUE(gate.awaitArrival());
    for (int i = 1; i <= 10; ++i) okv::post<&Data::setOKVDataPT_value_appUid>(*root, "k", i, 1);
    while (status(*root)["waiting"] != Value(10)) std::this_thread::yield();
    gate.letGo();
    first.join();
    EXPECT_TRUE(set(*root, "after", 1));
    EXPECT_EQ(get(*root, "k"), Value(10));
    EXPECT_EQ(status(*root)["revision"], Value(12));
}
