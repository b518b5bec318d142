#include "support/Files.h"

#include <OKVPlatform/values/Cbor.h>

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <random>

using okv::Array;
using okv::Dictionary;
using okv::Null;
using okv::Value;

namespace {

class RandomValues {
public:
    explicit RandomValues(unsigned seed) : engine_(seed) {}

    Value next(int depth = 0) {
        switch (pick(depth < 5 ? 10 : 8)) {
            case 0:
                return {};
            case 1:
                return Null{};
            case 2:
                return pick(2) == 1;
            case 3:
                return static_cast<std::int64_t>(engine_()) >> pick(64);
            case 4:
                return std::ldexp(static_cast<double>(pick(100000)) - 50000, pick(200) - 100);
            case 5:
                return text();
            case 6:
                return okv::Date{static_cast<double>(pick(1000000000)) / 7};
            case 7:
                return okv::Data(text());
            case 8:
                return array(depth);
            default:
                return dictionary(depth);
        }
    }

private:
    int pick(int below) { return static_cast<int>(engine_() % static_cast<unsigned>(below)); }

    std::string text() {
        std::string text(static_cast<std::size_t>(pick(4) == 0 ? pick(70000) : pick(40)), '\0');
        for (auto& c : text) c = static_cast<char>(engine_());
        return text;
    }
    Value array(int depth) {
        Array array(static_cast<std::size_t>(pick(20)));
        for (auto& element : array) element = next(depth + 1);
        return array;
    }
    Value dictionary(int depth) {
        Dictionary dictionary;
        for (int i = pick(20); i > 0; --i)
            dictionary.set(pick(3) == 0 ? Value(pick(1000)) : Value(text()), next(depth + 1));
        return dictionary;
    }

    std::mt19937_64 engine_;
};

Value nestedArray(std::size_t depth) {
    Value value = Array{};
    for (std::size_t i = 1; i < depth; ++i) value = Array{std::move(value)};
    return value;
}

std::vector<std::filesystem::path> corpus(std::string_view prefix) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(OKV_CBOR_CORPUS)) {
        if (entry.path().filename().string().starts_with(prefix)) files.push_back(entry.path());
    }
    return files;
}

std::string nameOf(const testing::TestParamInfo<std::filesystem::path>& info) {
    return info.param.filename().string();
}

}  // namespace

TEST(Cbor, EveryRandomValueComesBackEqual) {
    for (unsigned seed = 0; seed < 200; ++seed) {
        const auto value = RandomValues(seed).next();
        EXPECT_EQ(okv::decodeCbor(okv::encodeCbor(value)), value) << "seed " << seed;
    }
}

TEST(Cbor, NilIsUndefinedAndTheNullObjectIsNull) {
    EXPECT_EQ(okv::encodeCbor(Value()), "\xF7");
    EXPECT_EQ(okv::encodeCbor(Null{}), "\xF6");
}

TEST(Cbor, ADictionaryKeepsItsOrder) {
    const auto back = okv::decodeCbor(okv::encodeCbor(Dictionary{{"z", 1}, {"a", 2}, {3, 4}}));
    EXPECT_EQ(back.as<Dictionary>().begin()[0].key, Value("z"));
    EXPECT_EQ(back.as<Dictionary>().begin()[2].key, Value(3));
}

TEST(Cbor, SixtyFourLevelsAreCarriedAndSixtyFiveAreRefused) {
    const auto deepest = nestedArray(64);
    EXPECT_EQ(okv::decodeCbor(okv::encodeCbor(deepest)), deepest);
    EXPECT_THROW(okv::encodeCbor(nestedArray(65)), std::length_error);
    EXPECT_THROW(okv::decodeCbor(std::string(64, '\x81') + "\x80"), okv::CborError);
}

TEST(Cbor, AReferenceIsNeverTakenForAValue) {
    std::string bytes;
    okv::CborWriter(bytes).reference(77);
    EXPECT_EQ(okv::CborReader(bytes).reference(), 77U);
    EXPECT_THROW(okv::decodeCbor(bytes), okv::CborError);
}

class BadCbor : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(BadCbor, IsRefusedWithWhatAndWhere) {
    try {
        okv::decodeCbor(support::bytesOf(GetParam()));
        FAIL() << "was read";
    } catch (const okv::CborError& error) {
        EXPECT_NE(std::string(error.what()).find(" at byte " + std::to_string(error.offset())),
                  std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(Corpus, BadCbor, testing::ValuesIn(corpus("bad_")), nameOf);

class GoodCbor : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(GoodCbor, IsReadAndComesBackEqual) {
    const auto value = okv::decodeCbor(support::bytesOf(GetParam()));
    EXPECT_EQ(okv::decodeCbor(okv::encodeCbor(value)), value);
}

INSTANTIATE_TEST_SUITE_P(Corpus, GoodCbor, testing::ValuesIn(corpus("good_")), nameOf);

TEST(CborReader, CountsItemsAsFarAsAsked) {
    const auto bytes = okv::encodeCbor(Array{Dictionary{{"key", okv::Data(std::string(300, '\1'))}},
                                             okv::Date{1.5}, Value(), std::string(70000, 't')});
    constexpr std::size_t kItems = 8;  // the date is two: a tag, and a real
    okv::CborReader reader(bytes);
    EXPECT_TRUE(reader.holdsMoreThan(0));
    EXPECT_TRUE(reader.holdsMoreThan(kItems - 1));
    EXPECT_FALSE(reader.holdsMoreThan(kItems));
    EXPECT_FALSE(reader.holdsMoreThan(1000000));
    EXPECT_EQ(reader.offset(), 0U) << "it was only looked at";
    EXPECT_EQ(reader.arrayHeader(), 4U);
    EXPECT_TRUE(reader.holdsMoreThan(kItems - 2));
    EXPECT_FALSE(reader.holdsMoreThan(kItems - 1)) << "of what is left";
    EXPECT_FALSE(okv::CborReader("").holdsMoreThan(0));
}

TEST(CborReader, CountsUpToMalformedBytes) {
    EXPECT_FALSE(okv::CborReader("\x82\x01\xFF\x01").holdsMoreThan(2));
    EXPECT_TRUE(okv::CborReader("\x82\x01\xFF\x01").holdsMoreThan(1));
    EXPECT_FALSE(okv::CborReader("\x69text").holdsMoreThan(1)) << "cut short";
}
