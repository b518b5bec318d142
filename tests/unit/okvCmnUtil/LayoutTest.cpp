#include "support/Files.h"

#include <OKVDataManager/okvCmnUtil.h>
#include <OKVPlatform/system/SystemVersion.h>

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

struct PathRow {
    const char* name;
    std::string (*operation)();
    const char* path;
};

class InstalledPath : public testing::TestWithParam<PathRow> {};

/// The system's version code for the life of the object.
class FixedVersion {
public:
    explicit FixedVersion(okv::SystemVersionQuery query) { okv::setSystemVersionQuery(query); }
    ~FixedVersion() { okv::setSystemVersionQuery(nullptr); }
    FixedVersion(const FixedVersion&) = delete;
    FixedVersion& operator=(const FixedVersion&) = delete;
};

}  // namespace

TEST_P(InstalledPath, IsFixed) {
    EXPECT_EQ(GetParam().operation(), GetParam().path);
}

#define OKV_PATH_ROW(name, path)                                               \
    PathRow {                                                                  \
#name, okvCmnUtil::name, "/Library/Application Support/NRM/okv6/" path \
    }

INSTANTIATE_TEST_SUITE_P(
    Rows, InstalledPath,
    testing::Values(OKV_PATH_ROW(appBinPath, "bin/"), OKV_PATH_ROW(appFrameworkPath, "Frameworks/"),
                    OKV_PATH_ROW(appLogPath, "log/"), OKV_PATH_ROW(appConfPath, "conf/"),
                    OKV_PATH_ROW(appReportPath, "report/"),
                    OKV_PATH_ROW(nkeFilterPath, "bin/nrsockfilter.kext"),
                    OKV_PATH_ROW(nkeControllerPath, "bin/sockfilterController.app"),
                    OKV_PATH_ROW(okvServicePath, "bin/OKVService.app"),
                    OKV_PATH_ROW(dataCenterPath, "bin/OKVDataCenter.app"),
                    OKV_PATH_ROW(hammerPath, "bin/OKVHammer.app"),
                    OKV_PATH_ROW(settingGUIPath, "bin/OKVGUIController.app"),
                    OKV_PATH_ROW(updaterPath, "bin/OKVUpdater.app"), OKV_PATH_ROW(formPath, "form"),
                    OKV_PATH_ROW(filterPath, "filterdata")),
    [](const auto& row) { return row.param.name; });

TEST(FileInfo, AnApplicationIsADirectory) {
    const support::TempFolder folder;
    const std::string file = folder.write("X.app/file", "x");
    const std::string link = folder / "link";
    ASSERT_EQ(symlink("X.app", link.c_str()), 0);
    EXPECT_TRUE(okvCmnUtil::isAppPath(folder / "X.app"));
    EXPECT_TRUE(okvCmnUtil::isAppPath(link));
    EXPECT_FALSE(okvCmnUtil::isAppPath(file));
    EXPECT_FALSE(okvCmnUtil::isAppPath(folder / "missing.app"));
    EXPECT_FALSE(okvCmnUtil::isAppPath(""));
}

TEST(FileInfo, IsNoneForWhatDoesNotExist) {
    const support::TempFolder folder;
    const std::string link = folder / "link";
    ASSERT_EQ(symlink("nowhere", link.c_str()), 0);
    EXPECT_FALSE(okvCmnUtil::fileInfo(folder / "missing"));
    EXPECT_FALSE(okvCmnUtil::fileInfo(link));
    EXPECT_FALSE(okvCmnUtil::fileInfo(""));
}

TEST(FileInfo, TellsTheTargetsAttributes) {
    const support::TempFolder folder;
    folder.write("target", "12345");
    const std::string link = folder / "link";
    ASSERT_EQ(symlink("target", link.c_str()), 0);
    const auto info = okvCmnUtil::fileInfo(link);
    ASSERT_TRUE(info);
    EXPECT_EQ((*info)["NSFileSize"], 5);
    EXPECT_EQ((*info)["NSFileType"], "NSFileTypeRegular");
    for (const char* key :
         {"NSFileModificationDate", "NSFileReferenceCount", "NSFilePosixPermissions",
          "NSFileOwnerAccountID", "NSFileGroupOwnerAccountID", "NSFileSystemNumber",
          "NSFileSystemFileNumber"})
        EXPECT_TRUE(info->contains(key)) << key;
}

TEST(FileSize, Is0ForAMissingAndForAnEmptyFile) {
    const support::TempFolder folder;
    EXPECT_EQ(okvCmnUtil::fileSize(folder.write("empty", "")), 0U);
    EXPECT_EQ(okvCmnUtil::fileSize(folder / "missing"), 0U);
}

TEST(FileSize, OfALinkIsItsTargets) {
    const support::TempFolder folder;
    folder.write("target", std::string(1234, 'x'));
    const std::string link = folder / "link";
    ASSERT_EQ(symlink("target", link.c_str()), 0);
    EXPECT_EQ(okvCmnUtil::fileSize(link), 1234U);
}

TEST(FileSize, HasMoreThan32Bits) {
    const support::TempFolder folder;
    const std::string path = folder.write("sparse", "");
    constexpr std::int64_t kSize = (std::int64_t{4} << 30) + 7;
    ASSERT_EQ(truncate(path.c_str(), kSize), 0);
    EXPECT_EQ(okvCmnUtil::fileSize(path), static_cast<std::uint64_t>(kSize));
}

TEST(UserAgent, TheShortOneIsTheProductAlone) {
    EXPECT_EQ(okvCmnUtil::macUserAgentShort(), "okvara/6.0");
}

TEST(UserAgent, HoldsProductMiddlePartAndSystem) {
    const FixedVersion version([]() -> std::optional<std::uint32_t> { return 0x1068; });
    EXPECT_EQ(okvCmnUtil::macUserAgent("abc"), "okvara/6.0; abc; mac(1068)");
    EXPECT_EQ(okvCmnUtil::macUserAgent(""), "okvara/6.0; ; mac(1068)");
    EXPECT_EQ(okvCmnUtil::macUserAgent(std::nullopt), "okvara/6.0; (null); mac(1068)");
}

TEST(UserAgent, IsLowerCaseHexadecimal) {
    const FixedVersion version([]() -> std::optional<std::uint32_t> { return 0xABCDEF01; });
    EXPECT_EQ(okvCmnUtil::macUserAgent("abc"), "okvara/6.0; abc; mac(abcdef01)");
}

TEST(UserAgent, AFailedQueryGives0) {
    const FixedVersion version([]() -> std::optional<std::uint32_t> { return std::nullopt; });
    EXPECT_EQ(okvCmnUtil::macUserAgent("abc"), "okvara/6.0; abc; mac(0)");
}
