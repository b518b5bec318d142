#include "Keys.h"

#include <gtest/gtest.h>

using okv::Value;

TEST(Keys, AreTextsOf1To255BytesWithoutControlCharacters) {
    struct Line {
        Value key;
        bool good;
    };
    const Line lines[] = {
        {"dc-cmnset-common_filter_off", true},
        {"x", true},
        {"any other form", true},
        {"\xE6\x97\xA5\xE6\x9C\xAC", true},
        {std::string(255, 'k'), true},
        {"\xF0\x9F\x98\x80", true},
        {std::string(256, 'k'), false},
        {"", false},
        {"line\nfeed", false},
        {"\x7F", false},
        {std::string("nul\0", 4), false},
        {"\xC2\x85", false},          // a control character of two bytes
        {"\xC0\xAF", false},          // more bytes than needed
        {"\xE0\x80\x80", false},      // the same
        {"\xF0\x80\x80\x80", false},  // the same
        {"\xED\xA0\x80", false},      // half a pair
        {"\xF4\x90\x80\x80", false},  // beyond the last character
        {"\xF5\x80\x80\x80", false},
        {"\xE6\x97", false},  // cut off
        {"\x80", false},
        {"\xE6\x97g", false},
        {Value(), false},
        {okv::Null{}, false},
        {7, false},
        {okv::Data{'k'}, false},
    };
    for (const auto& [key, good] : lines)
        EXPECT_EQ(datacenter::isKey(key, datacenter::Limits()), good)
            << (key.is<std::string>() ? key.as<std::string>() : "no text");
}

TEST(Keys, ThoseOfTheSystemBeginWithItsGroup) {
    EXPECT_TRUE(datacenter::isSystemKey("dc-syscmnf-x"));
    EXPECT_FALSE(datacenter::isSystemKey("dc-syscmnf"));
    EXPECT_FALSE(datacenter::isSystemKey("dc-syscmnfx-y"));
    EXPECT_FALSE(datacenter::isSystemKey("dc-cmnset-syscmnf"));
    EXPECT_TRUE(datacenter::isCommonKey("dc-cmnset-x"));
    EXPECT_FALSE(datacenter::isCommonKey("dc-cmnsett-x"));
}

TEST(Keys, AUserIsANumberObjectOf32Bits) {
    EXPECT_EQ(datacenter::userIdOf(5), 5);
    EXPECT_EQ(datacenter::userIdOf(-1), -1);
    EXPECT_FALSE(datacenter::userIdOf(std::int64_t{1} << 32));
    EXPECT_FALSE(datacenter::userIdOf("5"));
    EXPECT_FALSE(datacenter::userIdOf(true));
    EXPECT_FALSE(datacenter::userIdOf(Value()));
}

TEST(Keys, AValueHoldsNoNilAndIsNotNestedBeyondTheLimit) {
    EXPECT_TRUE(datacenter::isStorable(okv::Null{}, 3));
    EXPECT_TRUE(datacenter::isStorable(okv::Array{okv::Null{}}, 3));
    EXPECT_FALSE(datacenter::isStorable(Value(), 3));
    EXPECT_FALSE(datacenter::isStorable(okv::Array{Value()}, 3));
    EXPECT_FALSE(datacenter::isStorable(okv::Dictionary{{"k", Value()}}, 3));
    Value nested = 1;
    for (int i = 0; i < 3; ++i) nested = okv::Array{nested};
    EXPECT_TRUE(datacenter::isStorable(nested, 3));
    EXPECT_FALSE(datacenter::isStorable(okv::Array{nested}, 3));
}

TEST(Keys, IdsInExportsAreDigits) {
    EXPECT_EQ(datacenter::decimalOf("12"), 12);
    EXPECT_EQ(datacenter::decimalOf(12), 12);
    EXPECT_EQ(datacenter::decimalOf("-1"), -1);
    for (const char* text : {"", "1x", " 1", "99999999999999999999", "0x1"})
        EXPECT_FALSE(datacenter::decimalOf(text)) << text;
}
