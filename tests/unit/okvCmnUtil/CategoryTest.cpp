#include <OKVDataManager/okvCmnUtil.h>

#include <gtest/gtest.h>

#include <random>

using okv::Data;

namespace {

Data packedWith(std::size_t index, std::uint8_t byte) {
    Data data(std::size_t{16});
    data[index] = byte;
    return data;
}

}  // namespace

TEST(CategoryFlags, EachFlagHasItsOwnBit) {
    for (std::size_t flag = 0; flag < 128; ++flag) {
        std::string text(128, '0');
        text[flag] = '1';
        const auto bit = static_cast<std::uint8_t>(0x80U >> (flag % 8));
        const Data expected = packedWith(flag / 8, bit);
        EXPECT_EQ(okvCmnUtil::stringToCategoryData(text), expected) << flag;
        EXPECT_EQ(okvCmnUtil::dataToCategoryString(expected), text) << flag;
    }
}

TEST(CategoryFlags, TheFirstCharacterOfEightIsTheUppermostBit) {
    const std::string zeros(128, '0');
    EXPECT_EQ(okvCmnUtil::stringToCategoryData("1" + zeros.substr(1)), packedWith(0, 0x80));
    EXPECT_EQ(okvCmnUtil::stringToCategoryData("00000001" + zeros.substr(8)), packedWith(0, 0x01));
    EXPECT_EQ(okvCmnUtil::stringToCategoryData(zeros.substr(1) + "1"), packedWith(15, 0x01));
}

TEST(CategoryFlags, ConvertBackToTheSameText) {
    std::mt19937 random(1);
    for (int round = 0; round < 1000; ++round) {
        std::string text(128, '0');
        for (char& c : text) c = (random() & 1U) != 0 ? '1' : '0';
        const auto packed = okvCmnUtil::stringToCategoryData(text);
        ASSERT_TRUE(packed);
        EXPECT_EQ(packed->size(), 16U);
        EXPECT_EQ(okvCmnUtil::dataToCategoryString(*packed), text);
    }
}

TEST(CategoryFlags, OnlyTheCharacter1SetsAFlag) {
    for (int code = 0; code < 128; ++code) {
        std::string text(128, static_cast<char>(code));
        const auto packed = okvCmnUtil::stringToCategoryData(text);
        ASSERT_TRUE(packed) << code;
        EXPECT_EQ(okvCmnUtil::dataToCategoryString(*packed),
                  std::string(128, code == '1' ? '1' : '0'))
            << code;
    }
}

TEST(CategoryFlags, NeedExactly128Characters) {
    for (const std::size_t length : {0U, 1U, 127U, 129U, 256U})
        EXPECT_FALSE(okvCmnUtil::stringToCategoryData(std::string(length, '1'))) << length;
}

TEST(CategoryFlags, ACharacterThatIsNotAsciiGivesNone) {
    for (std::size_t position = 0; position < 128; ++position) {
        std::string text(128, '1');
        text[position] = static_cast<char>(0xB1);
        EXPECT_FALSE(okvCmnUtil::stringToCategoryData(text)) << position;
    }
    EXPECT_FALSE(okvCmnUtil::stringToCategoryData("\xC3\xA9" + std::string(126, '1')));
    EXPECT_FALSE(okvCmnUtil::stringToCategoryData("\xC3\xA9" + std::string(127, '1')));
}

TEST(CategoryFlags, NeedExactly16Bytes) {
    for (const std::size_t length : {0U, 1U, 15U, 17U, 32U})
        EXPECT_FALSE(okvCmnUtil::dataToCategoryString(Data(length))) << length;
    EXPECT_EQ(okvCmnUtil::dataToCategoryString(Data(std::size_t{16}, 0xFF)), std::string(128, '1'));
}
