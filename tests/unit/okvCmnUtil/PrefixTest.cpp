#include "support/Files.h"

#include <OKVDataManager/okvCmnUtil.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdio>

namespace {

using Text = std::optional<std::string_view>;
using Operation = std::optional<std::string> (*)(Text, Text);
using Owned = std::optional<std::string>;

struct PrefixRow {
    Text text;
    Text prefix;
    Owned result;
};

class AddPrefix : public testing::TestWithParam<PrefixRow> {};
class RemovePrefix : public testing::TestWithParam<PrefixRow> {};

constexpr std::array<Operation, 3> kAdd{okvCmnUtil::addPrefix_forPrefix,
                                        okvCmnUtil::addPrefixUId_forPrefix,
                                        okvCmnUtil::addPrefixName_forPrefix};
constexpr std::array<Operation, 3> kRemove{okvCmnUtil::removePrefix_forPrefix,
                                           okvCmnUtil::removePrefixUId_forPrefix,
                                           okvCmnUtil::removePrefixName_forPrefix};

}  // namespace

TEST_P(AddPrefix, PutsThePrefixInFront) {
    for (const auto add : kAdd)
        EXPECT_EQ(add(GetParam().text, GetParam().prefix), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(Rows, AddPrefix,
                         testing::Values(PrefixRow{"123", "AB", "AB123"},
                                         PrefixRow{"AB123", "AB", "ABAB123"},
                                         PrefixRow{"123", "", "123"}, PrefixRow{"", "AB", "AB"},
                                         PrefixRow{"", "", ""},
                                         PrefixRow{"123", std::nullopt, "123"},
                                         PrefixRow{std::nullopt, "AB", std::nullopt},
                                         PrefixRow{std::nullopt, std::nullopt, std::nullopt}));

TEST_P(RemovePrefix, TakesAsManyCharactersAsThePrefixHas) {
    for (const auto remove : kRemove)
        EXPECT_EQ(remove(GetParam().text, GetParam().prefix), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RemovePrefix,
    testing::Values(PrefixRow{"AB123", "AB", "123"}, PrefixRow{"123", "AB", "123"},
                    // A composed letter is not its parts, which count singly.
                    PrefixRow{"e\xCC\x81x", "\xC3\xA9", "e\xCC\x81x"},
                    PrefixRow{"e\xCC\x81x", "e", "\xCC\x81x"}, PrefixRow{"ab123", "AB", "ab123"},
                    // Found elsewhere: the first characters go, whatever they are.
                    PrefixRow{"xxAB", "AB", "AB"}, PrefixRow{"xAByz", "AB", "Byz"},
                    // Nothing would be left: none, not an empty text.
                    PrefixRow{"AB", "AB", std::nullopt}, PrefixRow{"A", "A", std::nullopt},
                    PrefixRow{"AB", "ABC", "AB"}, PrefixRow{"", "AB", ""}, PrefixRow{"", "", ""},
                    PrefixRow{"", std::nullopt, ""}, PrefixRow{"AB123", "", "AB123"},
                    PrefixRow{"AB123", std::nullopt, "AB123"},
                    PrefixRow{std::nullopt, "AB", std::nullopt},
                    PrefixRow{std::nullopt, std::nullopt, std::nullopt},
                    // Characters count, not bytes: two of three bytes each go for "AB".
                    PrefixRow{"\xE6\x97\xA5\xE6\x9C\xAC"
                              "AB",
                              "AB", "AB"},
                    PrefixRow{"\xE6\x97\xA5\xE6\x9C\xAC", "\xE6\x97\xA5", "\xE6\x9C\xAC"},
                    PrefixRow{"xy\xE6\x97\xA5", "\xE6\x97\xA5", "y\xE6\x97\xA5"},
                    // A character beyond U+FFFF counts as two.
                    PrefixRow{"\xF0\x9F\x98\x80"
                              "AB",
                              "AB", "AB"},
                    PrefixRow{"\xF0\x9F\x98\x80"
                              "A",
                              "A",
                              "\xEF\xBF\xBD"
                              "A"},
                    PrefixRow{"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", std::nullopt},
                    // Broken sequences count byte by byte.
                    PrefixRow{"\xE6\x97"
                              "AB",
                              "AB", "AB"},
                    PrefixRow{"\xFF\xFE", "\xFF", "\xFE"}));

TEST(RemovePrefix, UndoesAddPrefixForEveryTextThatIsNotEmpty) {
    for (const std::string_view text : {"1", "123", "AB", "ABAB", "x\xE6\x97\xA5"})
        for (const std::string_view prefix : {"A", "AB", "\xE6\x97\xA5", "\xF0\x9F\x98\x80"}) {
            const auto added = okvCmnUtil::addPrefix_forPrefix(text, prefix);
            EXPECT_EQ(okvCmnUtil::removePrefix_forPrefix(added, prefix), text);
        }
}

namespace {

void writeBundle(const support::TempFolder& folder) {
    folder.write("X.app/Contents/Info.plist",
                 "<plist><dict><key>CFBundleDevelopmentRegion</key><string>en</string></dict>"
                 "</plist>");
    folder.write("X.app/Contents/Resources/en.lproj/Localizable.strings",
                 "\"greeting\" = \"Hello\";");
}

}  // namespace

TEST(LocalizedString, IsTheGivenBundlesTextOrTheKeyItself) {
    const support::TempFolder folder;
    writeBundle(folder);
    const auto bundle = okv::Bundle::open(folder / "X.app");
    ASSERT_TRUE(bundle);
    EXPECT_EQ(okvCmnUtil::localizedString_key(bundle.get(), "greeting"), "Hello");
    EXPECT_EQ(okvCmnUtil::localizedString_key(bundle.get(), "unknown"), "unknown");
}

TEST(LocalizedString, WithoutABundleAProcessOutsideOfOneHasNone) {
    EXPECT_EQ(okvCmnUtil::localizedString_key(nullptr, "greeting"), std::nullopt);
}

TEST(LocalizedString, WithoutABundleIsTheMainBundlesText) {
    const support::TempFolder folder;
    writeBundle(folder);
    const std::string program = folder.write("X.app/Contents/Linux/X", "");
    std::filesystem::copy_file(OKV_LOCALIZED_PROGRAM, program,
                               std::filesystem::copy_options::overwrite_existing);
    FILE* const output = popen(("LC_ALL=C LANGUAGE= '" + program + "' greeting").c_str(), "r");
    ASSERT_NE(output, nullptr);
    std::array<char, 64> line{};
    const std::string text(line.data(), fread(line.data(), 1, line.size(), output));
    EXPECT_EQ(pclose(output), 0);
    EXPECT_EQ(text, "Hello");
}
