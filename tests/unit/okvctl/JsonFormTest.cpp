#include "JsonForm.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using okv::Array;
using okv::Data;
using okv::Date;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using okvctl::jsonText;
using okvctl::parseJson;

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

Value nested(std::size_t depth, bool numberKeys) {
    Value value = 1;
    for (std::size_t i = 0; i < depth; ++i) {
        if (numberKeys) {
            value = Dictionary{{1, std::move(value)}};
        } else {
            value = Array{std::move(value)};
        }
    }
    return value;
}

struct JsonRow {
    Value value;
    const char* json;
};

class JsonForm : public testing::TestWithParam<JsonRow> {};

struct BadRow {
    const char* name;
    std::string json;
};

class BadJson : public testing::TestWithParam<BadRow> {};

}  // namespace

TEST_P(JsonForm, IsWrittenSoAndReadsBackAsItself) {
    EXPECT_EQ(jsonText(GetParam().value), GetParam().json);
    const auto read = parseJson(GetParam().json);
    ASSERT_TRUE(read) << read.error;
    EXPECT_EQ(*read.value, GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, JsonForm,
    testing::Values(
        JsonRow{Null{}, "null"}, JsonRow{Value(), R"({"$nil":true})"}, JsonRow{true, "true"},
        JsonRow{false, "false"}, JsonRow{0, "0"}, JsonRow{INT64_MIN, "-9223372036854775808"},
        JsonRow{INT64_MAX, "9223372036854775807"}, JsonRow{1.0, "1.0"}, JsonRow{-0.5, "-0.5"},
        JsonRow{1e300, "1e+300"}, JsonRow{5e-324, "5e-324"}, JsonRow{0.1, "0.1"},
        JsonRow{std::nan(""), R"({"$real":"nan"})"}, JsonRow{kInfinity, R"({"$real":"inf"})"},
        JsonRow{-kInfinity, R"({"$real":"-inf"})"}, JsonRow{"", R"("")"},
        JsonRow{"a\nb\"\\\x01", R"("a\nb\"\\\u0001")"}, JsonRow{"\xE3\x81\x82", "\"\xE3\x81\x82\""},
        JsonRow{std::string("a\0b", 3), R"("a\u0000b")"}, JsonRow{"\xFF", R"({"$bytes":"/w=="})"},
        JsonRow{"\xED\xA0\x80", R"({"$bytes":"7aCA"})"},
        JsonRow{Date{1769903999}, R"({"$date":"2026-01-31T23:59:59Z"})"},
        JsonRow{Date{1769903999.25}, R"({"$date":"2026-01-31T23:59:59.25Z"})"},
        JsonRow{Date{-1}, R"({"$date":"1969-12-31T23:59:59Z"})"},
        JsonRow{Date{-0.5}, R"({"$date":-0.5})"}, JsonRow{Date{1e300}, R"({"$date":1e+300})"},
        JsonRow{Date{std::nan("")}, R"({"$date":"nan"})"},
        JsonRow{Date{kInfinity}, R"({"$date":"inf"})"}, JsonRow{Data{}, R"({"$data":""})"},
        JsonRow{Data{0, 255}, R"({"$data":"AP8="})"}, JsonRow{Array{}, "[]"},
        JsonRow{Array{1, Null{}, Value()}, R"([1,null,{"$nil":true}])"},
        JsonRow{Dictionary{}, "{}"}, JsonRow{Dictionary{{"b", 1}, {"a", 2}}, R"({"b":1,"a":2})"},
        JsonRow{Dictionary{{"$date", 1}}, R"({"$dictionary":[["$date",1]]})"},
        JsonRow{Dictionary{{"$a", 1}, {"$b", 2}}, R"({"$a":1,"$b":2})"},
        JsonRow{Dictionary{{1, "x"}, {1.0, "y"}, {true, "z"}},
                R"({"$dictionary":[[1,"x"],[1.0,"y"],[true,"z"]]})"},
        JsonRow{Dictionary{{"\xFF", 1}, {"a", 2}},
                R"({"$dictionary":[[{"$bytes":"/w=="},1],["a",2]]})"}));

TEST(JsonForm, NegativeZeroKeepsItsSign) {
    const auto read = parseJson(jsonText(-0.0));
    ASSERT_TRUE(read);
    EXPECT_TRUE(std::signbit(read.value->as<double>()));
}

TEST(JsonForm, GoesAsDeepAsTheWireInEitherForm) {
    for (const bool numberKeys : {false, true}) {
        const auto value = nested(64, numberKeys);
        const auto read = parseJson(jsonText(value));
        ASSERT_TRUE(read) << read.error;
        EXPECT_EQ(*read.value, value);
        EXPECT_THROW(jsonText(nested(65, numberKeys)), std::length_error);
    }
}

TEST(JsonForm, InAsciiIsTheSameValue) {
    const Value value = "\xE3\x81\x82\x7F";
    const auto text = jsonText(value, okvctl::JsonStyle::ascii);
    EXPECT_EQ(text, R"("\u3042\u007f")");
    EXPECT_EQ(*parseJson(text).value, value);
}

TEST_P(BadJson, IsRefusedWithAReason) {
    const auto read = parseJson(GetParam().json);
    EXPECT_FALSE(read);
    EXPECT_FALSE(read.error.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BadJson,
    testing::Values(
        BadRow{"empty", ""}, BadRow{"cut", "[1,"}, BadRow{"leftOver", "1 2"},
        BadRow{"notUtf8", "\"\xFF\""}, BadRow{"halfSurrogate", R"("\ud800")"},
        BadRow{"beyond64Bits", "9223372036854775808"},
        BadRow{"farBeyond64Bits", "123456789012345678901234567890"},
        BadRow{"farBelow64Bits", "-9223372036854775809"}, BadRow{"beyondDouble", "1e999"},
        BadRow{"keyTwice", R"({"a":1,"a":2})"}, BadRow{"unknownForm", R"({"$what":1})"},
        BadRow{"nilOfFalse", R"({"$nil":false})"}, BadRow{"realOfNumber", R"({"$real":1.5})"},
        BadRow{"realOfFinite", R"({"$real":"1.5"})"}, BadRow{"dateOfText", R"({"$date":"x"})"},
        BadRow{"dataOfText", R"({"$data":"?"})"}, BadRow{"bytesOfNumber", R"({"$bytes":1})"},
        BadRow{"pairsOfOne", R"({"$dictionary":[[1]]})"},
        BadRow{"keyOfNull", R"({"$dictionary":[[null,1]]})"},
        BadRow{"pairTwice", R"({"$dictionary":[[1,2],[1,3]]})"},
        BadRow{"deeperThan64", std::string(65, '[') + std::string(65, ']')},
        BadRow{"hugeDepth", std::string(1000000, '[')},
        BadRow{"tooLong", std::string(okvctl::kJsonTextAtMost + 1, ' ')}),
    [](const auto& row) { return row.param.name; });
