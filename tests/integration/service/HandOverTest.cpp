#include "Support.h"

#include <OKVPlatform/ipc/RegisteredName.h>

#include <sys/stat.h>

#include <csignal>
#include <future>

using namespace service;

namespace {

std::vector<std::string> argumentsOf(const ServerProcess& server) {
    return {"--store", server.storeFile(), "--runtime-dir", server.runtimeFolder()};
}

/// The one line of a server that does not start with what it is handed.
std::string complaint(const ServerProcess& server, const ServerProcess::HandOver& handOver) {
    std::string errors;
    EXPECT_EQ(ServerProcess::run(argumentsOf(server), errors, handOver), 1);
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    return errors;
}

bool mentions(const std::string& text, const char* what) {
    return text.find(what) != std::string::npos;
}

ino_t fileOf(const ServerProcess& server) {
    struct stat status {};
    EXPECT_EQ(stat((server.runtimeFolder() + "/" + kOKVDataServerName).c_str(), &status), 0);
    return status.st_ino;
}

}  // namespace

TEST(AHandedOverSocket, IsServedByOneServerAfterTheOtherAndKeepsWhoComesBetween) {
    ServerProcess server;
    const Listener listener(server, kOKVDataServerName);
    const auto file = fileOf(server);
    ASSERT_TRUE(server.startWithSocket(listener.get()));
    EXPECT_TRUE(set(*connect(), "k", "kept"));
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
    EXPECT_EQ(fileOf(server), file) << "the file is the service manager's";
    auto between = std::async(std::launch::async, [] { return get(*connect(), "k"); });
    ASSERT_TRUE(server.startWithSocket(listener.get()));
    EXPECT_EQ(between.get(), okv::Value("kept"));
    EXPECT_EQ(fileOf(server), file);
}

TEST(AHandedOverSocket, TellsItsClientsWhoServesThem) {
    ServerProcess server;
    const Listener listener(server, kOKVDataServerName);
    ASSERT_TRUE(server.startWithSocket(listener.get()));
    const auto connected = okv::connectToName(kOKVDataServerName);
    EXPECT_EQ(connected.peer.pid, server.pid()) << "not who made the socket";
}

TEST(AHandedOverSocket, GivesItsServerTheNamesLock) {
    ServerProcess server;
    const Listener listener(server, kOKVDataServerName);
    ASSERT_TRUE(server.startWithSocket(listener.get()));
    std::string errors;
    EXPECT_EQ(
        ServerProcess::run(
            {"--store", server.file("other.db"), "--runtime-dir", server.runtimeFolder()}, errors),
        1);
    EXPECT_TRUE(mentions(errors, "the name is taken")) << errors;
    EXPECT_TRUE(set(*connect(), "k", 1));
}

TEST(AHandedOverSocket, IsNotTakenWhileAnotherServerHasTheName) {
    ServerProcess byHand;
    ASSERT_TRUE(byHand.start());
    const auto path = byHand.runtimeFolder() + "/" + kOKVDataServerName;
    std::filesystem::rename(path, path + ".moved");  // as a service manager takes the place
    const Listener listener(byHand, kOKVDataServerName);
    std::string errors;
    EXPECT_EQ(ServerProcess::run(
                  {"--store", byHand.file("other.db"), "--runtime-dir", byHand.runtimeFolder()},
                  errors, {{listener.get()}}),
              1);
    EXPECT_TRUE(mentions(errors, "the name is taken")) << errors;
}

TEST(AHandedOverSocket, MustBeThatOfTheName) {
    ServerProcess server;
    const Listener other(server, "jp.nrm.okv6.other");
    EXPECT_TRUE(mentions(complaint(server, {{other.get()}}), kOKVDataServerName));
    const Listener right(server, kOKVDataServerName);
    EXPECT_TRUE(mentions(complaint(server, {{other.get()}}), "is not that of"));
    EXPECT_TRUE(mentions(complaint(server, {{right.get(), other.get()}}), "more than one"));
    ASSERT_TRUE(server.startWithSocket(right.get()));
}

TEST(AHandedOverSocket, MustBeAListeningOne) {
    ServerProcess server;
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    const int unbound = socket(AF_UNIX, SOCK_STREAM, 0);
    for (const int wrong : {pipeEnds[0], unbound})
        EXPECT_TRUE(mentions(complaint(server, {{wrong}}), "no listening socket"));
    for (const int descriptor : {pipeEnds[0], pipeEnds[1], unbound}) close(descriptor);
}

TEST(AHandedOverSocket, OfAnotherProcessIsLeftAloneAndTheNameIsPublished) {
    ServerProcess server;
    const Listener other(server, "jp.nrm.okv6.other");
    ASSERT_TRUE(server.startWith({{other.get()}, true}));
    EXPECT_TRUE(set(*connect(), "k", 1));
}
