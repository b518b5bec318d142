#include <OKVDataManager/okvSystemProcList.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <array>
#include <string>
#include <type_traits>

namespace {

struct Row {
    const char* processName;
    const char* identifier;
};

constexpr std::array<Row, 22> kExpectedWhiteList{{
    {"Software Update.app", "ProcessOSUpdater"},
    {"softwareupdate", "ProcessOSUpdater-cmd"},
    {"Finder.app", "ProcessOSFinder"},
    {"launchd", "ProcessOSlaunchd-cmd"},
    {"crashreporter.app", "ProcessOSCrashReporter"},
    {"OKVService.app", "ProcessOKVService"},
    {"KVAgent.app", "ProcessOKVAgent"},
    {"sockfilterController.app", "ProcessNKEController"},
    {"OKVGUIController.app", "ProcessOKVGUIController"},
    {"OKVHammer.app", "ProcessOKVHammer"},
    {"OKVDataCenter.app", "ProcessOKVDataCenter"},
    {"OKVUpdater.app", "ProcessOKVUpdater"},
    {"OKVUninstaller.app", "ProcessOKVUnInstaller"},
    {"UninstKick.app", "ProcessUninstKick"},
    {"Launcher.app", "ProcessOKVLauncher"},
    {"Launcher_Stop.app", "ProcessOKVLauncher-Stop"},
    {"Launcher_Version.app", "ProcessOKVLauncher-Version"},
    {"Launcher_Proxy.app", "ProcessOKVLauncher-Proxy"},
    {"Launcher_Key.app", "ProcessOKVLauncher-Key"},
    {"Launcher_Browser.app", "ProcessOKVLauncher-Browser"},
    {"OKVLogParser", "ProcessOKVLogParser"},
    {"UninstallHelpTool", "ProcessOKVUnInstallHelper"},
}};

/// Puts another row in the place of one for the life of a test.
class ReplacedRow {
public:
    ReplacedRow(okvSystemProc& row, okvSystemProc other) : row_(row), saved_(row) { row = other; }
    ~ReplacedRow() { row_ = saved_; }
    ReplacedRow(const ReplacedRow&) = delete;
    ReplacedRow& operator=(const ReplacedRow&) = delete;

private:
    okvSystemProc& row_;
    okvSystemProc saved_;
};

class WhiteListRow : public testing::TestWithParam<std::size_t> {};

}  // namespace

TEST_P(WhiteListRow, StandsInTheTableAndInBothCollections) {
    const auto i = GetParam();
    const Row expected = kExpectedWhiteList[i];
    EXPECT_STREQ(sysBlockProcWhiteListTbl[i].processName, expected.processName);
    EXPECT_STREQ(sysBlockProcWhiteListTbl[i].identifier, expected.identifier);
    EXPECT_EQ(okvSystemProcList::sysBlockProcWhiteLists().at(i), expected.processName);
    const auto info = okvSystemProcList::sysBlockProcWhiteListInfo();
    EXPECT_EQ(info[expected.processName], expected.identifier);
    EXPECT_EQ(info.begin()[i].key, expected.processName);
}

INSTANTIATE_TEST_SUITE_P(Rows, WhiteListRow,
                         testing::Range(std::size_t{0}, kExpectedWhiteList.size()));

TEST(okvSystemProcList, TheWhiteListHas22RowsAndThenARowOfTwoNulls) {
    EXPECT_EQ(okvSystemProcList::sysBlockProcWhiteLists().size(), 22U);
    EXPECT_EQ(okvSystemProcList::sysBlockProcWhiteListInfo().size(), 22U);
    EXPECT_EQ(sysBlockProcWhiteListTbl[22].processName, nullptr);
    EXPECT_EQ(sysBlockProcWhiteListTbl[22].identifier, nullptr);
}

TEST(okvSystemProcList, TheBlackListShipsEmpty) {
    EXPECT_EQ(sysBlockProcBlackListTbl[0].processName, nullptr);
    EXPECT_EQ(sysBlockProcBlackListTbl[0].identifier, nullptr);
    EXPECT_TRUE(okvSystemProcList::sysBlockProcBlackLists().empty());
    EXPECT_TRUE(okvSystemProcList::sysBlockProcBlackListInfo().empty());
}

TEST(okvSystemProcList, AHalfNullRowEndsTheBlackListToo) {
    const ReplacedRow row(sysBlockProcBlackListTbl[0], {"Evil.app", nullptr});
    EXPECT_TRUE(okvSystemProcList::sysBlockProcBlackLists().empty());
    EXPECT_TRUE(okvSystemProcList::sysBlockProcBlackListInfo().empty());
}

TEST(okvSystemProcList, TheInfoIsKeyedByNameAndNotByIdentifier) {
    const auto info = okvSystemProcList::sysBlockProcWhiteListInfo();
    EXPECT_EQ(info["Finder.app"], "ProcessOSFinder");
    EXPECT_TRUE(info["ProcessOSFinder"].isNil());
}

TEST(okvSystemProcList, ARowWithoutAnIdentifierEndsTheTable) {
    const ReplacedRow row(sysBlockProcWhiteListTbl[3], {"launchd", nullptr});
    EXPECT_EQ(okvSystemProcList::sysBlockProcWhiteLists().size(), 3U);
    EXPECT_EQ(okvSystemProcList::sysBlockProcWhiteListInfo().size(), 3U);
}

TEST(okvSystemProcList, ARowWithoutANameEndsTheTable) {
    const ReplacedRow row(sysBlockProcWhiteListTbl[5], {nullptr, "ProcessOKVService"});
    EXPECT_EQ(okvSystemProcList::sysBlockProcWhiteLists().size(), 5U);
    EXPECT_EQ(okvSystemProcList::sysBlockProcWhiteListInfo().size(), 5U);
}

TEST(okvSystemProcList, ChangingOneResultLeavesTheOthersAndTheTableUntouched) {
    // By reference: a copy would be distinct whatever is answered.
    auto&& names = okvSystemProcList::sysBlockProcWhiteLists();
    auto&& otherNames = okvSystemProcList::sysBlockProcWhiteLists();
    auto&& info = okvSystemProcList::sysBlockProcWhiteListInfo();
    auto&& otherInfo = okvSystemProcList::sysBlockProcWhiteListInfo();
    auto&& black = okvSystemProcList::sysBlockProcBlackLists();
    names.clear();
    info.set("Finder.app", "changed");
    black.emplace_back("Evil.app");
    EXPECT_EQ(otherNames.size(), 22U);
    EXPECT_EQ(otherInfo["Finder.app"], "ProcessOSFinder");
    EXPECT_TRUE(okvSystemProcList::sysBlockProcBlackLists().empty());
    EXPECT_STREQ(sysBlockProcWhiteListTbl[2].identifier, "ProcessOSFinder");
}

TEST(okvSystemProcList, TheTablesAreFoundByTheirPlainNames) {
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "sysBlockProcWhiteListTbl"), sysBlockProcWhiteListTbl);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "sysBlockProcBlackListTbl"), sysBlockProcBlackListTbl);
}

static_assert(std::is_base_of_v<okv::Object, okvSystemProcList>);
