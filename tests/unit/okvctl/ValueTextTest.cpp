#include "ValueText.h"

#include <gtest/gtest.h>

using okv::Array;
using okv::Data;
using okv::Date;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using okvctl::cellText;
using okvctl::parseValue;
using okvctl::ValueType;
using okvctl::valueTypeNamed;

namespace {

struct ValueRow {
    const char* type;
    std::string text;
    Value value;
};

class ValueText : public testing::TestWithParam<ValueRow> {};
class NoValue : public testing::TestWithParam<std::pair<const char*, const char*>> {};

struct CellRow {
    Value value;
    const char* cell;
};

class Cell : public testing::TestWithParam<CellRow> {};

}  // namespace

TEST_P(ValueText, IsReadByItsType) {
    const auto read = parseValue(valueTypeNamed(GetParam().type).value(), GetParam().text);
    ASSERT_TRUE(read) << read.error;
    EXPECT_EQ(*read.value, GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ValueText,
    testing::Values(
        ValueRow{"string", "12", "12"}, ValueRow{"string", "", ""},
        ValueRow{"string", "a\n\"\xFF", "a\n\"\xFF"}, ValueRow{"int", "-12", -12},
        ValueRow{"int", "0x1F", 31}, ValueRow{"int", "-9223372036854775808", INT64_MIN},
        ValueRow{"bool", "true", true}, ValueRow{"bool", "on", true}, ValueRow{"bool", "1", true},
        ValueRow{"bool", "yes", true}, ValueRow{"bool", "false", false},
        ValueRow{"bool", "off", false}, ValueRow{"bool", "0", false}, ValueRow{"bool", "no", false},
        ValueRow{"real", "1", 1.0}, ValueRow{"real", "-2.5e3", -2500.0},
        ValueRow{"date", "1970-01-01T00:00:01Z", Date{1}}, ValueRow{"date", "@1.5", Date{1.5}},
        ValueRow{"data", "aGk=", Data(std::string_view("hi"))}, ValueRow{"data", "", Data()},
        ValueRow{"json", "[1, {\"a\": null}]", Array{1, Dictionary{{"a", Null{}}}}},
        ValueRow{"null", "", Null{}}));

TEST_P(NoValue, IsRefusedWithAReason) {
    const auto read = parseValue(valueTypeNamed(GetParam().first).value(), GetParam().second);
    EXPECT_FALSE(read);
    EXPECT_FALSE(read.error.empty());
}

INSTANTIATE_TEST_SUITE_P(Rows, NoValue,
                         testing::Values(std::pair{"int", ""}, std::pair{"int", "1.5"},
                                         std::pair{"int", "1x"},
                                         std::pair{"int", "9223372036854775808"},
                                         std::pair{"bool", "TRUE!"}, std::pair{"bool", ""},
                                         std::pair{"real", "one"}, std::pair{"real", ""},
                                         std::pair{"date", "tomorrow"}, std::pair{"data", "a"},
                                         std::pair{"json", "{"}, std::pair{"null", "x"}));

TEST(ValueText, NowIsADate) {
    const auto before = Date::now().secondsSince1970;
    const auto read = parseValue(ValueType::date, "now");
    ASSERT_TRUE(read);
    EXPECT_GE(read.value->as<Date>().secondsSince1970, before);
}

TEST(ValueText, AnUnknownTypeHasNone) {
    EXPECT_EQ(valueTypeNamed("integer"), std::nullopt);
    EXPECT_EQ(valueTypeNamed(""), std::nullopt);
}

TEST_P(Cell, IsOneLineThatLeavesNoDoubt) {
    EXPECT_EQ(cellText(GetParam().value), GetParam().cell);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Cell,
    testing::Values(CellRow{"plain text", "plain text"}, CellRow{"", "\"\""},
                    CellRow{" blank", "\" blank\""}, CellRow{"blank ", "\"blank \""},
                    CellRow{"\"quoted\"", R"("\"quoted\"")"}, CellRow{"{}", "\"{}\""},
                    CellRow{"a\nb", R"("a\nb")"}, CellRow{"\x1B[31m", R"("\u001b[31m")"},
                    CellRow{"\xC2\x9B", R"("\u009b")"}, CellRow{"\x7F", R"("\u007f")"},
                    CellRow{"\xFF", R"({"$bytes":"/w=="})"},
                    CellRow{"\xE3\x81\x82", "\xE3\x81\x82"}, CellRow{5, "5"}, CellRow{1.5, "1.5"},
                    CellRow{true, "true"}, CellRow{Null{}, "null"}, CellRow{Value(), "nil"},
                    CellRow{Date{0}, "1970-01-01T00:00:00Z"}, CellRow{Data{104, 105}, "aGk="},
                    CellRow{Array{"a", 1}, R"(["a",1])"},
                    CellRow{Dictionary{{"k", "\xC2\x9B"}}, R"({"k":"\u009b"})"}));

TEST(MessageText, QuotesWhatATerminalWouldActOn) {
    EXPECT_EQ(okvctl::messageText("plain \xE3\x81\x82"), "plain \xE3\x81\x82");
    EXPECT_EQ(okvctl::messageText("a\n\x1B\xFF"), "a\\x0a\\x1b\\xff");
}
