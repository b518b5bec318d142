#include <OKVDataManager/okvCmnUtil.h>

#include <gtest/gtest.h>

#include <utility>

using okv::Data;

namespace {

Data bytes(std::string_view text) {
    return Data(text);
}

struct SizeRow {
    const char* buffer;
    std::uint32_t size;
    bool done;
    const char* piece;
    const char* rest;
};

class CutBySize : public testing::TestWithParam<SizeRow> {};

struct DelimiterRow {
    const char* buffer;
    const char* delimiter;
    std::optional<std::string> piece;
    const char* rest;
};

class CutAtDelimiter : public testing::TestWithParam<DelimiterRow> {};

struct PastTheEndRow {
    const char* buffer;
    const char* delimiter;
};

class ScanPastTheEnd : public testing::TestWithParam<PastTheEndRow> {};

}  // namespace

TEST_P(CutBySize, TakesTheFirstBytes) {
    Data buffer = bytes(GetParam().buffer);
    Data piece = bytes("untouched");
    EXPECT_EQ(okvCmnUtil::subData_size_dstData(buffer, GetParam().size, piece), GetParam().done);
    EXPECT_EQ(piece, bytes(GetParam().piece));
    EXPECT_EQ(buffer, bytes(GetParam().rest));
}

INSTANTIATE_TEST_SUITE_P(Rows, CutBySize,
                         testing::Values(SizeRow{"abcdef", 2, true, "ab", "cdef"},
                                         SizeRow{"abcdef", 6, true, "abcdef", ""},
                                         SizeRow{"abcdef", 1, true, "a", "bcdef"},
                                         SizeRow{"abcdef", 0, false, "untouched", "abcdef"},
                                         SizeRow{"abcdef", 7, false, "untouched", "abcdef"},
                                         SizeRow{"abcdef", UINT32_MAX, false, "untouched",
                                                 "abcdef"},
                                         SizeRow{"", 0, false, "untouched", ""},
                                         SizeRow{"", 1, false, "untouched", ""}));

TEST_P(CutAtDelimiter, TakesWhatStandsBeforeIt) {
    Data buffer = bytes(GetParam().buffer);
    const auto piece = okvCmnUtil::subDataToDelimiter_delimiter(buffer, GetParam().delimiter);
    ASSERT_EQ(piece.has_value(), GetParam().piece.has_value());
    if (piece) {
        EXPECT_EQ(*piece, bytes(*GetParam().piece));
    }
    EXPECT_EQ(buffer, bytes(GetParam().rest));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, CutAtDelimiter,
    testing::Values(
        DelimiterRow{"abc,def", ",", "abc", "def"}, DelimiterRow{",x", ",", "", "x"},
        DelimiterRow{"a,b,c", ",", "a", "b,c"},
        // The last byte position is never tried.
        DelimiterRow{"abc,", ",", std::nullopt, "abc,"}, DelimiterRow{",", ",", std::nullopt, ","},
        DelimiterRow{"x", ",", std::nullopt, "x"}, DelimiterRow{",,", ",", "", ","},
        DelimiterRow{"abc", ",", std::nullopt, "abc"}, DelimiterRow{"abc", "", std::nullopt, "abc"},
        DelimiterRow{"", ",", std::nullopt, ""}, DelimiterRow{"", "", std::nullopt, ""},
        DelimiterRow{"", "abc", std::nullopt, ""},
        // Two characters wide, up to the very end.
        DelimiterRow{"ab\r\n", "\r\n", "ab", ""}, DelimiterRow{"\r\n", "\r\n", "", ""},
        DelimiterRow{"ab\r", "\r\n", std::nullopt, "ab\r"},
        DelimiterRow{"\r\r\nx", "\r\n", "\r", "x"},
        // Three and more, found before the end is reached.
        DelimiterRow{"ab---", "---", "ab", ""}, DelimiterRow{"a--b---c", "---", "a--b", "c"},
        // A one-byte buffer tries no position at all, so there is no range error either.
        DelimiterRow{"a", "abc", std::nullopt, "a"},
        // One or two characters that are not ASCII are narrower than their bytes: never equal.
        DelimiterRow{"a\xC3\xA9z", "\xC3\xA9", std::nullopt, "a\xC3\xA9z"},
        DelimiterRow{"a\xE3\x80\x82z", "\xE3\x80\x82", std::nullopt, "a\xE3\x80\x82z"},
        DelimiterRow{"a\xF0\x9F\x98\x80z", "\xF0\x9F\x98\x80", std::nullopt, "a\xF0\x9F\x98\x80z"},
        DelimiterRow{"a,\xC3\xA9z", ",\xC3\xA9", std::nullopt, "a,\xC3\xA9z"}));

TEST_P(ScanPastTheEnd, IsARangeErrorThatLeavesTheBufferUnchanged) {
    Data buffer = bytes(GetParam().buffer);
    EXPECT_THROW(okvCmnUtil::subDataToDelimiter_delimiter(buffer, GetParam().delimiter),
                 std::out_of_range);
    EXPECT_EQ(buffer, bytes(GetParam().buffer));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ScanPastTheEnd,
    testing::Values(PastTheEndRow{"abcdef", "---"}, PastTheEndRow{"ab", "abc"},
                    PastTheEndRow{"ab--", "---"},
                    PastTheEndRow{"abcdef", "a rather long delimiter"},
                    // Three characters, six bytes: they never match.
                    PastTheEndRow{"x\xC3\xA9\xC3\xA9\xC3\xA9y", "\xC3\xA9\xC3\xA9\xC3\xA9"},
                    // Two characters, but three UTF-16 units.
                    PastTheEndRow{"a,\xF0\x9F\x98\x80z", ",\xF0\x9F\x98\x80"}));

TEST(CutAtDelimiter, ADelimiterMayHoldANulByte) {
    Data buffer = bytes(std::string_view("a\0b", 3));
    EXPECT_EQ(okvCmnUtil::subDataToDelimiter_delimiter(buffer, std::string_view("\0", 1)),
              bytes("a"));
    EXPECT_EQ(buffer, bytes("b"));
}

TEST(CutAtDelimiter, CutsALargeBufferIntoAllItsLines) {
    constexpr int kLines = 200000;
    Data buffer;
    for (int i = 0; i < kLines; ++i) buffer.append(std::to_string(i) + "\n");
    buffer.append("rest");
    for (int i = 0; i < kLines; ++i) {
        const auto line = okvCmnUtil::subDataToDelimiter_delimiter(buffer, "\n");
        ASSERT_TRUE(line);
        ASSERT_EQ(line->text(), std::to_string(i));
    }
    EXPECT_FALSE(okvCmnUtil::subDataToDelimiter_delimiter(buffer, "\n"));
    EXPECT_EQ(buffer, bytes("rest"));
}

// As whoever reads a stream uses them: the buffer grows between cuts, and is handed on.

TEST(CutBySize, AGrowingBufferIsCutAgain) {
    Data buffer = bytes("abcdef");
    Data piece;
    ASSERT_TRUE(okvCmnUtil::subData_size_dstData(buffer, 4, piece));
    buffer.append("ghi");
    ASSERT_TRUE(okvCmnUtil::subData_size_dstData(buffer, 3, piece));
    EXPECT_EQ(piece, bytes("efg"));
    Data handedOn = std::move(buffer);
    // NOLINTNEXTLINE(bugprone-use-after-move): it is empty, and cannot be cut.
    EXPECT_FALSE(okvCmnUtil::subData_size_dstData(buffer, 1, piece));
    EXPECT_FALSE(okvCmnUtil::subData_size_dstData(handedOn, 3, piece));
    EXPECT_EQ(piece, bytes("efg"));
    ASSERT_TRUE(okvCmnUtil::subData_size_dstData(handedOn, 2, piece));
    EXPECT_EQ(piece, bytes("hi"));
    buffer.append("xyz");
    ASSERT_TRUE(okvCmnUtil::subData_size_dstData(buffer, 2, piece));
    EXPECT_EQ(piece, bytes("xy"));
}

TEST(CutAtDelimiter, AGrowingBufferIsCutAgain) {
    Data buffer = bytes("one\ntw");
    EXPECT_EQ(okvCmnUtil::subDataToDelimiter_delimiter(buffer, "\n"), bytes("one"));
    EXPECT_FALSE(okvCmnUtil::subDataToDelimiter_delimiter(buffer, "\n"));
    buffer.append("o\nthree\nfo");
    EXPECT_EQ(okvCmnUtil::subDataToDelimiter_delimiter(buffer, "\n"), bytes("two"));
    Data handedOn = std::move(buffer);
    // NOLINTNEXTLINE(bugprone-use-after-move): it is empty, so nothing is found in it.
    EXPECT_FALSE(okvCmnUtil::subDataToDelimiter_delimiter(buffer, "\n"));
    buffer.append("a\nb");
    EXPECT_EQ(okvCmnUtil::subDataToDelimiter_delimiter(buffer, "\n"), bytes("a"));
    EXPECT_EQ(okvCmnUtil::subDataToDelimiter_delimiter(handedOn, "\n"), bytes("three"));
    EXPECT_EQ(handedOn, bytes("fo"));
}
