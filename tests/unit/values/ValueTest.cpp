#include <OKVPlatform/values/SeededHash.h>
#include <OKVPlatform/values/Value.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <utility>
#include <vector>

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
    EXPECT_THROW(static_cast<void>(Value(std::numeric_limits<std::uint64_t>::max())),
                 std::out_of_range);
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

namespace {

/// "def", with three dead bytes before it.
Data cutData() {
    Data data("abcdef");
    data.cutFront(3);
    return data;
}

}  // namespace

TEST(Data, WhatACutOneIsMovedFromIsEmptyAndCanBeUsedAgain) {
    Data source = cutData();
    const Data constructed(std::move(source));
    EXPECT_EQ(constructed, Data("def"));
    // NOLINTBEGIN(bugprone-use-after-move): that it is empty is a promise.
    EXPECT_EQ(source.size(), 0U);
    EXPECT_TRUE(source.empty());
    source.append("xy");
    EXPECT_EQ(source, Data("xy"));
    source.cutFront(1);
    Data assigned("another text");
    assigned.cutFront(8);
    assigned = std::move(source);
    EXPECT_EQ(assigned, Data("y"));
    EXPECT_EQ(source.size(), 0U);
    source.resize(2);
    EXPECT_EQ(source, (Data{0, 0}));
    // NOLINTEND(bugprone-use-after-move)
}

TEST(Data, ACutOneIsCopiedAndComparedByItsBytesOnly) {
    const Data source = cutData();
    Data copy = source;
    EXPECT_EQ(copy, source);
    EXPECT_EQ(copy, Data("def"));
    EXPECT_FALSE(copy == Data("abcdef"));
    copy[0] = 'D';
    EXPECT_EQ(source, Data("def"));
    Data assigned("a longer text");
    assigned = source;
    EXPECT_EQ(assigned, Data("def"));
    EXPECT_EQ(source.sub(1, 2), Data("ef"));
}

TEST(Data, ACutOneIsClearedResizedAndAppendedTo) {
    Data data = cutData();
    data.append("gh");
    data.push_back('i');
    EXPECT_EQ(data, Data("defghi"));
    data.resize(2);
    EXPECT_EQ(data, Data("de"));
    data.resize(4);
    EXPECT_EQ(data, Data(std::string_view("de\0\0", 4)));
    data.cutFront(1);
    data.clear();
    EXPECT_EQ(data.size(), 0U);
    data.append("z");
    EXPECT_EQ(data, Data("z"));
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

TEST(Dictionary, IsTheSameAsAPlainListThroughAnyMixOfChanges) {
    Dictionary dictionary;
    std::vector<std::pair<int, int>> plain;
    std::mt19937 random(7);
    for (int round = 0; round < 20000; ++round) {
        // It grows at first, and shrinks to nothing in the end.
        const int key = static_cast<int>(random() % 300);
        const auto at = std::find_if(plain.begin(), plain.end(),
                                     [&](const auto& entry) { return entry.first == key; });
        if (random() % 20000 < static_cast<unsigned>(round)) {
            EXPECT_EQ(dictionary.erase(key), at != plain.end());
            if (at != plain.end()) plain.erase(at);
        } else {
            dictionary.set(key, round);
            if (at != plain.end()) at->second = round;
            if (at == plain.end()) plain.emplace_back(key, round);
        }
        if (round % 50 != 0) continue;
        ASSERT_EQ(dictionary.size(), plain.size());
        for (std::size_t i = 0; i < plain.size(); ++i) {
            ASSERT_EQ(dictionary.begin()[i].key, Value(plain[i].first));
            ASSERT_EQ(dictionary[Value(plain[i].first)], Value(plain[i].second));
        }
    }
}

TEST(SeededHash, IsTheSameForTheSameTextAndHardlyEverForAnother) {
    std::set<std::uint64_t> hashes;
    for (int i = 0; i < 20000; ++i) hashes.insert(okv::seededHash("dc-key-" + std::to_string(i)));
    EXPECT_EQ(hashes.size(), 20000U);
    EXPECT_EQ(okv::seededHash("dc-key-1"), okv::seededHash(std::string("dc-key-1")));
    EXPECT_NE(okv::seededHash(""), okv::seededHash(std::string_view("\0", 1)));
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
