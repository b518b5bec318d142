#include "PropertyListCorpus.h"
#include "support/Sanitizers.h"

#include <OKVPlatform/values/PropertyListFile.h>

#include <gmock/gmock.h>

#include <limits>
#include <random>

using okv::Array;
using okv::Data;
using okv::Date;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// Only what the XML form can carry: whole seconds, texts of characters that XML allows.
class RandomLists {
public:
    explicit RandomLists(unsigned seed) : engine_(seed) {}

    Value next(int depth = 0) {
        switch (pick(depth < 6 ? 8 : 6)) {
            case 0:
                return pick(2) == 1;
            case 1:
                return static_cast<std::int64_t>(engine_()) >> pick(64);
            case 2:
                return real();
            case 3:
                return text();
            case 4:
                return Date{
                    static_cast<double>(static_cast<std::int64_t>(engine_()) % 60000000000)};
            case 5:
                return data();
            case 6:
                return array(depth);
            default:
                return dictionary(depth);
        }
    }

private:
    int pick(int below) { return static_cast<int>(engine_() % static_cast<unsigned>(below)); }

    double real() {
        constexpr double kSpecial[] = {
            std::numeric_limits<double>::infinity(),   -std::numeric_limits<double>::infinity(),
            std::numeric_limits<double>::quiet_NaN(),  std::numeric_limits<double>::max(),
            std::numeric_limits<double>::denorm_min(), -0.0};
        if (pick(3) == 0) return kSpecial[pick(6)];
        return std::ldexp(static_cast<double>(engine_()), pick(400) - 200);
    }
    std::string text() {
        static const std::string kPieces[] = {"a", " ",  "\n",    "\r",   "\r\n", "\t",
                                              "<", "&",  "&amp;", "]]>",  "\"",   "'",
                                              "é", "日", "𠮷",    "\x7F", "-->"};
        std::string text;
        for (int i = pick(20); i > 0; --i) text += kPieces[pick(17)];
        return text;
    }
    Data data() {
        Data data(static_cast<std::size_t>(pick(50)));
        for (auto& byte : data) byte = static_cast<std::uint8_t>(engine_());
        return data;
    }
    Value array(int depth) {
        Array array(static_cast<std::size_t>(pick(8)));
        for (auto& element : array) element = next(depth + 1);
        return array;
    }
    Value dictionary(int depth) {
        Dictionary dictionary;
        for (int i = pick(8); i > 0; --i) dictionary.set(text(), next(depth + 1));
        return dictionary;
    }

    std::mt19937_64 engine_;
};

Value nestedArrays(std::size_t depth) {
    Value value = Array();
    for (std::size_t i = 1; i < depth; ++i) value = Array{std::move(value)};
    return value;
}

std::string refusalOf(const Value& value) {
    try {
        okv::writePropertyListXml(value);
    } catch (const std::invalid_argument& refused) {
        return refused.what();
    }
    return "accepted";
}

std::string bigEndian(std::uint64_t number, std::size_t width) {
    std::string bytes;
    for (std::size_t i = width; i > 0; --i) bytes += static_cast<char>(number >> (8 * (i - 1)));
    return bytes;
}

}  // namespace

TEST(PropertyList, ComesBackFromXmlAsItWas) {
    RandomLists lists(20260131);
    for (int i = 0; i < 2000; ++i) {
        const auto value = lists.next();
        const auto xml = okv::writePropertyListXml(value);
        const auto result = okv::readPropertyList(xml);
        ASSERT_TRUE(result) << result.error << "\n" << xml;
        // The descriptions also tell the order of keys and the sign of zero.
        ASSERT_EQ(corpus::describe(*result.value), corpus::describe(value)) << xml;
        ASSERT_EQ(*result.value, value);
    }
}

TEST(PropertyList, IsWrittenInTheFormThatOtherToolsRead) {
    const Dictionary list{{"name", "a<b"}, {"list", Array{1, true, 0.5}}, {"none", Dictionary()}};
    EXPECT_EQ(okv::writePropertyListXml(list),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
              "<plist version=\"1.0\">\n"
              "<dict>\n"
              "\t<key>name</key>\n\t<string>a&lt;b</string>\n"
              "\t<key>list</key>\n"
              "\t<array>\n\t\t<integer>1</integer>\n\t\t<true/>\n\t\t<real>0.5</real>\n\t</array>\n"
              "\t<key>none</key>\n\t<dict>\n\t</dict>\n"
              "</dict>\n"
              "</plist>\n");
}

TEST(PropertyList, DatesAreWrittenInWholeSecondsDownwards) {
    EXPECT_THAT(okv::writePropertyListXml(Date{1.75}), HasSubstr("<date>1970-01-01T00:00:01Z<"));
    EXPECT_THAT(okv::writePropertyListXml(Date{-0.25}), HasSubstr("<date>1969-12-31T23:59:59Z<"));
}

TEST(PropertyList, WhatXmlCannotSayIsRefusedWithItsPlace) {
    const struct {
        Value value;
        std::string where;
        std::string what;
    } rows[] = {
        {Value(), "the outermost value: ", "nil"},
        {Array{1, Null{}}, "[1]: ", "the null object"},
        {Dictionary{{"a", Array{Dictionary{{"b", Value()}}}}}, "/a[0]/b: ", "nil"},
        {Dictionary{{1, "x"}}, "the outermost value: ", "a key that is not a text"},
        {Dictionary{{"k", Dictionary{{2.5, "x"}}}}, "/k: ", "a key that is not a text"},
        {Dictionary{{"k", "\xFF"}}, "/k: ", "XML cannot carry"},
        {Dictionary{{"k", "\x01"}}, "/k: ", "XML cannot carry"},
        {Dictionary{{"k", std::string("a\0b", 3)}}, "/k: ", "XML cannot carry"},
        {Array{"\xED\xA0\x80"}, "[0]: ", "XML cannot carry"},
        {Array{"\xEF\xBF\xBF"}, "[0]: ", "XML cannot carry"},
        {Dictionary{{"\x02", 1}}, "", "XML cannot carry"},
        {Array{Date{std::nan("")}}, "[0]: ", "the years 1 to 9999"},
        {Array{Date{253402300800.0}}, "[0]: ", "the years 1 to 9999"},
        {Array{Date{-62135596800.5}}, "[0]: ", "the years 1 to 9999"},
        {nestedArrays(65), "[0][0]", "nested deeper than 64"},
    };
    for (const auto& row : rows) {
        const auto refusal = refusalOf(row.value);
        EXPECT_THAT(refusal, StartsWith("okv::writePropertyListXml: " + row.where));
        EXPECT_THAT(refusal, HasSubstr(row.what));
    }
    EXPECT_EQ(refusalOf(nestedArrays(64)), "accepted");
    EXPECT_EQ(refusalOf(Array{Date{253402300799.5}, Date{-62135596800.0}}), "accepted");
}

TEST(PropertyList, OfNoBytesIsRefused) {
    EXPECT_EQ(okv::readPropertyList("").error, "byte 0: empty, not a property list");
    EXPECT_FALSE(okv::readPropertyListXml(""));
    EXPECT_FALSE(okv::readPropertyListBinary(""));
}

TEST(PropertyList, AngleBracketsBeginXmlUnlessOnlyHexadecimalDigitsFollow) {
    EXPECT_EQ(okv::readPropertyList("<da 7a>").value, Value(Data{0xDA, 0x7A}));
    EXPECT_THAT(okv::readPropertyList("<data>AA==</data>").error, HasSubstr("not <plist>"));
    EXPECT_THAT(okv::readPropertyList("<dad").error, StartsWith("line 1, column "));
    EXPECT_THAT(okv::readPropertyList("bplist16").error, HasSubstr("version 00"));
}

// A million values take a sanitized build without optimisation half a minute.
class TooManyValues : public testing::Test {
protected:
    void SetUp() override {
        if (support::kIsSanitized) GTEST_SKIP() << "tested where no sanitizer slows it down";
    }
};

TEST_F(TooManyValues, InAnXmlListAreRefused) {
    std::string body;
    for (int i = 0; i < (1 << 20); ++i) body += "<true/>";
    const auto result = okv::readPropertyList("<plist><array>" + body + "</array></plist>");
    EXPECT_THAT(result.error, HasSubstr("more than 1048576 values"));
}

TEST_F(TooManyValues, InATextListAreRefused) {
    std::string body;
    for (int i = 0; i < (1 << 20); ++i) body += "a,";
    EXPECT_THAT(okv::readPropertyList("(" + body + ")").error,
                HasSubstr("more than 1048576 values"));
    std::string entries;
    for (int i = 0; i < (1 << 20); ++i) entries += "a;";
    EXPECT_THAT(okv::readPropertyList("{" + entries + "}").error,
                HasSubstr("more than 1048576 values"));
}

// Each array's references run on through the heads of the next ones, so that a small file promises
// many large arrays, one within the other.
TEST(PropertyList, OverlappingBinaryArraysAreCountedBeforeRoomIsMade) {
    constexpr std::uint64_t kCount = 1U << 18;
    std::string bytes = "bplist00";
    std::string table;
    for (std::uint64_t i = 0; i < 50; ++i) {
        table += bigEndian(bytes.size(), 4);
        bytes += "\xAF\x12" + bigEndian(kCount, 4) + bigEndian(i + 1, 1);
    }
    bytes += std::string(kCount, '\0');
    const auto tableAt = bytes.size();
    bytes += table + std::string(6, '\0') + "\x04\x01" + bigEndian(50, 8) + bigEndian(0, 8) +
             bigEndian(tableAt, 8);
    EXPECT_EQ(okv::readPropertyListBinary(bytes).error, "byte 29: more than 1048576 values");
}

TEST(PropertyList, EveryChangedByteOfABinaryListIsReadOrRefused) {
    const auto bytes = corpus::bytesOf("plist_binary/good_mixed.plist");
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        for (const int change : {0x01, 0x80, 0xFF}) {
            auto changed = bytes;
            changed[at] = static_cast<char>(changed[at] ^ change);
            const auto result = okv::readPropertyListBinary(changed);
            EXPECT_NE(result.value.has_value(), !result.error.empty()) << at;
        }
    }
}
