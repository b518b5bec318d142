#include <OKVPlatform/values/StringsTable.h>

#include <gtest/gtest.h>

using okv::StringsTable;

TEST(StringsTable, AnswersTheTextOfAKeyOrNone) {
    const auto result = StringsTable::parse("\"Open\" = \"Ouvrir\"; Close;");
    ASSERT_TRUE(result) << result.error;
    EXPECT_EQ(*result.table->find("Open"), "Ouvrir");
    EXPECT_EQ(*result.table->find("Close"), "Close");
    EXPECT_EQ(result.table->find("open"), nullptr);
    EXPECT_EQ(result.table->find(""), nullptr);
}

TEST(StringsTable, AnEntryThatIsNoTextHasNoTranslation) {
    const auto result = StringsTable::parse("a = {one = x;}; b = y;");
    ASSERT_TRUE(result) << result.error;
    EXPECT_EQ(result.table->find("a"), nullptr);
    EXPECT_EQ(*result.table->find("b"), "y");
}

TEST(StringsTable, OfTwoEntriesTheLaterOneCounts) {
    EXPECT_EQ(*StringsTable::parse("a = x; a = y;").table->find("a"), "y");
}

TEST(StringsTable, ThatIsMissingSaysSo) {
    EXPECT_EQ(StringsTable::load("/nonexistent/x.strings").error,
              "/nonexistent/x.strings: No such file or directory");
}
