#include "support/Files.h"

#include <OKVPlatform/system/FileAttributes.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using okv::fileAttributesAtPath;
using okv::Value;

namespace {

Value attribute(std::string_view path, const char* key, bool traverseLink = true) {
    const auto attributes = fileAttributesAtPath(path, traverseLink);
    return attributes ? (*attributes)[key] : Value();
}

}  // namespace

TEST(FileAttributes, HaveEveryKeyForAnOrdinaryFile) {
    const support::TempFolder folder;
    const std::string path = folder.write("file", "12345");
    ASSERT_EQ(chmod(path.c_str(), 04640), 0);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(attribute(path, "NSFileType"), "NSFileTypeRegular");
    EXPECT_EQ(attribute(path, "NSFileSize"), 5);
    EXPECT_EQ(attribute(path, "NSFileReferenceCount"), 1);
    EXPECT_EQ(attribute(path, "NSFilePosixPermissions"), 04640);
    EXPECT_EQ(attribute(path, "NSFileOwnerAccountID"), geteuid());
    EXPECT_EQ(attribute(path, "NSFileGroupOwnerAccountID"), status.st_gid);
    EXPECT_EQ(attribute(path, "NSFileSystemNumber"), status.st_dev);
    EXPECT_EQ(attribute(path, "NSFileSystemFileNumber"), status.st_ino);
    const Value modification = attribute(path, "NSFileModificationDate");
    const auto* const modified = modification.getIf<okv::Date>();
    ASSERT_NE(modified, nullptr);
    EXPECT_NEAR(modified->secondsSince1970, static_cast<double>(status.st_mtime), 1.0);
}

TEST(FileAttributes, NameTheOwnersThatTheSystemKnows) {
    if (geteuid() != 0) GTEST_SKIP() << "only root has a name that is sure";
    const support::TempFolder folder;
    const std::string path = folder.write("file", "");
    ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
    EXPECT_EQ(attribute(path, "NSFileOwnerAccountName"), "root");
    EXPECT_EQ(attribute(path, "NSFileGroupOwnerAccountName"), "root");
    ASSERT_EQ(chown(path.c_str(), 3999999999U, 3999999999U), 0);
    EXPECT_TRUE(attribute(path, "NSFileOwnerAccountName").isNil());
    EXPECT_EQ(attribute(path, "NSFileOwnerAccountID"), 3999999999U);
}

TEST(FileAttributes, FollowALinkOnlyWhenTold) {
    const support::TempFolder folder;
    const std::string target = folder.write("target", "123");
    const std::string link = folder / "link";
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    EXPECT_EQ(attribute(link, "NSFileType", true), "NSFileTypeRegular");
    EXPECT_EQ(attribute(link, "NSFileSize", true), 3);
    EXPECT_EQ(attribute(link, "NSFileType", false), "NSFileTypeSymbolicLink");
}

TEST(FileAttributes, ALinkToNothingDoesNotExistButCanBeDescribed) {
    const support::TempFolder folder;
    const std::string link = folder / "link";
    ASSERT_EQ(symlink("nowhere", link.c_str()), 0);
    EXPECT_FALSE(okv::fileExistsAtPath(link));
    EXPECT_FALSE(fileAttributesAtPath(link, true));
    EXPECT_TRUE(fileAttributesAtPath(link, false));
}

TEST(FileAttributes, ALinkToItselfIsNoFile) {
    const support::TempFolder folder;
    const std::string link = folder / "link";
    ASSERT_EQ(symlink("link", link.c_str()), 0);
    EXPECT_FALSE(okv::fileExistsAtPath(link));
    EXPECT_FALSE(okv::directoryExistsAtPath(link));
}

TEST(FileAttributes, TellTheKindOfFile) {
    const support::TempFolder folder;
    const std::string fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(attribute(fifo, "NSFileType"), "NSFileTypeUnknown");
    EXPECT_EQ(attribute("/dev/null", "NSFileType"), "NSFileTypeCharacterSpecial");
    EXPECT_EQ(attribute("/", "NSFileType"), "NSFileTypeDirectory");
}

TEST(FileAttributes, PathsThatAreNonePointToNothing) {
    const std::string withNul("/\0etc", 5);
    for (const std::string& path : {std::string(), withNul, std::string(100000, 'x'),
                                    std::string("/nonexistent/file"), std::string("/dev/null/x")}) {
        EXPECT_FALSE(okv::fileExistsAtPath(path));
        EXPECT_FALSE(okv::directoryExistsAtPath(path));
        EXPECT_FALSE(fileAttributesAtPath(path, true));
    }
}
