#include "support/Files.h"

#include <OKVPlatform/system/Bundle.h>

#include <OKVPlatform/values/PropertyListFile.h>

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

using okv::Bundle;
using okv::Dictionary;
using okv::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// A bundle in a private folder, and an environment without a language.
class BundleFolder : public testing::Test {
protected:
    BundleFolder() {
        folder_.makeFolder("View.app/Contents/Linux");
        for (const char* variable : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"})
            ::unsetenv(variable);
    }

    void writeInfo(const std::string& bytes) {
        folder_.write("View.app/Contents/Info.plist", bytes);
    }
    void writeInfo(const Dictionary& info) { writeInfo(okv::writePropertyListXml(info)); }
    void writeTable(const std::string& language, const std::string& text) {
        folder_.write("View.app/Contents/Resources/" + language + ".lproj/Localizable.strings",
                      text);
    }
    std::string localized(const char* key) const {
        return Bundle::open(path_)->localizedString(key);
    }

    const support::TempFolder folder_;
    const std::string path_ = folder_ / "View.app";
};

std::string outputOf(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    std::array<char, 256> piece{};
    while (std::fgets(piece.data(), piece.size(), pipe) != nullptr) output += piece.data();
    EXPECT_EQ(::pclose(pipe), 0) << output;
    return output;
}

}  // namespace

TEST_F(BundleFolder, HasThePathItWasOpenedBy) {
    EXPECT_EQ(Bundle::open(path_)->path(), path_);
    EXPECT_EQ(Bundle::open(path_ + "//")->path(), path_);
    EXPECT_EQ(Bundle::open(path_)->retainCount(), 1U);
}

TEST_F(BundleFolder, WithoutContentsIsNone) {
    EXPECT_FALSE(Bundle::open(folder_.path()));
    EXPECT_FALSE(Bundle::open(folder_ / "missing.app"));
    EXPECT_FALSE(Bundle::open(""));
    EXPECT_FALSE(Bundle::open("/"));
}

TEST_F(BundleFolder, TellsItsInformation) {
    writeInfo(Dictionary{{"CFBundleName", "View"}, {"LSUIElement", true}});
    const auto bundle = Bundle::open(path_);
    EXPECT_EQ(Value(bundle->infoDictionary()),
              Value(Dictionary{{"CFBundleName", "View"}, {"LSUIElement", true}}));
    EXPECT_EQ(bundle->infoError(), "");
}

TEST_F(BundleFolder, BadInformationCountsAsEmptyAndIsTold) {
    const struct {
        std::string bytes;
        std::string error;
    } rows[] = {
        {"<plist><dict>", "line 1, column 14"},
        {"(a, b)", "not a dictionary"},
        {"", "byte 0: empty"},
        {std::string((1 << 20) + 1, ' '), "larger than 1048576 bytes"},
        {"<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><dict/></plist>", "declarations inside"},
    };
    for (const auto& row : rows) {
        writeInfo(row.bytes);
        const auto bundle = Bundle::open(path_);
        EXPECT_TRUE(bundle->infoDictionary().empty());
        EXPECT_THAT(bundle->infoError(), HasSubstr(row.error));
    }
}

TEST_F(BundleFolder, InformationThatWouldBlockIsRefusedAtOnce) {
    ASSERT_EQ(::mkfifo((path_ + "/Contents/Info.plist").c_str(), 0600), 0);
    EXPECT_THAT(Bundle::open(path_)->infoError(), HasSubstr("not a regular file"));
}

TEST_F(BundleFolder, MissingInformationIsEmptyToo) {
    EXPECT_TRUE(Bundle::open(path_)->infoDictionary().empty());
    EXPECT_THAT(Bundle::open(path_)->infoError(), HasSubstr("No such file"));
}

TEST_F(BundleFolder, WithoutATranslationTheKeyComesBack) {
    EXPECT_EQ(localized("Open"), "Open");
    EXPECT_EQ(localized(""), "");
    ::setenv("LANG", "ja_JP.UTF-8", 1);
    writeTable("ja", "Open = 開く;");
    EXPECT_EQ(localized("Close"), "Close");
}

TEST_F(BundleFolder, ACountryIsPreferredToItsLanguageAlone) {
    ::setenv("LANG", "ja_JP.UTF-8", 1);
    writeTable("ja", "\"Open\" = \"ja\"; \"Close\" = \"ja close\";");
    EXPECT_EQ(localized("Open"), "ja");
    writeTable("ja_JP", "\"Open\" = \"ja_JP\";");
    EXPECT_EQ(localized("Open"), "ja_JP");
    EXPECT_EQ(localized("Close"), "ja close");
}

TEST_F(BundleFolder, TheFirstVariableThatIsSetNamesTheLanguage) {
    for (const char* language : {"aa", "bb", "cc", "dd"})
        writeTable(language, "\"k\" = \"" + std::string(language) + "\";");
    writeInfo(Dictionary{{"CFBundleDevelopmentRegion", "dd"}});
    EXPECT_EQ(localized("k"), "dd");
    ::setenv("LANG", "cc", 1);
    EXPECT_EQ(localized("k"), "cc");
    ::setenv("LC_MESSAGES", "bb", 1);
    EXPECT_EQ(localized("k"), "bb");
    ::setenv("LC_ALL", "aa", 1);
    EXPECT_EQ(localized("k"), "aa");
    ::setenv("LC_ALL", "", 1);
    EXPECT_EQ(localized("k"), "bb");
    ::setenv("LANGUAGE", "zz:cc", 1);
    EXPECT_EQ(localized("k"), "cc");
}

TEST_F(BundleFolder, TheDevelopmentRegionStandsInForWhatALanguageLacks) {
    ::setenv("LANG", "fr_FR.UTF-8", 1);
    writeInfo(Dictionary{{"CFBundleDevelopmentRegion", "English"}});
    writeTable("fr", "Open = Ouvrir;");
    writeTable("English", "Open = open; Close = close;");
    EXPECT_EQ(localized("Open"), "Ouvrir");
    EXPECT_EQ(localized("Close"), "close");
}

TEST_F(BundleFolder, ARegionThatLeadsElsewhereIsNotFollowed) {
    folder_.write("secret.lproj/Localizable.strings", "Open = stolen;");
    writeInfo(Dictionary{{"CFBundleDevelopmentRegion", "../../../secret"}});
    std::filesystem::create_directories(path_ + "/Contents/Resources");
    EXPECT_EQ(localized("Open"), "Open");
    ::setenv("LANGUAGE", "../../../secret", 1);
    EXPECT_EQ(localized("Open"), "Open");
}

TEST_F(BundleFolder, ABadTableCountsAsEmpty) {
    ::setenv("LANG", "ja", 1);
    writeInfo(Dictionary{{"CFBundleDevelopmentRegion", "en"}});
    writeTable("ja", "\"Open\" = ");
    writeTable("en", "Open = open;");
    EXPECT_EQ(localized("Open"), "open");
}

TEST_F(BundleFolder, ATableMayBeAnyFormOfPropertyList) {
    ::setenv("LANG", "ja", 1);
    writeTable("ja", okv::writePropertyListXml(Dictionary{{"Open", "開く"}}));
    EXPECT_EQ(localized("Open"), "開く");
}

TEST_F(BundleFolder, ManyThreadsMayAskForTheFirstText) {
    ::setenv("LANG", "ja", 1);
    writeTable("ja", "Open = opened;");
    const auto bundle = Bundle::open(path_);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] { EXPECT_EQ(bundle->localizedString("Open"), "opened"); });
}

TEST_F(BundleFolder, IsTheMainBundleOfAnExecutableInIt) {
    writeInfo(Dictionary{{"CFBundleIdentifier", "jp.example.view"}});
    writeTable("ja", "Open = opened;");
    const auto program = path_ + "/Contents/Linux/view";
    std::filesystem::copy_file(OKV_BUNDLE_PROBE, program);
    const auto path = std::filesystem::canonical(path_).string();
    EXPECT_EQ(outputOf("LANG=ja_JP.UTF-8 '" + program + "' Open"),
              path + "\njp.example.view\nopened\n");
    EXPECT_EQ(outputOf("LANG=C '" + program + "' Open"), path + "\njp.example.view\nOpen\n");
}

TEST_F(BundleFolder, IsTheMainBundleOfAnExecutableReachedByALinkFromOutside) {
    const auto program = path_ + "/Contents/Linux/view";
    std::filesystem::copy_file(OKV_BUNDLE_PROBE, program);
    std::filesystem::create_symlink(program, folder_ / "link");
    EXPECT_THAT(outputOf("'" + folder_ / "link" + "' Open"),
                testing::StartsWith(std::filesystem::canonical(path_).string() + "\n"));
}

TEST(MainBundle, OfAnExecutableOutsideOfBundlesIsNone) {
    EXPECT_EQ(outputOf("'" OKV_BUNDLE_PROBE "' Open"), "none\n");
    EXPECT_FALSE(Bundle::mainBundle());
}

TEST(Bundle, IsTheInnermostApplicationFolderAroundAFile) {
    const struct {
        const char* file;
        const char* bundle;
    } rows[] = {
        {"/a/X.app/Contents/Linux/x", "/a/X.app"},
        {"/a/X.app/Contents/Info.plist", "/a/X.app"},
        {"/A.app/Contents/Linux/A (deleted)", "/A.app"},
        {"/A.app/Contents/Helpers/B.app/Contents/Linux/b", "/A.app/Contents/Helpers/B.app"},
        {"/A.app/Contents/B.app/Contents/", "/A.app"},
        {"/A.app/Contents/Helpers/.app/Contents/b", "/A.app"},
        {"/a/My X.app/Contents/x", "/a/My X.app"},
        {"/a/X.app/x", ""},
        {"/a/X.app/Contents", ""},
        {"/a/X.app/Contents/", ""},
        {"/a/X.application/Contents/x", ""},
        {"/a/X.APP/Contents/x", ""},
        {"/a/Xapp/Contents/x", ""},
        {"/a/.app/Contents/x", ""},
        {"a/X.app/Contents/x", ""},
        {".app/Contents/x", ""},
        {"/usr/bin/x", ""},
        {"", ""},
    };
    for (const auto& row : rows) EXPECT_EQ(okv::bundlePathOf(row.file), row.bundle) << row.file;
}

TEST(PreferredLanguages, ComeFromTheListThenFromTheLocale) {
    using okv::preferredLanguages;
    EXPECT_THAT(preferredLanguages("", ""), IsEmpty());
    EXPECT_THAT(preferredLanguages("", "ja_JP.UTF-8"), ElementsAre("ja_JP", "ja"));
    EXPECT_THAT(preferredLanguages("", "de_AT@euro"), ElementsAre("de_AT", "de"));
    EXPECT_THAT(preferredLanguages("fr:en_GB", "ja_JP.UTF-8"),
                ElementsAre("fr", "en_GB", "en", "ja_JP", "ja"));
    EXPECT_THAT(preferredLanguages("ja:ja_JP:ja", "ja"), ElementsAre("ja", "ja_JP"));
    EXPECT_THAT(preferredLanguages("", "C"), IsEmpty());
    EXPECT_THAT(preferredLanguages("", "C.UTF-8"), IsEmpty());
    EXPECT_THAT(preferredLanguages("POSIX:zh-Hant", "POSIX"), ElementsAre("zh-Hant"));
    EXPECT_THAT(preferredLanguages("::../x:a/b:", ""), IsEmpty());
    EXPECT_THAT(preferredLanguages(std::string(65, 'x'), ""), IsEmpty());
}

TEST(PreferredLanguages, AreNotMoreThan32) {
    std::string list;
    for (int i = 0; i < 100; ++i) list += "x" + std::to_string(i) + ":";
    EXPECT_EQ(okv::preferredLanguages(list, "ja").size(), 32U);
}
