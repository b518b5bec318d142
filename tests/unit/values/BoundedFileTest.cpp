#include "PropertyListCorpus.h"

#include "support/Files.h"
#include "support/Sockets.h"

#include <OKVPlatform/values/BoundedFile.h>
#include <OKVPlatform/values/PropertyListFile.h>
#include <OKVPlatform/values/StringsTable.h>

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class BoundedFile : public testing::Test {
protected:
    std::string at(const std::string& name) const { return folder_ / name; }
    std::string written(const std::string& name, const std::string& bytes) const {
        return folder_.write(name, bytes);
    }
    static void expectRefused(const std::string& path, const std::string& why) {
        const auto file = okv::readBoundedFile(path, 1000);
        EXPECT_FALSE(file);
        EXPECT_EQ(file.error, path + ": " + why);
        EXPECT_EQ(okv::readPropertyListFile(path, 1000).error, file.error);
    }

    const support::TempFolder folder_;
};

}  // namespace

TEST_F(BoundedFile, IsReadUpToTheLimitItself) {
    const auto path = written("a", std::string(1000, 'x'));
    EXPECT_EQ(okv::readBoundedFile(path, 1000).bytes, std::string(1000, 'x'));
    EXPECT_EQ(okv::readBoundedFile(path, 999).error, path + ": larger than 999 bytes");
    EXPECT_EQ(okv::readBoundedFile(written("empty", ""), 0).bytes, "");
}

TEST_F(BoundedFile, ReadsThroughALink) {
    std::filesystem::create_symlink(written("a", "text"), at("link"));
    EXPECT_EQ(okv::readBoundedFile(at("link"), 10).bytes, "text");
}

TEST_F(BoundedFile, AFileThatStatesNoSizeIsReadToItsEnd) {
    const auto file = okv::readBoundedFile("/proc/self/status", 1 << 20);
    ASSERT_TRUE(file) << file.error;
    EXPECT_THAT(*file.bytes, StartsWith("Name:"));
    EXPECT_THAT(okv::readBoundedFile("/proc/self/status", 5).error, HasSubstr("larger than 5"));
}

// Files of this tree state a page but hold a few bytes, as a file does that is cut meanwhile.
TEST_F(BoundedFile, AFileThatHoldsLessThanItStatedIsRefused) {
    const std::string path = "/sys/kernel/mm/transparent_hugepage/enabled";
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || status.st_size != 4096) GTEST_SKIP() << "no " << path;
    EXPECT_EQ(okv::readBoundedFile(path, 4096).error, path + ": changed while it was read");
}

TEST_F(BoundedFile, AMissingOneIsRefused) {
    expectRefused(at("none"), "No such file or directory");
    expectRefused("", "No such file or directory");
}

TEST_F(BoundedFile, AFolderIsRefused) {
    expectRefused(folder_.path(), "not a regular file");
}

TEST_F(BoundedFile, AFifoIsRefusedWithoutWaitingForAWriter) {
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    expectRefused(at("fifo"), "not a regular file");
}

TEST_F(BoundedFile, ADeviceIsRefused) {
    expectRefused("/dev/zero", "not a regular file");
}

TEST_F(BoundedFile, ASocketIsRefused) {
    const auto path = at("socket");
    const support::BoundSocket socket(SOCK_STREAM, path);
    expectRefused(path, "No such device or address");
}

TEST_F(BoundedFile, ALoopOfLinksIsRefused) {
    std::filesystem::create_symlink(at("b"), at("a"));
    std::filesystem::create_symlink(at("a"), at("b"));
    expectRefused(at("a"), "Too many levels of symbolic links");
}

TEST_F(BoundedFile, AHugeSparseOneIsRefusedBeforeItIsRead) {
    const auto path = written("sparse", "x");
    ASSERT_EQ(::truncate(path.c_str(), off_t{2} << 30), 0);
    EXPECT_EQ(okv::readPropertyListFile(path).error, path + ": larger than 16777216 bytes");
    EXPECT_EQ(okv::StringsTable::load(path).error, path + ": larger than 16777216 bytes");
}

TEST_F(BoundedFile, APathWithANulByteIsRefused) {
    const auto path = written("a", "text") + std::string("\0.plist", 7);
    EXPECT_EQ(okv::readBoundedFile(path, 10).error, "a path with a NUL byte");
}

TEST_F(BoundedFile, AFileThatShrinksAndGrowsMeanwhileIsReadOrRefused) {
    const auto path = written("changing", std::string(300000, 'x'));
    std::atomic<bool> done{false};
    std::jthread changer([&] {
        while (!done) {
            EXPECT_EQ(::truncate(path.c_str(), 10), 0);
            EXPECT_EQ(::truncate(path.c_str(), 300000), 0);
        }
    });
    for (int i = 0; i < 500; ++i) {
        const auto file = okv::readBoundedFile(path, 300000);
        if (file)
            EXPECT_TRUE(file.bytes->size() == 10 || file.bytes->size() == 300000);
        else
            EXPECT_EQ(file.error, path + ": changed while it was read");
    }
    done = true;
}

TEST_F(BoundedFile, AnErrorInsideAPropertyListNamesTheFile) {
    const auto path = written("list", "{a = b;\n c}");
    EXPECT_EQ(okv::readPropertyListFile(path).error, path + ": line 2: a ; is missing");
    EXPECT_EQ(okv::StringsTable::load(path).error, path + ": line 2: a ; is missing");
    EXPECT_EQ(okv::readPropertyListFile(written("good", "{a = b;}")).value,
              okv::Value(okv::Dictionary{{"a", "b"}}));
}
