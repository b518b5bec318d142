#include "PropertyListCorpus.h"

#include <OKVPlatform/values/PropertyListFile.h>
#include <OKVPlatform/values/StringsTable.h>

#include <gmock/gmock.h>

using testing::AnyOf;
using testing::ContainsRegex;
using testing::StartsWith;

namespace {

// By the reader of the folder's form, not by the one that picks the form.
okv::PropertyListResult readAsItsFolderSays(const std::string& name) {
    const auto bytes = corpus::bytesOf(name);
    if (name.starts_with("plist_xml")) return okv::readPropertyListXml(bytes);
    if (name.starts_with("plist_binary")) return okv::readPropertyListBinary(bytes);
    return okv::readPropertyListText(bytes);
}

class GoodPropertyList : public testing::TestWithParam<std::string> {};
class BadPropertyList : public testing::TestWithParam<std::string> {};
class GoodStrings : public testing::TestWithParam<std::string> {};
class BadStrings : public testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(GoodPropertyList, HoldsWhatItShould) {
    const auto result = readAsItsFolderSays(GetParam());
    ASSERT_TRUE(result) << result.error;
    EXPECT_EQ(corpus::describe(*result.value), corpus::expectedOf(GetParam()));
    EXPECT_EQ(result.error, "");
}

TEST_P(GoodPropertyList, IsReadInItsFormWithoutBeingTold) {
    const auto result = okv::readPropertyList(corpus::bytesOf(GetParam()));
    ASSERT_TRUE(result) << result.error;
    EXPECT_EQ(corpus::describe(*result.value), corpus::expectedOf(GetParam()));
}

TEST_P(GoodPropertyList, IsRefusedOrSomethingElseWhenCutAnywhere) {
    const auto bytes = corpus::bytesOf(GetParam());
    const auto step = 1 + bytes.size() / 500;
    for (std::size_t size = 0; size < bytes.size(); size += step) {
        const auto result = okv::readPropertyList(std::string_view(bytes).substr(0, size));
        EXPECT_NE(result.value.has_value(), !result.error.empty()) << size;
    }
}

INSTANTIATE_TEST_SUITE_P(Corpus, GoodPropertyList,
                         testing::ValuesIn(corpus::propertyLists("good_")), corpus::testName);

TEST_P(BadPropertyList, IsRefusedWithWhatAndWhere) {
    const auto result = readAsItsFolderSays(GetParam());
    EXPECT_FALSE(result);
    EXPECT_THAT(result.error, StartsWith(corpus::expectedOf(GetParam())));
    EXPECT_THAT(result.error, AnyOf(ContainsRegex("^line [0-9]+: ."),
                                    ContainsRegex("^line [0-9]+, column [0-9]+: ."),
                                    ContainsRegex("^byte [0-9]+: .")));
}

INSTANTIATE_TEST_SUITE_P(Corpus, BadPropertyList, testing::ValuesIn(corpus::propertyLists("bad_")),
                         corpus::testName);

TEST_P(GoodStrings, HasEveryTranslation) {
    const auto bytes = corpus::bytesOf(GetParam());
    const auto result = okv::StringsTable::parse(bytes);
    ASSERT_TRUE(result) << result.error;
    const auto entries = okv::readPropertyList(bytes).value.value_or(okv::Dictionary());
    EXPECT_EQ(corpus::describe(entries), corpus::expectedOf(GetParam()));
    EXPECT_EQ(result.table->size(), entries.as<okv::Dictionary>().size());
    for (const auto& [key, text] : entries.as<okv::Dictionary>())
        EXPECT_EQ(*result.table->find(key.as<std::string>()), text.as<std::string>());
}

INSTANTIATE_TEST_SUITE_P(Corpus, GoodStrings,
                         testing::ValuesIn(corpus::filesIn("strings", "good_")), corpus::testName);

TEST_P(BadStrings, IsRefusedWithWhatAndWhere) {
    const auto result = okv::StringsTable::parse(corpus::bytesOf(GetParam()));
    EXPECT_FALSE(result);
    EXPECT_THAT(result.error, StartsWith(corpus::expectedOf(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Corpus, BadStrings, testing::ValuesIn(corpus::filesIn("strings", "bad_")),
                         corpus::testName);

TEST(Corpus, HasGoodAndBadFilesOfEveryForm) {
    for (const auto* folder : {"plist_xml", "plist_binary", "plist_text", "strings"}) {
        EXPECT_GE(corpus::filesIn(folder, "good_").size(), 10U) << folder;
        EXPECT_GE(corpus::filesIn(folder, "bad_").size(), 8U) << folder;
        EXPECT_EQ(corpus::filesIn(folder, "").size(),
                  corpus::filesIn(folder, "good_").size() + corpus::filesIn(folder, "bad_").size());
    }
}
