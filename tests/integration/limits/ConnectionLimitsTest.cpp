#include "../faults/Support.h"
#include "Limits.h"

#include "support/RawRequests.h"

#include <OKVPlatform/ipc/RegisteredName.h>

#include <gtest/gtest.h>

#include <grp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <list>

// How many may be connected, and how much each may leave unread.

using namespace faults;
using okv::Dictionary;
using okv::Value;

namespace {

const datacenter::Limits kLimits;
constexpr uid_t kAccount = 23456;
constexpr uid_t kOther = 23457;

/// How many of the connections that were tried are served, and why the last one is not.
struct Held {
    int served = 0;
    char why[120] = {};
};

Held hold(std::list<okv::Ref<okv::RemoteObject>>& connections, int tries) {
    Held held;
    for (int i = 0; i < tries; ++i) {
        try {
            connections.push_back(connect());
            okv::send<&Data::defaultUserIdPT>(*connections.back());
            ++held.served;
        } catch (const std::exception& error) {
            std::strncpy(held.why, error.what(), sizeof held.why - 1);
        }
    }
    return held;
}

/// A process of an account that holds as many connections as it gets, as long as this lives.
class Holder {
public:
    Holder(uid_t uid, int tries) {
        int told[2];
        int end[2];
        if (pipe(told) != 0 || pipe(end) != 0) throw std::runtime_error("no pipe");
        pid_ = fork();
        if (pid_ == 0) {
            close(end[1]);
            beHolder(uid, tries, told[1], end[0]);
        }
        close(told[1]);
        close(end[0]);
        end_ = end[1];
        EXPECT_EQ(read(told[0], &held, sizeof held), ssize_t{sizeof held});
        close(told[0]);
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    ~Holder() {
        close(end_);
        waitpid(pid_, nullptr, 0);
    }
    Held held;

private:
    [[noreturn]] static void beHolder(uid_t uid, int tries, int told, int end) {
        if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) _exit(1);
        std::list<okv::Ref<okv::RemoteObject>> connections;
        const auto held = hold(connections, tries);
        if (write(told, &held, sizeof held) != ssize_t{sizeof held}) _exit(2);
        char none = 0;
        _exit(read(end, &none, 1) == 0 ? 0 : 3);
    }

    pid_t pid_ = -1;
    int end_ = -1;
};

class ConnectionLimits : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        if (limit.rlim_max < 2200) GTEST_SKIP() << "too few descriptors";
    }
    std::int64_t taken(const char* name) {
        if (!asking_) asking_ = connect();
        return status(*asking_)["use"].as<Dictionary>()[name].as<std::int64_t>();
    }
    ServerProcess server_;
    okv::Ref<okv::RemoteObject> asking_;
};

bool hasSomethingToRead(const okv::PrivateDescriptor& socket) {
    pollfd entry{socket.get(), POLLIN, 0};
    return poll(&entry, 1, 0) == 1;
}

}  // namespace

TEST_F(ConnectionLimits, AreAThousandInAllOfWhichRootAlwaysHasSixtyFour) {
    const auto all = static_cast<int>(kLimits.connections);
    const auto kept = static_cast<int>(kLimits.keptConnections);
    ASSERT_TRUE(server_.start({"--connections-per-uid", std::to_string(all)}));
    const Holder others(kAccount, all - kept + 1);
    EXPECT_EQ(others.held.served, all - kept);
    EXPECT_STREQ(others.held.why, "too many connections: 1024");
    EXPECT_EQ(Holder(kOther, 1).held.served, 0) << "nor for anybody else";
    std::list<okv::Ref<okv::RemoteObject>> roots;
    EXPECT_EQ(hold(roots, kept).served, kept);
    EXPECT_EQ(status(*roots.front())["use"].as<Dictionary>()["connections"], Value(all));
    std::list<okv::Ref<okv::RemoteObject>> beyond;
    const auto refused = hold(beyond, 1);
    EXPECT_EQ(refused.served, 0);
    EXPECT_STREQ(refused.why, "too many connections: 1024");
    const auto old = roots.back();
    roots.pop_back();
    static_cast<okv::Connection&>(old->port()).invalidate();
    int tries = 0;  // the next may come before the server has seen the end of the one that left
    while (hold(roots, 1).served == 0 && tries < 1000) ++tries;
    EXPECT_LT(tries, 1000) << "a place that is free is given away";
}

TEST_F(ConnectionLimits, OfOneAccountAreAHundredAndTwentyEight) {
    ASSERT_TRUE(server_.start());
    const auto limit = static_cast<int>(kLimits.connectionsPerUid);
    const Holder one(kAccount, limit + 1);
    EXPECT_EQ(one.held.served, limit);
    EXPECT_STREQ(one.held.why, "too many connections of uid 23456: 128");
    EXPECT_EQ(taken("connections_per_uid"), limit);
    EXPECT_EQ(Holder(kOther, limit).held.served, limit) << "another account has its own";
    std::list<okv::Ref<okv::RemoteObject>> roots;
    EXPECT_EQ(hold(roots, limit + 1).served, limit + 1) << "root is not counted";
}

TEST_F(ConnectionLimits, OfOneAccountAreAsManyAsTheServerIsTold) {
    ASSERT_TRUE(server_.start({"--connections-per-uid=3"}));
    const Holder one(kAccount, 4);
    EXPECT_EQ(one.held.served, 3);
    EXPECT_STREQ(one.held.why, "too many connections of uid 23456: 3");
}

TEST_F(ConnectionLimits, ThatKeepSilentAreThirtyTwoAndTheOldestGoesFirst) {
    ASSERT_TRUE(server_.start());
    taken("ungreeted");  // the connection that asks has greeted
    std::list<okv::ConnectedSocket> silent;
    const auto limit = static_cast<std::size_t>(kLimits.ungreeted);
    while (silent.size() < limit) silent.push_back(okv::connectToName(kOKVDataServerName));
    while (taken("ungreeted") < static_cast<std::int64_t>(limit)) {
    }
    for (const auto& one : silent) EXPECT_FALSE(hasSomethingToRead(one.socket));
    silent.push_back(okv::connectToName(kOKVDataServerName));
    pollfd oldest{silent.front().socket.get(), POLLIN, 0};
    EXPECT_EQ(poll(&oldest, 1, 1500), 1) << "before its time is over";
    EXPECT_EQ(taken("ungreeted"), static_cast<std::int64_t>(limit));
    silent.pop_front();
    for (const auto& one : silent) EXPECT_FALSE(hasSomethingToRead(one.socket));
}

TEST_F(ConnectionLimits, WhatAClientLeavesUnreadIsFourMebibytesAndOneReply) {
    constexpr std::int64_t kReply = 200 << 10;
    ASSERT_TRUE(server_.start());
    ASSERT_TRUE(set(*connect(), "large", std::string(kReply, 'x')));
    // 20 MB of replies, were they made.
    const auto requests =
        okv::encodeHello() + support::repeated(support::readingRequest("large"), 100);
    const auto client = okv::connectToName(kOKVDataServerName);
    ASSERT_EQ(send(client.socket.get(), requests.data(), requests.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(requests.size()));
    const auto limit = static_cast<std::int64_t>(kLimits.outputBytes);
    std::int64_t queued = 0;
    while (queued <= limit) queued = taken("output_bytes");
    for (int i = 0; i < 100; ++i) queued = std::max(queued, taken("output_bytes"));
    EXPECT_LE(queued, limit + kReply + 100);
    std::size_t answers = 0;
    okv::FrameBuffer bytes;
    while (answers < 100) {  // it goes on where it stood
        const auto room = bytes.room();
        const auto count = recv(client.socket.get(), room.data(), room.size(), 0);
        ASSERT_GT(count, 0);
        bytes.added(static_cast<std::size_t>(count));
        while (const auto frame = bytes.next()) answers += frame->kind == okv::FrameKind::reply;
    }
    EXPECT_EQ(taken("output_bytes"), 0);
}
