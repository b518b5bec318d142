#include <OKVPlatform/values/Cbor.h>

#include <gtest/gtest.h>

#if defined(OKV_HAVE_LIBCBOR)

#include <cbor.h>

#include <cmath>
#include <limits>
#include <optional>

namespace {

using okv::Value;

// One item as the other library reads it; none where it reads none. What ours does not carry is
// told by `carried`.
struct Read {
    bool carried = false;
    Value value;
    std::size_t size = 0;
};

Value& valueIn(void* context) {
    auto& read = *static_cast<Read*>(context);
    read.carried = true;
    return read.value;
}

template <bool negative, class U>
void integer(void* context, U number) {
    if (std::uint64_t{number} > INT64_MAX) return;
    const auto held = static_cast<std::int64_t>(number);
    valueIn(context) = negative ? -1 - held : held;
}

template <class Real>
void real(void* context, Real number) {
    valueIn(context) = static_cast<double>(number);
}

cbor_callbacks callbacksForScalars() {
    auto all = cbor_empty_callbacks;
    all.uint8 = integer<false, std::uint8_t>;
    all.uint16 = integer<false, std::uint16_t>;
    all.uint32 = integer<false, std::uint32_t>;
    all.uint64 = integer<false, std::uint64_t>;
    all.negint8 = integer<true, std::uint8_t>;
    all.negint16 = integer<true, std::uint16_t>;
    all.negint32 = integer<true, std::uint32_t>;
    all.negint64 = integer<true, std::uint64_t>;
    all.float2 = real<float>;
    all.float4 = real<float>;
    all.float8 = real<double>;
    all.undefined = [](void* context) { valueIn(context) = Value(); };
    all.null = [](void* context) { valueIn(context) = okv::Null{}; };
    all.boolean = [](void* context, bool flag) { valueIn(context) = flag; };
    all.string = [](void* context, cbor_data bytes, std::size_t size) {
        valueIn(context) = std::string(reinterpret_cast<const char*>(bytes), size);
    };
    all.byte_string = [](void* context, cbor_data bytes, std::size_t size) {
        valueIn(context) = okv::Data(bytes, bytes + size);
    };
    return all;
}

const unsigned char* bytesOf(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::optional<Read> readByTheOther(const std::string& bytes) {
    static const auto callbacks = callbacksForScalars();
    Read read;
    const auto result = cbor_stream_decode(bytesOf(bytes), bytes.size(), &callbacks, &read);
    if (result.status != CBOR_DECODER_FINISHED) return std::nullopt;
    read.size = result.read;
    return read;
}

bool isSame(const Value& a, const Value& b) {
    const auto *left = a.getIf<double>(), *right = b.getIf<double>();
    if (left == nullptr || right == nullptr) return a == b;
    return std::isnan(*left) ? std::isnan(*right)
                             : *left == *right && std::signbit(*left) == std::signbit(*right);
}

bool isContainer(unsigned first) {
    return first >> 5 == 4 || first >> 5 == 5 || first >> 5 == 6;
}

void expectTheSame(const std::string& bytes) {
    const auto other = readByTheOther(bytes);
    okv::CborReader reader(bytes);
    std::optional<Value> ours;
    try {
        ours = reader.value();
    } catch (const okv::CborError&) {
    }
    ASSERT_EQ(ours.has_value(), other && other->carried);
    if (!ours) return;
    EXPECT_TRUE(isSame(*ours, other->value));
    EXPECT_EQ(reader.offset(), other->size);
}

std::string hex(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        char two[4];
        snprintf(two, sizeof two, "%02x ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        text += two;
    }
    return text;
}

}  // namespace

TEST(CborItems, AreReadAsAnIndependentReaderReadsThem) {
    constexpr std::string_view rests[] = {
        std::string_view("\0\0\0\0\0\0\0\0\0\0", 10), "\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF",
        "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF",       "\x3C\x01\xC0\x2E\x9B\x1A\x61\x7A",
        "\x80\x01\x7C\x00\xFC\x00\x03\xFF",           "\x02\xF9\x7B\xFF\x18\x20\x40\x60"};
    for (unsigned first = 0; first < 256; ++first) {
        if (isContainer(first)) continue;  // what they contain is ours to walk through
        for (const auto rest : rests) {
            for (std::size_t size = 0; size <= rest.size(); ++size) {
                const auto bytes =
                    std::string(1, static_cast<char>(first)).append(rest.substr(0, size));
                SCOPED_TRACE(hex(bytes));
                expectTheSame(bytes);
            }
        }
    }
}

TEST(CborItems, AHalfIsReadAsAnIndependentReaderReadsIt) {
    for (unsigned bits = 0; bits <= UINT16_MAX; ++bits) {
        const char bytes[] = {'\xF9', static_cast<char>(bits >> 8), static_cast<char>(bits)};
        SCOPED_TRACE(bits);
        expectTheSame(std::string(bytes, sizeof bytes));
    }
}

TEST(CborItems, AreWrittenAsAnIndependentWriterWritesThem) {
    for (int shift = 0; shift < 63; ++shift) {
        for (const std::int64_t offset : {-1, 0, 1}) {
            const auto number = (std::int64_t{1} << shift) + offset;
            unsigned char other[9];
            const auto size =
                cbor_encode_uint(static_cast<std::uint64_t>(number), other, sizeof other);
            EXPECT_EQ(okv::encodeCbor(number), std::string(other, other + size)) << number;
            const auto negative =
                cbor_encode_negint(static_cast<std::uint64_t>(number), other, sizeof other);
            EXPECT_EQ(okv::encodeCbor(-1 - number), std::string(other, other + negative))
                << -1 - number;
        }
    }
    for (const double number : {0.0, -0.0, 1.5, 1e300, std::numeric_limits<double>::infinity()}) {
        unsigned char other[9];
        const auto size = cbor_encode_double(number, other, sizeof other);
        EXPECT_EQ(okv::encodeCbor(number), std::string(other, other + size)) << number;
    }
}

#else

TEST(CborItems, AreReadAsAnIndependentReaderReadsThem) {
    GTEST_SKIP() << "libcbor is not installed";
}

#endif
