#include <OKVPlatform/ipc/Frame.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

using okv::Frame;
using okv::FrameBuffer;
using okv::FrameError;
using okv::FrameKind;

namespace {

std::string frame(FrameKind kind, std::uint32_t serial, std::string_view payload) {
    std::string out;
    const auto start = okv::beginFrame(out, kind);
    out.append(payload);
    okv::finishFrame(out, start, serial);
    return out;
}

std::string header(std::uint32_t length, int kind) {
    std::string bytes = frame(FrameKind::request, 1, {});
    for (int i = 3; i >= 0; --i, length >>= 8)
        bytes[static_cast<std::size_t>(i)] = static_cast<char>(length & 0xFF);
    bytes[4] = static_cast<char>(kind);
    return bytes;
}

// Writes all of it, `piece` bytes at a time at most, and notes the frames as they become whole.
std::vector<std::string> feed(FrameBuffer& buffer, std::string_view bytes, std::size_t piece) {
    std::vector<std::string> payloads;
    while (!bytes.empty()) {
        const auto room = buffer.room();
        const auto count = std::min({piece, bytes.size(), room.size()});
        std::memcpy(room.data(), bytes.data(), count);
        buffer.added(count);
        bytes.remove_prefix(count);
        while (const auto next = buffer.next()) payloads.emplace_back(next->payload);
    }
    return payloads;
}

std::string textOf(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 + i / 251);
    return text;
}

}  // namespace

TEST(Frame, BeginsWithLengthKindAndSerialTheHighByteFirst) {
    EXPECT_EQ(frame(FrameKind::reply, 0x01020304, "ab"),
              std::string("\0\0\0\x02\x03\x01\x02\x03\x04"
                          "ab",
                          11));
}

TEST(Frame, IsAppendedToWhatIsThereAndMayBeNumberedAnew) {
    std::string out = "before";
    const auto start = okv::beginFrame(out, FrameKind::hello);
    okv::finishFrame(out, start, 5);
    EXPECT_EQ(start, 6U);
    EXPECT_EQ(out.substr(0, 6), "before");
    auto alone = out.substr(6);
    okv::setFrameSerial(alone, 0xFFFFFFFF);
    EXPECT_EQ(alone, frame(FrameKind::hello, 0xFFFFFFFF, {}));
}

TEST(Frame, OfMoreThanSixteenMebibytesCannotBeFinished) {
    std::string out;
    okv::beginFrame(out, FrameKind::request);
    out.append(okv::kMaxFramePayload, 'x');
    EXPECT_NO_THROW(okv::finishFrame(out, 0, 1));
    out.push_back('x');
    EXPECT_THROW(okv::finishFrame(out, 0, 1), std::length_error);
}

class FrameInPieces : public testing::TestWithParam<std::size_t> {};

TEST_P(FrameInPieces, IsWholeWhenItsLastByteHasCome) {
    const std::vector<std::string> payloads{
        "",    "a", textOf(4086), textOf(4087), textOf(4088), textOf(70000), "", textOf(300000),
        "last"};
    std::string bytes;
    for (const auto& payload : payloads) bytes += frame(FrameKind::request, 7, payload);
    FrameBuffer buffer;
    EXPECT_EQ(feed(buffer, bytes, GetParam()), payloads);
    EXPECT_TRUE(buffer.empty());
}

INSTANTIATE_TEST_SUITE_P(Sizes, FrameInPieces,
                         testing::Values(1, 2, 3, 8, 9, 10, 4095, 4096, 4097, 65536, 10000000));

TEST(FrameBuffer, TellsKindAndSerialOfEachFrame) {
    FrameBuffer buffer;
    const auto bytes = frame(FrameKind::farewell, 0xFEDCBA98, "why");
    std::memcpy(buffer.room().data(), bytes.data(), bytes.size());
    buffer.added(bytes.size() - 1);
    EXPECT_FALSE(buffer.next());
    buffer.added(1);
    const auto next = buffer.next();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->kind, FrameKind::farewell);
    EXPECT_EQ(next->serial, 0xFEDCBA98);
    EXPECT_EQ(next->payload, "why");
    EXPECT_FALSE(buffer.next());
}

TEST(FrameBuffer, RefusesAnUnknownKindBeforeThePayloadComes) {
    for (const int kind : {0, 6, 127, 255}) {
        FrameBuffer buffer;
        EXPECT_THROW(feed(buffer, header(10, kind), 100), FrameError) << kind;
    }
}

TEST(FrameBuffer, RefusesAnAnnouncedLengthBeyondTheLimitAtOnce) {
    FrameBuffer standard;
    EXPECT_THROW(feed(standard, header((16U << 20) + 1, 2), 100), FrameError);
    FrameBuffer largest;
    EXPECT_THROW(feed(largest, header(0xFFFFFFFF, 2), 100), FrameError);
    FrameBuffer small(100);
    EXPECT_NO_THROW(feed(small, header(100, 2), 100));
    FrameBuffer smaller(99);
    EXPECT_THROW(feed(smaller, header(100, 2), 100), FrameError);
}

TEST(FrameBuffer, GrowsWithWhatCameAndNotWithWhatIsAnnounced) {
    FrameBuffer buffer;
    const auto announced = header(16U << 20, 2);
    std::memcpy(buffer.room().data(), announced.data(), announced.size());
    buffer.added(announced.size());
    EXPECT_FALSE(buffer.next());
    std::size_t held = announced.size();
    while (held < (8U << 20)) {
        const auto room = buffer.room();
        ASSERT_LE(room.size() + held, std::max<std::size_t>(4096, held * 4));
        ASSERT_GT(room.size(), 0U);
        std::memset(room.data(), 'x', room.size());
        buffer.added(room.size());
        held += room.size();
        ASSERT_FALSE(buffer.next());
    }
}

TEST(FrameBuffer, GivesALargeFramesMemoryBackOnceItIsEmpty) {
    FrameBuffer buffer;
    EXPECT_EQ(feed(buffer, frame(FrameKind::request, 1, textOf(1U << 20)), 1U << 21).size(), 1U);
    EXPECT_TRUE(buffer.empty());
    EXPECT_LE(buffer.room().size(), 4096U);
    EXPECT_EQ(feed(buffer, frame(FrameKind::request, 1, "small"), 100).size(), 1U);
}

TEST(FrameBuffer, KeepsALargeFramesMemoryForLikeOnesWhereThatIsAskedFor) {
    FrameBuffer buffer;
    buffer.keepForLikeFrames();
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(feed(buffer, frame(FrameKind::reply, 1, textOf(1U << 20)), 1U << 21).size(), 1U);
    EXPECT_GE(buffer.room().size(), 1U << 20);
    EXPECT_EQ(feed(buffer, frame(FrameKind::reply, 1, "small"), 100).size(), 1U);
    EXPECT_LE(buffer.room().size(), 4096U);
}

TEST(FrameBuffer, TellsWhatAFrameThatHasBegunStillLacks) {
    FrameBuffer buffer;
    EXPECT_EQ(buffer.missing(), 0U);
    const auto whole = frame(FrameKind::reply, 1, textOf(100000));
    feed(buffer, whole.substr(0, 3), 3);
    EXPECT_EQ(buffer.missing(), 0U) << "its length has not come";
    feed(buffer, whole.substr(3, 3000), 3000);
    EXPECT_EQ(buffer.missing(), whole.size() - 3003);
}

TEST(FrameBuffer, TellsWhatASmallFrameStillLacks) {
    FrameBuffer buffer;
    const auto small = frame(FrameKind::reply, 1, textOf(100));
    feed(buffer, small.substr(0, 50), 50);
    EXPECT_EQ(buffer.missing(), small.size() - 50);
    feed(buffer, small.substr(50), small.size());
    EXPECT_EQ(buffer.missing(), 0U);
}

TEST(FrameBuffer, SmallFramesInARowNeverNeedMoreThanTheSmallBuffer) {
    FrameBuffer buffer;
    std::string many;
    for (int i = 0; i < 2000; ++i) many += frame(FrameKind::request, 1, textOf(17));
    while (!many.empty()) {
        const auto room = buffer.room();
        ASSERT_LE(room.size(), 4096U);
        const auto count = std::min(room.size(), many.size());
        std::memcpy(room.data(), many.data(), count);
        buffer.added(count);
        many.erase(0, count);
        while (buffer.next()) {
        }
    }
    EXPECT_TRUE(buffer.empty());
}
