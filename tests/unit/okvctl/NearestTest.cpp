#include "Nearest.h"

#include <gtest/gtest.h>

#include <vector>

using okvctl::didYouMean;
using okvctl::distanceBetween;

TEST(Nearest, CountsEveryKindOfSlip) {
    EXPECT_EQ(distanceBetween("get", "get"), 0U);
    EXPECT_EQ(distanceBetween("get", "gett"), 1U);
    EXPECT_EQ(distanceBetween("get", "gt"), 1U);
    EXPECT_EQ(distanceBetween("get", "set"), 1U);
    EXPECT_EQ(distanceBetween("gte", "get"), 1U);
    EXPECT_EQ(distanceBetween("", "abc"), 3U);
}

TEST(Nearest, SuggestsTheNearestWordAndNothingThatIsFar) {
    const std::vector<std::string_view> known{"get", "set", "status"};
    EXPECT_EQ(didYouMean("stauts", known), "; did you mean status?");
    EXPECT_EQ(didYouMean("gte", known), "; did you mean get?");
    EXPECT_EQ(didYouMean("frobnicate", known), "");
    EXPECT_EQ(didYouMean(std::string(100000, 'x'), known), "");
}
