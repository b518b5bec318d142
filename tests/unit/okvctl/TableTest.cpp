#include "Table.h"

#include <gtest/gtest.h>

using okvctl::Style;
using okvctl::Table;

TEST(Table, ColumnsAreAsWideAsTheirWidestCellAndEndWithoutBlanks) {
    Table table;
    table.add({"a", "bb", "c"});
    table.add({"\xE3\x81\x82\xE3\x81\x84", "b", "cc"});
    EXPECT_EQ(table.text(true, false), "a   bb  c\n\xE3\x81\x82\xE3\x81\x84  b   cc\n");
}

TEST(Table, TheLegendIsAHeadAndANumber) {
    Table table({"KEY", "TYPE"}, {"key", "keys"});
    table.add({"a", "int"});
    EXPECT_EQ(table.text(true, false), "KEY  TYPE\na    int\n\n1 key\n");
    table.add({"dc-b", "string"});
    EXPECT_EQ(table.text(true, false), "KEY   TYPE\na     int\ndc-b  string\n\n2 keys\n");
    EXPECT_EQ(table.text(false, false), "a     int\ndc-b  string\n");
}

TEST(Table, WithoutRowsIsNothingButANumber) {
    const Table table({"KEY"}, {"key", "keys"});
    EXPECT_EQ(table.text(true, true), "0 keys\n");
    EXPECT_EQ(table.text(false, true), "");
}

TEST(Table, ColoursTakeNoRoom) {
    Table table({"KEY", "X"}, {"key", "keys"});
    table.add({{"a", Style::warning}, "1"});
    EXPECT_EQ(table.text(true, true),
              "\x1B[1mKEY\x1B[0m  \x1B[1mX\x1B[0m\n\x1B[33ma\x1B[0m    1\n\n1 key\n");
}
