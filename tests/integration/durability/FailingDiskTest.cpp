#include "Support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

using namespace durability;
using faults::connect;
using faults::get;
using faults::set;
using okv::Value;
using testing::HasSubstr;

namespace {

/// A small disk of the test's own, in a mount namespace that nobody else sees.
class SmallDisk {
public:
    explicit SmallDisk(std::string folder) : folder_(std::move(folder)) {
        std::filesystem::create_directory(folder_);
        isThere_ = unshare(CLONE_NEWNS) == 0 &&
                   mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=16m,mode=0755") == 0;
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    ~SmallDisk() {
        if (isThere_) umount2(folder_.c_str(), MNT_DETACH);
    }

    bool isThere() const { return isThere_; }
    std::string store() const { return folder_ + "/store.db"; }
    /// Leaves no byte of room.
    void fill() const {
        std::ofstream ballast(folder_ + "/ballast", std::ios::binary);
        while (ballast << std::string(4096, 'b') << std::flush) {
        }
    }
    void makeRoom() const { std::filesystem::remove(folder_ + "/ballast"); }
    bool remount(unsigned long flags) const {
        return mount("none", folder_.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0;
    }

private:
    const std::string folder_;
    bool isThere_ = false;
};

#define SKIP_WITHOUT(disk) \
    if (!(disk).isThere()) GTEST_SKIP() << "no disk of one's own is permitted here"

// Writes ever more until one write is refused; answers the number of the last that was not.
int writeUntilRefused(okv::RemoteObject& root) {
    for (int i = 0; i < 4000; ++i) {
        if (!set(root, "dc-key-" + std::to_string(i), std::string(4000, 'v'))) return i - 1;
    }
    return 4000;
}

void expectKept(okv::RemoteObject& root, int last) {
    for (int i = 0; i <= last; ++i)
        ASSERT_EQ(get(root, "dc-key-" + std::to_string(i)), Value(std::string(4000, 'v'))) << i;
}

/// No file of that name may be written, whatever the rights.
class Immutable {
public:
    explicit Immutable(const std::string& file) : file_(open(file.c_str(), O_RDONLY | O_CLOEXEC)) {
        isSo_ = change(FS_IMMUTABLE_FL);
    }
    Immutable(const Immutable&) = delete;
    Immutable& operator=(const Immutable&) = delete;
    ~Immutable() {
        change(0);
        close(file_);
    }
    bool isSo() const { return isSo_; }

private:
    bool change(int wanted) const {
        int flags = 0;
        if (ioctl(file_, FS_IOC_GETFLAGS, &flags) != 0) return false;
        flags = (flags & ~FS_IMMUTABLE_FL) | wanted;
        return ioctl(file_, FS_IOC_SETFLAGS, &flags) == 0;
    }

    const int file_;
    bool isSo_ = false;
};

}  // namespace

TEST(AFullDisk, RefusesWritesWithTheReasonServesReadsAndTakesWritesAgainOnceThereIsRoom) {
    ServerProcess server;
    const SmallDisk disk(server.file("disk"));
    SKIP_WITHOUT(disk);
    ASSERT_TRUE(server.start({"--store", disk.store(), "--backup-interval", "0"}));
    const auto root = connect();
    ASSERT_TRUE(set(*root, "dc-key-0", std::string(4000, 'v')));
    disk.fill();
    const int last = writeUntilRefused(*root);
    ASSERT_LT(last, 4000);
    expectKept(*root, last);
    const auto ran = runTool(server, {"set", "dc-key-x=" + std::string(4000, 'x')});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("database or disk is full"));
    EXPECT_THAT(ran.error, HasSubstr("make room on the data server's disk"));
    EXPECT_EQ(runTool(server, {"get", "--user", "1", "dc-key-0"}).code, 0);
    disk.makeRoom();
    EXPECT_TRUE(set(*root, "dc-key-after", 1));
    EXPECT_EQ(runTool(server, {"set", "dc-key-x=1"}).code, 0);
    expectKept(*root, last);
}

TEST(AFullDisk, LosesNothingThatWasAcknowledgedWhenTheServerIsKilledOnIt) {
    ServerProcess server;
    const SmallDisk disk(server.file("disk"));
    SKIP_WITHOUT(disk);
    const std::vector<std::string> words{"--store", disk.store(), "--backup-interval", "0"};
    ASSERT_TRUE(server.start(words));
    ASSERT_TRUE(set(*connect(), "dc-key-0", std::string(4000, 'v')));
    const int last = writeUntilRefused(*connect());
    disk.fill();
    server.signal(SIGKILL);
    server.wait();
    // Whether it starts without any room is the engine's to say.
    if (server.start(words)) {
        expectKept(*connect(), last);
        server.signal(SIGKILL);
    }
    server.wait();
    disk.makeRoom();
    ASSERT_TRUE(server.start(words));
    const auto root = connect();
    expectKept(*root, last);
    EXPECT_FALSE(get(*root, "dc-key-" + std::to_string(last + 1)).is<std::string>());
}

TEST(AFullDisk, FailsTheBackupWithTheReasonLeavesNoDebrisAndIsTriedAgain) {
    ServerProcess server;
    const SmallDisk disk(server.file("disk"));
    SKIP_WITHOUT(disk);
    ASSERT_TRUE(server.start({"--store", disk.store(), "--backup-interval", "0"}));
    for (int i = 0; i < 300; ++i)
        ASSERT_TRUE(set(*connect(), "dc-key-" + std::to_string(i), std::string(4000, 'v')));
    server.signal(SIGTERM);
    server.wait();
    disk.fill();
    std::filesystem::resize_file(server.file("disk/ballast"),
                                 std::filesystem::file_size(server.file("disk/ballast")) - 600000);
    ASSERT_TRUE(server.start({"--store", disk.store(), "--backup-interval", "1"}));
    const auto root = connect();
    ASSERT_TRUE(eventually([&] { return backupState(*root).contains("failure"); }));
    EXPECT_THAT(backupState(*root)["failure"].as<std::string>(), HasSubstr("disk is full"));
    EXPECT_EQ(backupState(*root)["kept"], Value(0));
    EXPECT_TRUE(eventually([&] { return filesOf(disk.store() + ".backups").empty(); }));
    EXPECT_TRUE(set(*root, "dc-key-small", 1)) << "the backup gave its room back";
    expectKept(*root, 299);
    disk.makeRoom();
    ASSERT_TRUE(awaitBackups(*root, 1));
    EXPECT_FALSE(backupState(*root).contains("failure"));
}

TEST(AFullDisk, KeepsARestoreFromBeginning) {
    ServerProcess server;
    const SmallDisk disk(server.file("disk"));
    SKIP_WITHOUT(disk);
    ASSERT_TRUE(server.start({"--store", disk.store()}));
    ASSERT_TRUE(awaitBackups(*connect(), 1));
    ASSERT_TRUE(set(*connect(), "k", "later than the backup"));
    server.signal(SIGTERM);
    server.wait();
    disk.fill();
    const auto before = contentOf(server.file("disk"));
    const auto ran = runServer(server, {"--store", disk.store(), "--restore"});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.error, HasSubstr("No space left on device"));
    EXPECT_EQ(contentOf(server.file("disk")), before);
    disk.makeRoom();
    ASSERT_TRUE(server.start({"--store", disk.store()}));
    EXPECT_EQ(get(*connect(), "k"), Value("later than the backup"));
}

TEST(AReadOnlyDisk, KeepsTheServerFromStartingWithTheReason) {
    ServerProcess server;
    const SmallDisk disk(server.file("disk"));
    SKIP_WITHOUT(disk);
    ASSERT_TRUE(server.start({"--store", disk.store()}));
    ASSERT_TRUE(set(*connect(), "k", 1));
    server.signal(SIGTERM);
    server.wait();
    const auto before = contentOf(server.file("disk"));
    ASSERT_TRUE(disk.remount(MS_RDONLY));
    for (const char* how : {"--foreground", "--begin-afresh", "--restore"}) {
        const auto ran = runServer(server, {"--store", disk.store(), how});
        EXPECT_EQ(ran.code, 1) << how;
        EXPECT_THAT(ran.error, HasSubstr("Read-only file system")) << how;
        EXPECT_EQ(contentOf(server.file("disk")), before) << how;
    }
    ASSERT_TRUE(disk.remount(0));
    ASSERT_TRUE(server.start({"--store", disk.store()}));
    EXPECT_EQ(get(*connect(), "k"), Value(1));
}

// The system makes no disk read-only that a process writes to, but a disk that breaks becomes so.
TEST(ADiskThatFailsUnderARunningServer, RefusesWritesWithTheReasonUntilItWorksAgain) {
    for (const int error : {EROFS, EIO, EACCES, EPERM, EDQUOT, ENOSPC}) {
        const std::string reason = error == ENOSPC ? "disk is full" : std::strerror(error);
        ServerProcess server;
        const BreakableDisk disk(server);
        ASSERT_TRUE(server.start({"--backup-interval", "1"}));
        const auto root = connect();
        ASSERT_TRUE(set(*root, "k", "before"));
        ASSERT_TRUE(awaitBackups(*root, 1));
        disk.fail(error);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(set(*root, "k", "meanwhile"));
            EXPECT_EQ(get(*root, "k"), Value("before"));
        }
        const auto ran = runTool(server, {"set", "k=meanwhile"});
        EXPECT_EQ(ran.code, 1) << ran.error;
        EXPECT_THAT(ran.error, HasSubstr("refused: "));
        EXPECT_THAT(ran.error, HasSubstr(reason));
        EXPECT_EQ(std::count(ran.error.begin(), ran.error.end(), '\n'), 1) << ran.error;
        const bool isRoom = error == EDQUOT || error == ENOSPC;
        EXPECT_EQ(ran.error.find("make room") != std::string::npos, isRoom) << ran.error;
        EXPECT_TRUE(eventually([&] { return backupState(*root).contains("failure"); }));
        EXPECT_THAT(backupState(*root)["failure"].as<std::string>(), HasSubstr(reason));
        disk.fail(0);
        EXPECT_TRUE(set(*root, "l", "after")) << reason;
        server.signal(SIGKILL);
        server.wait();
        ASSERT_TRUE(server.start()) << reason;
        EXPECT_EQ(get(*connect(), "k"), Value("before"));
        EXPECT_EQ(get(*connect(), "l"), Value("after"));
    }
}

TEST(AStoreThatMayNotBeWrittenAnyMore, RefusesWritesWithTheReasonUntilItMay) {
    ServerProcess server;
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));
    const auto root = connect();
    ASSERT_TRUE(set(*root, "k", "before"));
    {
        const Immutable log(server.storeFile() + "-wal");
        if (!log.isSo()) GTEST_SKIP() << "no file can be made immutable here";
        EXPECT_FALSE(set(*root, "k", "meanwhile"));
        EXPECT_EQ(get(*root, "k"), Value("before"));
        const auto ran = runTool(server, {"set", "k=meanwhile"});
        EXPECT_EQ(ran.code, 1);
        EXPECT_THAT(ran.error, HasSubstr("Operation not permitted"));
    }
    EXPECT_TRUE(set(*root, "l", "after"));
    server.signal(SIGKILL);
    server.wait();
    ASSERT_TRUE(server.start());
    EXPECT_EQ(get(*connect(), "k"), Value("before"));
    EXPECT_EQ(get(*connect(), "l"), Value("after"));
}

TEST(AStoreThatIsClosedToTheServersAccount, KeepsItFromStartingWithTheReason) {
    if (geteuid() != 0) GTEST_SKIP() << "only root has another account at hand";
    constexpr uid_t kOwner = 12345;
    ServerProcess server;
    ASSERT_TRUE(server.start({"--backup-interval", "0"}));
    ASSERT_TRUE(set(*connect(), "k", 1));
    server.signal(SIGTERM);
    server.wait();
    const auto before = bytesOf(server.storeFile());
    ASSERT_EQ(chmod(server.file("").c_str(), 0777), 0);
    const auto refused = [&] {
        return faults::asAccount(kOwner, [&] {
            const auto ran = runServer(server, {});
            return ran.code == 1 && ran.error.find("Permission denied") != std::string::npos ? 0
                                                                                             : 1;
        });
    };
    EXPECT_EQ(refused(), 0) << "neither the store nor its guard is the account's";
    ASSERT_EQ(chown((server.storeFile() + ".guard").c_str(), kOwner, kOwner), 0);
    EXPECT_EQ(refused(), 0) << "the store is not";
    EXPECT_EQ(bytesOf(server.storeFile()), before);
}
