#include <OKVPlatform/values/Value.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using okv::Array;
using okv::Data;
using okv::Dictionary;
using okv::Null;
using okv::Value;

TEST(Value, NilAndTheNullObjectAreDifferentValues) {
    EXPECT_TRUE(Value().isNil());
    EXPECT_TRUE(Value(Null{}).isNull());
    EXPECT_FALSE(Value() == Value(Null{}));
    EXPECT_TRUE(Value().isMissing() && Value(Null{}).isMissing());
}

TEST(Value, NumbersOfDifferentKindsDiffer) {
    EXPECT_FALSE(Value(1) == Value(true));
    EXPECT_FALSE(Value(1) == Value(1.0));
    EXPECT_TRUE(Value(std::nan("")) == Value(std::nan("")));
}

TEST(Value, AnUnsignedIntegerAboveTheRangeIsRefused) {
    EXPECT_THROW(Value(std::numeric_limits<std::uint64_t>::max()), std::out_of_range);
    EXPECT_EQ(Value(std::uint64_t{INT64_MAX}).longLongValue(), INT64_MAX);
}

struct IntRow {
    Value value;
    std::int32_t expected;
};

class IntValue : public testing::TestWithParam<IntRow> {};

TEST_P(IntValue, ReadsAsThePlatformDoes) {
    EXPECT_EQ(GetParam().value.intValue(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, IntValue,
    testing::Values(IntRow{"80", 80}, IntRow{"  \t-12abc", -12}, IntRow{"+7", 7}, IntRow{"abc", 0},
                    IntRow{"", 0}, IntRow{"--1", 0}, IntRow{"99999999999", INT32_MAX},
                    IntRow{"-99999999999", INT32_MIN}, IntRow{"99999999999999999999999", INT32_MAX},
                    IntRow{2.9, 2}, IntRow{-2.9, -2}, IntRow{1e300, INT32_MAX},
                    IntRow{std::nan(""), 0}, IntRow{true, 1},
                    IntRow{std::int64_t{1} << 40, INT32_MAX}, IntRow{Null{}, 0}, IntRow{Value(), 0},
                    IntRow{Array{1}, 0}, IntRow{Dictionary{{"a", 1}}, 0}));

TEST(Value, LongLongValueClampsTextAtItsEnds) {
    EXPECT_EQ(Value("9223372036854775808").longLongValue(), INT64_MAX);
    EXPECT_EQ(Value("-9223372036854775808").longLongValue(), INT64_MIN);
    EXPECT_EQ(Value("-9223372036854775809").longLongValue(), INT64_MIN);
}

TEST(Data, CuttingTheFrontKeepsTheRest) {
    Data data(std::size_t{100000});
    data[99999] = 7;
    for (int i = 0; i < 99999; ++i) data.cutFront(1);
    EXPECT_EQ(data, Data{7});
    EXPECT_THROW(data.cutFront(2), std::out_of_range);
    EXPECT_THROW(data.sub(0, 2), std::out_of_range);
}

TEST(Dictionary, KeepsInsertionOrderAndReplacesInPlace) {
    Dictionary dictionary{{"b", 1}, {"a", 2}};
    dictionary.set("b", 3);
    EXPECT_EQ(dictionary.begin()[0].key, Value("b"));
    EXPECT_EQ(dictionary["b"], Value(3));
    EXPECT_TRUE(dictionary["missing"].isNil());
}

TEST(Dictionary, FindsEveryKeyOfALargeOneAfterErasing) {
    Dictionary dictionary;
    for (int i = 0; i < 5000; ++i) dictionary.set(i, i * 2);
    for (int i = 0; i < 5000; i += 100) EXPECT_TRUE(dictionary.erase(i));
    for (int i = 0; i < 5000; ++i) EXPECT_EQ(dictionary[Value(i)].isNil(), i % 100 == 0);
    EXPECT_EQ(dictionary.size(), 4950U);
}

TEST(Dictionary, ComparesWithoutRegardToOrder) {
    EXPECT_EQ((Dictionary{{"a", 1}, {"b", 2}}), (Dictionary{{"b", 2}, {"a", 1}}));
    EXPECT_FALSE((Dictionary{{"a", 1}}) == (Dictionary{{"a", 2}}));
}

TEST(Dictionary, RefusesAKeyThatIsNeitherTextNorNumber) {
    Dictionary dictionary;
    EXPECT_THROW(dictionary.set(Null{}, 1), std::invalid_argument);
    EXPECT_THROW(dictionary.set(Array{}, 1), std::invalid_argument);
}
