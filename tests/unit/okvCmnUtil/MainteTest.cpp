#include "PrivateRoot.h"
#include "support/Files.h"
#include "support/Processes.h"

#include <OKVDataManager/MainteFile.h>
#include <OKVDataManager/okvCmnUtil.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

/// The maintenance file is one of the test's own, not there until it is written.
class Mainte : public testing::Test {
protected:
    Mainte() { okv::testing::setMainteFile(folder_ / "mainte.plist"); }
    ~Mainte() override { okv::testing::setMainteFile(""); }

    void write(std::string_view content) { folder_.write("mainte.plist", content); }
    void writeEntries(const std::string& entries) {
        write(R"(<plist version="1.0"><dict>)" + entries + "</dict></plist>");
    }
    static void expectDefaults() {
        EXPECT_FALSE(okvCmnUtil::loadMainteInfo());
        EXPECT_EQ(okvCmnUtil::logLevel(), 10);
        EXPECT_FALSE(okvCmnUtil::isNkeLog());
        EXPECT_FALSE(okvCmnUtil::isARSLog());
        EXPECT_FALSE(okvCmnUtil::isDevModeLog());
    }

    support::TempFolder folder_;
};

struct SwitchRow {
    const char* value;
    bool on;
};

class MainteSwitch : public Mainte, public testing::WithParamInterface<SwitchRow> {};

struct LevelRow {
    const char* value;
    int level;
};

class MainteLevel : public Mainte, public testing::WithParamInterface<LevelRow> {};

}  // namespace

TEST_F(Mainte, WithoutAFileEverythingIsAtItsDefault) {
    expectDefaults();
}

TEST_F(Mainte, AFileThatIsNoneOrHoldsNoDictionaryCountsAsMissing) {
    for (const char* content : {"", "<plist><dict>", "<plist><array/></plist>", "bplist00",
                                "<plist><string>logLevel</string></plist>"}) {
        write(content);
        expectDefaults();
    }
}

TEST_F(Mainte, AFolderInTheFilesPlaceCountsAsMissing) {
    folder_.write("mainte.plist/x", "");
    expectDefaults();
}

TEST_F(Mainte, AFileThatMayNotBeReadCountsAsMissing) {
    writeEntries("<key>logLevel</key><integer>30</integer>");
    const auto levelFor = [&](mode_t mode) {
        chmod((folder_ / "mainte.plist").c_str(), mode);
        return geteuid() == 0 ? support::asAccount(65534, okvCmnUtil::logLevel)
                              : okvCmnUtil::logLevel();
    };
    EXPECT_EQ(levelFor(0444), 30);
    EXPECT_EQ(levelFor(0), 10);
}

TEST_F(Mainte, ABinaryFileIsReadToo) {
    // {logLevel = 30}
    write(
        std::string_view("bplist00\xD1\x01\x02XlogLevel\x10\x1E\x08\x0B\x14\0\0\0\0\0\0\x01\x01"
                         "\0\0\0\0\0\0\0\x03\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x16",
                         57));
    EXPECT_EQ(okvCmnUtil::loadMainteInfo(), (okv::Dictionary{{"logLevel", 30}}));
    EXPECT_EQ(okvCmnUtil::logLevel(), 30);
}

TEST_F(Mainte, AnOldStyleTextFileIsReadTooAndItsTextsByTheirContent) {
    write("{ logLevel = 30; nkeLog = YES; arsLog = 0; }");
    EXPECT_EQ(okvCmnUtil::logLevel(), 30);
    EXPECT_TRUE(okvCmnUtil::isNkeLog());
    EXPECT_FALSE(okvCmnUtil::isARSLog() || okvCmnUtil::isDevModeLog());
}

TEST_F(Mainte, AnEmptyDictionaryIsAFileWithoutKeys) {
    writeEntries("");
    EXPECT_EQ(okvCmnUtil::loadMainteInfo(), okv::Dictionary());
    EXPECT_EQ(okvCmnUtil::logLevel(), 10);
    EXPECT_FALSE(okvCmnUtil::isDevModeLog());
}

TEST_F(Mainte, ALevelOf0IsNotTheDefault) {
    writeEntries("<key>logLevel</key><integer>0</integer>");
    EXPECT_EQ(okvCmnUtil::logLevel(), 0);
    EXPECT_FALSE(okvCmnUtil::isDevModeLog());
}

TEST_F(Mainte, EachSwitchReadsItsOwnKey) {
    writeEntries("<key>nkeLog</key><true/>");
    EXPECT_TRUE(okvCmnUtil::isNkeLog());
    EXPECT_FALSE(okvCmnUtil::isARSLog() || okvCmnUtil::isDevModeLog());
    writeEntries("<key>arsLog</key><true/>");
    EXPECT_TRUE(okvCmnUtil::isARSLog());
    EXPECT_FALSE(okvCmnUtil::isNkeLog() || okvCmnUtil::isDevModeLog());
    writeEntries("<key>devmode</key><true/>");
    EXPECT_TRUE(okvCmnUtil::isDevModeLog());
    EXPECT_FALSE(okvCmnUtil::isNkeLog() || okvCmnUtil::isARSLog());
}

TEST_F(Mainte, AnEditTakesEffectAtTheNextCall) {
    writeEntries("<key>logLevel</key><integer>30</integer>");
    EXPECT_EQ(okvCmnUtil::logLevel(), 30);
    writeEntries("<key>logLevel</key><integer>5</integer>");
    EXPECT_EQ(okvCmnUtil::logLevel(), 5);
}

TEST_F(Mainte, StandsInTheInstallationRootWhereNobodySaysOtherwise) {
    const auto child = support::startChild([] {
        okv::testing::setMainteFile("");
        if (!privateroot::enter()) _exit(77);
        if (okvCmnUtil::loadMainteInfo()) _exit(2);
        const std::string folder = "/Library/Application Support/NRM/okv6/";
        std::filesystem::create_directories(folder);
        support::write(folder + "jp.nrm.okv6.mainte.plist",
                       R"(<plist><dict><key>logLevel</key><integer>33</integer></dict></plist>)");
        _exit(okvCmnUtil::logLevel() == 33 ? 0 : 1);
    });
    int status = 0;
    waitpid(child, &status, 0);
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no right to make a mount namespace";
    EXPECT_EQ(status, 0);
}

TEST_F(Mainte, TheWholeFileComesBackAsADictionary) {
    writeEntries("<key>logLevel</key><integer>7</integer><key>other</key><string>kept</string>");
    EXPECT_EQ(okvCmnUtil::loadMainteInfo(), (okv::Dictionary{{"logLevel", 7}, {"other", "kept"}}));
}

TEST_P(MainteSwitch, ReadsAsThePlatformsBoolValue) {
    const std::string value = GetParam().value;
    writeEntries("<key>nkeLog</key>" + value + "<key>arsLog</key>" + value + "<key>devmode</key>" +
                 value);
    EXPECT_EQ(okvCmnUtil::isNkeLog(), GetParam().on);
    EXPECT_EQ(okvCmnUtil::isARSLog(), GetParam().on);
    EXPECT_EQ(okvCmnUtil::isDevModeLog(), GetParam().on);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, MainteSwitch,
    testing::Values(
        SwitchRow{"<true/>", true}, SwitchRow{"<false/>", false},
        SwitchRow{"<integer>0</integer>", false}, SwitchRow{"<integer>2</integer>", true},
        SwitchRow{"<integer>-1</integer>", true}, SwitchRow{"<real>0.5</real>", true},
        SwitchRow{"<real>0</real>", false}, SwitchRow{"<string>YES</string>", true},
        SwitchRow{"<string>NO</string>", false}, SwitchRow{"<string>yes</string>", true},
        SwitchRow{"<string>True</string>", true}, SwitchRow{"<string>true</string>", true},
        SwitchRow{"<string>1</string>", true}, SwitchRow{"<string>9</string>", true},
        SwitchRow{"<string>0</string>", false}, SwitchRow{"<string>  007</string>", true},
        SwitchRow{"<string>  00Y</string>", true}, SwitchRow{"<string>000</string>", false},
        SwitchRow{"<string>+1</string>", true}, SwitchRow{"<string>-1</string>", true},
        SwitchRow{"<string>-0</string>", false}, SwitchRow{"<string>--1</string>", false},
        SwitchRow{"<string>\t1</string>", true}, SwitchRow{"<string>\n1</string>", true},
        SwitchRow{"<string>\n\tY</string>", true}, SwitchRow{"<string>Y</string>", true},
        SwitchRow{"<string>y</string>", true}, SwitchRow{"<string>T</string>", true},
        SwitchRow{"<string>t</string>", true},
        SwitchRow{"<date>2010-02-01T00:00:00Z</date>", false},
        SwitchRow{"<string>on</string>", false}, SwitchRow{"<string></string>", false},
        SwitchRow{"<array/>", false}, SwitchRow{"<dict/>", false},
        SwitchRow{"<data></data>", false}));

TEST_P(MainteLevel, ReadsAsThePlatformsIntValue) {
    writeEntries(std::string("<key>logLevel</key>") + GetParam().value);
    EXPECT_EQ(okvCmnUtil::logLevel(), GetParam().level);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, MainteLevel,
    testing::Values(LevelRow{"<integer>30</integer>", 30}, LevelRow{"<integer>-5</integer>", -5},
                    LevelRow{"<string>20</string>", 20}, LevelRow{"<string> 20x</string>", 20},
                    LevelRow{"<string>high</string>", 0}, LevelRow{"<real>12.9</real>", 12},
                    LevelRow{"<string>\n\t+20</string>", 20}, LevelRow{"<string>-5</string>", -5},
                    LevelRow{"<date>2010-02-01T00:00:00Z</date>", 0}, LevelRow{"<true/>", 1},
                    LevelRow{"<array/>", 0}, LevelRow{"<dict/>", 0},
                    LevelRow{"<integer>99999999999</integer>", INT32_MAX}));
