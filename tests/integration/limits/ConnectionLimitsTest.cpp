#include "../faults/Support.h"
#include "Limits.h"

#include "support/Patience.h"
#include "support/RawRequests.h"

#include <OKVPlatform/ipc/RegisteredName.h>

#include <gtest/gtest.h>

#include <grp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <list>
#include <vector>

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

bool becomes(const std::function<bool()>& condition) {
    support::Patience patience(std::chrono::seconds(20));
    while (!condition()) {
        if (!patience.isLeft()) return false;
    }
    return true;
}

/// What became of a client that does not greet.
enum class Fate { waits, wasDropped, ranOutOfTime };

// Only who runs out of time is told why it is dropped.
Fate fateOf(const okv::ConnectedSocket& client) {
    char byte = 0;
    const auto count = recv(client.socket.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    if (count < 0 && errno == EAGAIN) return Fate::waits;
    return count > 0 ? Fate::ranOutOfTime : Fate::wasDropped;
}

std::vector<Fate> fatesOf(const std::list<okv::ConnectedSocket>& clients) {
    std::vector<Fate> fates;
    for (const auto& client : clients) fates.push_back(fateOf(client));
    return fates;
}

bool isAnyOutOfTime(const std::list<okv::ConnectedSocket>& clients) {
    const auto fates = fatesOf(clients);
    return std::count(fates.begin(), fates.end(), Fate::ranOutOfTime) > 0;
}

class SilentConnections : public ConnectionLimits {
protected:
    /// The longest silent first; nothing when a time was over before all was seen, as it is on a
    /// machine that is slow just now.
    std::vector<Fate> fatesOfOneMoreThanAllowed() {
        const auto allowed = static_cast<std::int64_t>(kLimits.ungreeted);
        EXPECT_TRUE(becomes([this] { return taken("ungreeted") == 0; })) << "of the last try";
        std::list<okv::ConnectedSocket> silent;
        const auto comes = [&] { silent.push_back(okv::connectToName(kOKVDataServerName)); };
        for (auto i = allowed; i > 0; --i) comes();
        EXPECT_TRUE(
            becomes([&] { return taken("ungreeted") == allowed || isAnyOutOfTime(silent); }));
        EXPECT_NE(fateOf(silent.front()), Fate::wasDropped) << "although there are not too many";
        comes();
        EXPECT_TRUE(becomes([&] { return fateOf(silent.front()) != Fate::waits; }));
        const auto left = taken("ungreeted");
        if (isAnyOutOfTime(silent)) return {};
        EXPECT_EQ(left, allowed);
        return fatesOf(silent);
    }
};

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

TEST_F(SilentConnections, AreThirtyTwoAndTheOldestGoesFirst) {
    ASSERT_TRUE(server_.start());
    std::vector<Fate> fates;
    for (int tries = 0; fates.empty() && tries < 10; ++tries) fates = fatesOfOneMoreThanAllowed();
    ASSERT_FALSE(fates.empty()) << "at every try somebody's time was over";
    EXPECT_EQ(fates.front(), Fate::wasDropped);
    EXPECT_EQ(std::count(fates.begin(), fates.end(), Fate::waits), kLimits.ungreeted);
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
