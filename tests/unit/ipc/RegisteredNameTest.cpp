#include "support/ForkedChild.h"
#include "support/Processes.h"

#include <OKVPlatform/ipc/RegisteredName.h>

#include <OKVTesting/RuntimeFolder.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include <sys/stat.h>
#include <unistd.h>

using okv::connectToName;
using okv::PublishedName;
using okv::testing::RuntimeFolder;

namespace fs = std::filesystem;

namespace {

constexpr char kName[] = "jp.nrm.test.name";
constexpr uid_t kAccount = 23401;
constexpr uid_t kOtherAccount = 23402;

/// A process that holds a name until it is ended; `atHome` runs in it once it has published.
class PublisherProcess : public support::Child {
public:
    explicit PublisherProcess(uid_t uid, const std::function<void()>& atHome = {})
        : Child([&](const auto& ready) { publish(uid, ready, atHome); }) {}

    bool hasPublished() const { return isReady(); }

private:
    static void publish(uid_t uid, const std::function<void()>& ready,
                        const std::function<void()>& atHome) {
        std::string why;
        const bool isUser = uid == geteuid() || setresuid(uid, uid, uid) == 0;
        const auto name = isUser ? PublishedName::publish(kName, {}, why) : nullptr;
        if (!name) return;
        if (atHome) atHome();
        ready();
        for (;;) pause();
    }
};

class RegisteredNameTest : public testing::Test {
protected:
    std::unique_ptr<PublishedName> publish(std::string_view name = kName,
                                           const PublishedName::Options& options = {}) {
        why_.clear();
        return PublishedName::publish(name, options, why_);
    }
    fs::path socketPath() const { return folder_.path() / kName; }
    fs::path lockPath() const { return folder_.path() / (std::string(kName) + ".lock"); }
    /// There is no folder, no socket, or nobody who listens.
    static bool isAbsent(const okv::ConnectedSocket& reached) {
        return reached.error == ENOENT || reached.error == ECONNREFUSED;
    }
    static bool isReachable(std::string_view name = kName) {
        return connectToName(name).socket.isValid();
    }
    bool mentions(std::string_view text) const { return why_.find(text) != std::string::npos; }

    RuntimeFolder folder_;
    std::string why_;
};

class RegisteredNameAsRoot : public RegisteredNameTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "only root can change accounts";
    }
    /// Whether a child of that account reaches the name.
    static bool isReachableFor(uid_t uid) {
        return support::succeedsInAChild(
            [uid] { return setresuid(uid, uid, uid) == 0 && isReachable(); });
    }
    void giveFolderTo(uid_t uid) {
        fs::remove(lockPath());  // root's
        ASSERT_EQ(chown(folder_.path().c_str(), uid, 0), 0);
    }
};

}  // namespace

TEST_F(RegisteredNameTest, APublishedNameIsReachableUntilItIsWithdrawn) {
    EXPECT_FALSE(isReachable());
    auto name = publish();
    ASSERT_TRUE(name) << why_;
    EXPECT_GE(name->listener(), 0);
    const auto connected = connectToName(kName);
    EXPECT_TRUE(connected.socket.isValid()) << connected.why;
    EXPECT_EQ(connected.peer.uid, geteuid());
    EXPECT_EQ(connected.peer.pid, getpid());
    name->withdraw();
    EXPECT_EQ(name->listener(), -1);
    EXPECT_FALSE(isReachable());
    EXPECT_FALSE(fs::exists(socketPath()));
    name->withdraw();
    EXPECT_TRUE(publish()) << why_;
}

TEST_F(RegisteredNameTest, DestroyingItWithdrawsIt) {
    publish();
    EXPECT_FALSE(fs::exists(socketPath()));
    EXPECT_TRUE(fs::exists(lockPath())) << "unlinking the lock would let two publishers in";
}

TEST_F(RegisteredNameTest, ATakenNameIsRefusedAndItsHolderKeepsIt) {
    const auto first = publish();
    EXPECT_FALSE(publish());
    EXPECT_EQ(why_, "the name is taken");
    EXPECT_TRUE(isReachable());
    EXPECT_TRUE(publish("jp.nrm.test.other"));
}

TEST_F(RegisteredNameTest, EveryAccountMayConnectWhateverTheMaskOfNewFiles) {
    const auto before = umask(0777);
    const auto name = publish();
    umask(before);
    ASSERT_TRUE(name) << why_;
    struct stat status {};
    ASSERT_EQ(stat(socketPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0666U);
    EXPECT_TRUE(isReachable());
}

TEST_F(RegisteredNameTest, ThereIsNoLimitOnTheLengthOfTheFoldersPath) {
    auto deep = folder_.path();
    for (int i = 0; i < 6; ++i) deep /= std::string(50, static_cast<char>('a' + i));
    fs::create_directories(deep);
    setenv("OKV_RUNTIME_DIR", deep.c_str(), 1);
    const auto name = publish();
    ASSERT_TRUE(name) << why_;
    EXPECT_TRUE(isReachable());
    EXPECT_GT((deep / kName).string().size(), 300U);
    EXPECT_TRUE(fs::exists(deep / kName));
}

class NameText : public testing::TestWithParam<std::pair<std::string, bool>> {};

TEST_P(NameText, IsHeldToTheRule) {
    const RuntimeFolder folder;
    const auto& [text, isName] = GetParam();
    std::string why;
    EXPECT_EQ(okv::isRegisteredName(text), isName);
    const auto published = PublishedName::publish(text, {}, why);
    EXPECT_EQ(published != nullptr, isName) << why;
    EXPECT_EQ(connectToName(text).socket.isValid(), isName);
}

INSTANTIATE_TEST_SUITE_P(Names, NameText,
                         testing::Values(std::pair("a", true), std::pair("", false),
                                         std::pair(std::string(80, 'n'), true),
                                         std::pair(std::string(81, 'n'), false),
                                         std::pair("A-Z_a-z.0-9", true), std::pair(".a", false),
                                         std::pair("..", false), std::pair("a..b", true),
                                         std::pair("a/b", false), std::pair("../a", false),
                                         std::pair("/a", false), std::pair("a b", false),
                                         std::pair(std::string("a\0b", 3), false),
                                         std::pair("n\xC3\xA4", false), std::pair("a\n", false)));

TEST_F(RegisteredNameTest, ALinkInTheLocksPlaceIsNotFollowed) {
    const auto target = folder_.path() / "target";
    fs::create_symlink(target, lockPath());
    EXPECT_FALSE(publish());
    EXPECT_TRUE(mentions("lock file")) << why_;
    EXPECT_FALSE(fs::exists(target));
    EXPECT_FALSE(fs::exists(fs::symlink_status(socketPath())));
}

TEST_F(RegisteredNameTest, ALinkInTheSocketsPlaceIsReplacedAndItsTargetLeftAlone) {
    const auto target = folder_.path() / "target";
    std::ofstream(target) << "kept";
    fs::create_symlink(target, socketPath());
    const auto name = publish();
    ASSERT_TRUE(name) << why_;
    EXPECT_TRUE(fs::is_socket(fs::symlink_status(socketPath())));
    EXPECT_TRUE(fs::is_regular_file(target));
    EXPECT_EQ(fs::file_size(target), 4U);
}

TEST_F(RegisteredNameTest, AFolderInTheSocketsPlaceIsRefusedAndNothingStaysBehind) {
    fs::create_directory(socketPath());
    EXPECT_FALSE(publish());
    EXPECT_TRUE(mentions(kName)) << why_;
    fs::remove(socketPath());
    fs::remove(lockPath());
    EXPECT_TRUE(fs::is_empty(folder_.path()));
}

TEST_F(RegisteredNameTest, AStaleSocketIsReplaced) {
    {
        PublisherProcess killed(geteuid());
        ASSERT_TRUE(killed.hasPublished());
    }
    ASSERT_TRUE(fs::exists(socketPath()));
    EXPECT_FALSE(isReachable());
    EXPECT_TRUE(publish()) << why_;
}

TEST_F(RegisteredNameTest, AFolderThatOthersMayWriteIsRefused) {
    for (const auto mode : {0777, 0775, 01777}) {
        fs::permissions(folder_.path(), fs::perms(mode));
        EXPECT_FALSE(publish());
        EXPECT_TRUE(mentions("others may write it")) << why_;
    }
    fs::permissions(folder_.path(), fs::perms(0755));
    EXPECT_TRUE(publish()) << why_;
}

TEST_F(RegisteredNameTest, NamesOfSingleProcessesLiveInAStickyFolderWithoutALock) {
    const PublishedName::Options options{.subfolder = "apps"};
    EXPECT_FALSE(publish(kName, options)) << "there is no such folder";
    fs::create_directory(folder_.path() / "apps");
    fs::permissions(folder_.path() / "apps", fs::perms(0777));
    EXPECT_FALSE(publish(kName, options)) << "not sticky";
    fs::permissions(folder_.path() / "apps", fs::perms(01777));
    const auto name = publish(kName, options);
    ASSERT_TRUE(name) << why_;
    EXPECT_FALSE(fs::exists(folder_.path() / "apps" / (std::string(kName) + ".lock")));
    EXPECT_TRUE(connectToName(kName, "apps").socket.isValid());
    EXPECT_FALSE(isReachable());
}

TEST_F(RegisteredNameTest, WithoutAFolderThereIsNoNameAndAReason) {
    setenv("OKV_RUNTIME_DIR", (folder_.path() / "none").c_str(), 1);
    EXPECT_FALSE(publish());
    EXPECT_TRUE(mentions("runtime folder")) << why_;
    EXPECT_NE(connectToName(kName).why.find("runtime folder"), std::string::npos);
    EXPECT_TRUE(isAbsent(connectToName(kName)));
}

TEST_F(RegisteredNameTest, NobodyIsThereWithoutASocketOrOneThatListens) {
    EXPECT_TRUE(isAbsent(connectToName(kName)));
    auto name = publish();
    EXPECT_FALSE(isAbsent(connectToName(kName)));
    fs::create_hard_link(socketPath(), folder_.path() / "kept");
    name = nullptr;
    fs::rename(folder_.path() / "kept", socketPath());
    EXPECT_TRUE(isAbsent(connectToName(kName)));
}

TEST_F(RegisteredNameTest, AnEmptyOverrideMeansTheBuiltInFolder) {
    setenv("OKV_RUNTIME_DIR", "", 1);
    const auto builtIn = okv::runtimeDirectory();
    unsetenv("OKV_RUNTIME_DIR");
    EXPECT_EQ(okv::runtimeDirectory(), builtIn);
    EXPECT_NE(builtIn, "");
}

TEST_F(RegisteredNameTest, WithdrawingLeavesAFileAloneThatIsNoLongerOurs) {
    const auto name = publish();
    fs::remove(socketPath());
    std::ofstream(socketPath()) << "another's";
    name->withdraw();
    EXPECT_TRUE(fs::is_regular_file(socketPath()));
}

TEST_F(RegisteredNameTest, AForkedChildHoldsNothingAndWithdrawsNothing) {
    auto name = publish();
    EXPECT_TRUE(support::succeedsInAChild([&] {
        EXPECT_EQ(name->listener(), -1);
        name = nullptr;
        std::string why;
        EXPECT_FALSE(PublishedName::publish(kName, {}, why));
        EXPECT_EQ(why, "the name is taken");
    }));
    EXPECT_TRUE(isReachable());
}

TEST_F(RegisteredNameTest, AKilledPublishersNameIsFreeThoughItsForkedChildLivesOn) {
    int pids[2], life[2];
    ASSERT_EQ(pipe(pids) | pipe(life), 0);
    PublisherProcess publisher(geteuid(), [&] {
        if (fork() != 0) return;
        close(life[1]);
        // Told by itself: only once it runs has the fork closed what it inherited.
        const pid_t grandchild = getpid();
        if (write(pids[1], &grandchild, sizeof grandchild) < 0) _exit(1);
        char none = 0;
        (void)!read(life[0], &none, 1);  // ends with this test, however that does
        _exit(0);
    });
    pid_t grandchild = -1;
    ASSERT_EQ(read(pids[0], &grandchild, sizeof grandchild), ssize_t{sizeof grandchild});
    ASSERT_TRUE(publisher.hasPublished());
    EXPECT_FALSE(publish()) << "held as long as the publisher lives";
    publisher.end();
    EXPECT_FALSE(isReachable()) << "the child does not listen";
    const auto anew = publish();
    EXPECT_TRUE(anew) << why_;
    EXPECT_EQ(kill(grandchild, 0), 0) << "it lived on all the time";
    for (const int end : {pids[0], pids[1], life[0], life[1]}) close(end);
}

TEST_F(RegisteredNameTest, AFullBacklogCountsAsNoServer) {
    const auto name = publish(kName, {.backlog = 0});
    std::vector<okv::ConnectedSocket> held;
    while (held.size() < 100 && (held.empty() || held.back().socket.isValid()))
        held.push_back(connectToName(kName));
    EXPECT_FALSE(held.back().socket.isValid()) << "and did not wait";
    EXPECT_FALSE(held.back().refusedPeer);
    EXPECT_FALSE(isAbsent(held.back())) << "though somebody is there";
}

TEST_F(RegisteredNameAsRoot, AFolderOfAForeignOwnerIsRefused) {
    giveFolderTo(kAccount);
    EXPECT_FALSE(publish());
    EXPECT_TRUE(mentions("owned by uid 23401")) << why_;
    EXPECT_FALSE(PublisherProcess(kOtherAccount).hasPublished());
    EXPECT_TRUE(PublisherProcess(kAccount).hasPublished()) << "its own";
}

TEST_F(RegisteredNameAsRoot, AServerIsTrustedWhenItIsRootOrTheClientsOwnAccount) {
    {
        const auto name = publish();
        EXPECT_TRUE(isReachableFor(kAccount));
    }
    giveFolderTo(kAccount);
    const PublisherProcess publisher(kAccount);
    ASSERT_TRUE(publisher.hasPublished());
    EXPECT_TRUE(isReachableFor(kAccount));
    EXPECT_FALSE(isReachableFor(kOtherAccount));
    const auto refused = connectToName(kName);
    EXPECT_FALSE(refused.socket.isValid());
    EXPECT_TRUE(refused.refusedPeer);
    EXPECT_FALSE(isAbsent(refused));
    EXPECT_EQ(refused.why, "served by uid 23401, which is not trusted");
}

TEST_F(RegisteredNameAsRoot, AServerOfTheOverflowAccountIsTrustedByNobody) {
    giveFolderTo(okv::kOverflowUid);
    const PublisherProcess publisher(okv::kOverflowUid);
    ASSERT_TRUE(publisher.hasPublished());
    EXPECT_TRUE(connectToName(kName).refusedPeer);
    EXPECT_FALSE(isReachableFor(kAccount));
    EXPECT_FALSE(isReachableFor(okv::kOverflowUid)) << "not even by the same number";
}

TEST_F(RegisteredNameAsRoot, ALockFileOfAnotherAccountIsLeftAloneAndItsOwnerTold) {
    publish();  // and withdrawn again; the lock file stays, and is root's
    ASSERT_EQ(chown(folder_.path().c_str(), kAccount, 0), 0);
    EXPECT_TRUE(support::succeedsInAChild([this] {
        ASSERT_EQ(setresuid(kAccount, kAccount, kAccount), 0);
        EXPECT_FALSE(publish());
        EXPECT_TRUE(mentions("Permission denied (it belongs to uid 0)"));
    }));
    EXPECT_TRUE(fs::exists(lockPath()));
    giveFolderTo(kAccount);
    EXPECT_TRUE(PublisherProcess(kAccount).hasPublished()) << "without it";
}
