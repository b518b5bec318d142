#include "Support.h"

#include <csignal>

// How a client goes through a server's being stopped and started by the system.

namespace dmtest {
namespace {

using ServerEnding = RealServerTest;

}  // namespace

TEST_F(ServerEnding, BySignalLetsItsClientsConnectAgainByThemselves) {
    const auto manager = shared();
    ASSERT_TRUE(manager);
    ASSERT_TRUE(manager->setOKVData_value(kKey, "kept"));
    server_.signal(SIGTERM);
    EXPECT_EQ(server_.wait(), 0);
    ASSERT_TRUE(serveUntil([&] { return !manager->isConnect(); }));
    for (const auto& line : lines_.take()) EXPECT_NE(line, kDisconnectLine) << "nobody was told to";
    ASSERT_TRUE(server_.start());
    EXPECT_EQ(shared(), manager);
    EXPECT_EQ(manager->okvData(kKey), Value("kept"));
    EXPECT_EQ(okv::send<&Data::connectCount>(*support::connect()), 1) << "registered again";
}

}  // namespace dmtest
