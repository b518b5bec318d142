#include "LogRecords.h"

#include <OKVPlatform/ipc/Crc32c.h>
#include <OKVPlatform/values/Cbor.h>

#include <gtest/gtest.h>

using ipctest::record;
using okv::Value;
using State = okv::NotificationLogRecord::State;

TEST(Crc32c, MatchesTheKnownSums) {
    struct Row {
        std::string bytes;
        std::uint32_t sum;
    };
    const Row rows[] = {{"", 0},
                        {"123456789", 0xE3069283},
                        {std::string(32, '\0'), 0x8A9136AA},
                        {std::string(32, '\xFF'), 0x62A8AB43}};
    for (const auto& [bytes, sum] : rows) EXPECT_EQ(okv::crc32c(bytes), sum) << bytes.size();
    EXPECT_EQ(okv::crc32c("6789", okv::crc32c("12345")), 0xE3069283U);
}

// As docs/wire.md shows it.
TEST(NotificationLogFormat, IsWhatThePageTells) {
    using namespace std::string_literals;
    EXPECT_EQ(okv::encodeLogHeader({5, 1}) + record(1, {"name", {}, {}}),
              "OKVNOTES\0\0\0\1\0\0\0\0\0\0\0\x05\0\0\0\0\0\0\0\1\x0A\xBD\x79\x31"
              "\0\0\0\x08\x05\x2D\x7C\xEC\0\0\0\0\0\0\0\1\x83\x64name\xF7\xF7"s);
}

TEST(NotificationLogFormat, AHeaderComesBackAndNothingElseIsOne) {
    const auto bytes = okv::encodeLogHeader({0x0102030405060708U, 99});
    ASSERT_EQ(bytes.size(), okv::kLogHeaderSize);
    EXPECT_EQ(bytes.substr(0, 8), "OKVNOTES");
    const auto header = okv::parseLogHeader(bytes + "more");
    ASSERT_TRUE(header);
    EXPECT_EQ(header->id, 0x0102030405060708U);
    EXPECT_EQ(header->first, 99U);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        auto changed = bytes;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        EXPECT_FALSE(okv::parseLogHeader(changed)) << i;
        EXPECT_FALSE(okv::parseLogHeader(bytes.substr(0, i))) << i;
    }
    EXPECT_FALSE(okv::parseLogHeader(okv::encodeLogHeader({0, 1})));
}

TEST(NotificationLogFormat, ARecordComesBackWholeAndEveryPartOfItIsIncomplete) {
    const auto bytes = record(7, {"name", "sender", okv::Dictionary{{"key", 5}}});
    const auto followed = bytes + "next";
    const auto parsed = okv::parseLogRecord(followed);
    ASSERT_EQ(parsed.state, State::whole);
    EXPECT_EQ(parsed.size, bytes.size());
    EXPECT_EQ(parsed.sequence, 7U);
    const auto notice = okv::decodeNotification(parsed.content);
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->name, "name");
    EXPECT_EQ(notice->object, Value("sender"));
    EXPECT_EQ(notice->userInfo, Value(okv::Dictionary{{"key", 5}}));
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_EQ(okv::parseLogRecord(bytes.substr(0, size)).state, State::incomplete) << size;
}

TEST(NotificationLogFormat, AChangedByteMakesNoWholeRecord) {
    const auto bytes = record(7, {"name", {}, 5});
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        auto changed = bytes;
        changed[i] = static_cast<char>(changed[i] ^ 0x10);
        EXPECT_NE(okv::parseLogRecord(changed).state, State::whole) << i;
    }
    EXPECT_EQ(okv::parseLogRecord(std::string(16, '\0')).state, State::bad);
    EXPECT_EQ(okv::parseLogRecord(std::string(16, '\xFF')).state, State::bad);
}

TEST(NotificationLogFormat, OnlyAnArrayOfNameSenderAndInformationIsANotice) {
    const std::pair<Value, bool> rows[] = {{okv::Array{"n", Value(), Value()}, true},
                                           {okv::Array{"n", "s", 1}, true},
                                           {okv::Array{"n", 1, Value()}, false},
                                           {okv::Array{1, "s", Value()}, false},
                                           {okv::Array{"n", "s"}, false},
                                           {okv::Array{"n", "s", 1, 2}, false},
                                           {okv::Array{"n", okv::Null{}, 1}, false},
                                           {"n", false}};
    for (const auto& [value, isNotice] : rows)
        EXPECT_EQ(okv::decodeNotification(okv::encodeCbor(value)).has_value(), isNotice);
    EXPECT_FALSE(okv::decodeNotification(""));
    EXPECT_FALSE(okv::decodeNotification(okv::encodeCbor(okv::Array{"n", "s", 1}) + "x"));
}
