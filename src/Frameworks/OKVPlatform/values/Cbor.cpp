#include <OKVPlatform/values/Cbor.h>

#include <endian.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace okv {

namespace {

constexpr std::uint64_t kDateTag = 1;
constexpr std::uint64_t kReferenceTag = 40600;
// A count that a peer told is not trusted with more than this before its elements have really come.
constexpr std::size_t kReserveAtMost = 1024;
// The longest head of an item: one byte and a 64-bit number.
constexpr std::size_t kHeadSize = 9;

// The upper three bits of an item's first byte.
enum class Major : std::uint8_t { positive, negative, bytes, text, array, map, tag, simple };

// The lower five bits: a number below 24 is the value itself; from here on they tell its width.
constexpr unsigned kOneByte = 24;
constexpr unsigned kEightBytes = 27;
constexpr unsigned kNotToldInAdvance = 31;

// What those bits say of a simple item.
enum Simple : unsigned {
    no = 20,
    yes = 21,
    null = 22,
    undefined = 23,
    half = 25,
    single = 26,
    wide = 27
};

enum class Kind { refused, undefined, null, boolean, integer, real, text, bytes, array, map, tag };

void appendHead(std::string& out, Major major, std::uint64_t number) {
    const auto upper = static_cast<unsigned>(major) << 5;
    if (number < kOneByte) return out.push_back(static_cast<char>(upper | number));
    const unsigned width = number <= UINT8_MAX    ? 0
                           : number <= UINT16_MAX ? 1
                           : number <= UINT32_MAX ? 2
                                                  : 3;
    char bytes[kHeadSize];
    bytes[0] = static_cast<char>(upper | (kOneByte + width));
    const auto shifted = htobe64(number << (64 - (8U << width)));
    std::memcpy(bytes + 1, &shifted, sizeof shifted);
    out.append(bytes, 1 + (std::size_t{1} << width));
}

void appendReal(std::string& out, double number) {
    char bytes[kHeadSize];
    bytes[0] = static_cast<char>(static_cast<unsigned>(Major::simple) << 5 | Simple::wide);
    const auto bits = htobe64(std::bit_cast<std::uint64_t>(number));
    std::memcpy(bytes + 1, &bits, sizeof bits);
    out.append(bytes, sizeof bytes);
}

// Sixteen bits: one of sign, five of exponent, ten of fraction.
double realOfHalf(std::uint64_t bits) {
    const auto exponent = static_cast<int>(bits >> 10 & 0x1F);
    const auto fraction = static_cast<double>(bits & 0x3FF);
    const double magnitude = exponent == 0    ? std::ldexp(fraction, -24)
                             : exponent != 31 ? std::ldexp(fraction + 1024, exponent - 25)
                             : fraction == 0  ? HUGE_VAL
                                              : std::nan("");
    return (bits & 0x8000) != 0 ? -magnitude : magnitude;
}

}  // namespace

struct CborReader::Item {
    Kind kind = Kind::refused;
    bool flag = false;
    std::uint64_t count = 0;  // of elements; or a tag's number
    std::int64_t integer = 0;
    double real = 0;
    std::string_view content;
};

CborError::CborError(const std::string& what, std::size_t offset)
    : std::runtime_error(what + " at byte " + std::to_string(offset)), offset_(offset) {}

void CborWriter::nil() {
    out_.push_back(static_cast<char>(0xF7));
}
void CborWriter::boolean(bool flag) {
    out_.push_back(static_cast<char>(flag ? 0xF5 : 0xF4));
}

void CborWriter::integer(std::int64_t number) {
    if (number >= 0) return appendHead(out_, Major::positive, static_cast<std::uint64_t>(number));
    appendHead(out_, Major::negative, static_cast<std::uint64_t>(-1 - number));
}

void CborWriter::text(std::string_view text) {
    appendHead(out_, Major::text, text.size());
    out_.append(text);
}

void CborWriter::reference(std::uint64_t object) {
    appendHead(out_, Major::tag, kReferenceTag);
    appendHead(out_, Major::positive, object);
}

void CborWriter::arrayHeader(std::size_t count) {
    appendHead(out_, Major::array, count);
}

void CborWriter::value(const Value& value) {
    nested(value, 0);
}

void CborWriter::scalar(const Value& value) {
    switch (value.type()) {
        case Value::Type::null:
            return out_.push_back(static_cast<char>(0xF6));
        case Value::Type::boolean:
            return boolean(value.as<bool>());
        case Value::Type::integer:
            return integer(value.as<std::int64_t>());
        case Value::Type::string:
            return text(value.as<std::string>());
        case Value::Type::real:
            return appendReal(out_, value.as<double>());
        case Value::Type::date:
            appendHead(out_, Major::tag, kDateTag);
            return appendReal(out_, value.as<Date>().secondsSince1970);
        case Value::Type::data:
            appendHead(out_, Major::bytes, value.as<Data>().size());
            out_.append(value.as<Data>().text());
            return;
        default:
            return nil();
    }
}

void CborWriter::nested(const Value& value, std::size_t depth) {
    const auto* array = value.getIf<Array>();
    const auto* dictionary = value.getIf<Dictionary>();
    if (array == nullptr && dictionary == nullptr) return scalar(value);
    if (depth >= kMaxValueDepth)
        throw std::length_error("okv: a value nested deeper than 64 cannot be encoded");
    if (array != nullptr) {
        arrayHeader(array->size());
        for (const auto& element : *array) nested(element, depth + 1);
        return;
    }
    appendHead(out_, Major::map, dictionary->size());
    for (const auto& [key, held] : *dictionary) {
        scalar(key);
        nested(held, depth + 1);
    }
}

void CborReader::refuse(const char* what) const {
    throw CborError(what, itemStart_);
}

// Contents and containers that end where they say so: well-formed, but their size cannot be checked
// in advance.
void CborReader::refuseOpenEnded(bool isNumber) const {
    refuse(isNumber ? "a malformed item" : "an item of a kind that is not carried");
}

// The number in or behind an item's first byte.
std::uint64_t CborReader::number(unsigned lower) {
    if (lower < kOneByte) return lower;
    if (lower > kEightBytes) refuse("a malformed item");
    const auto width = std::size_t{1} << (lower - kOneByte);
    if (bytes_.size() - offset_ < width) refuse("an item is cut short");
    std::uint64_t bits = 0;
    std::memcpy(reinterpret_cast<char*>(&bits) + sizeof bits - width, &bytes_[offset_], width);
    offset_ += width;
    return be64toh(bits);
}

std::string_view CborReader::content(std::uint64_t size) {
    if (bytes_.size() - offset_ < size) refuse("an item is cut short");
    const auto content = bytes_.substr(offset_, size);
    offset_ += size;
    return content;
}

void CborReader::takeSimple(Item& item, unsigned lower) {
    const auto bits = number(lower);
    item.kind = Kind::real;
    switch (lower) {
        case Simple::no:
        case Simple::yes:
            item.kind = Kind::boolean;
            item.flag = lower == Simple::yes;
            return;
        case Simple::null:
            item.kind = Kind::null;
            return;
        case Simple::undefined:
            item.kind = Kind::undefined;
            return;
        case Simple::half:
            item.real = realOfHalf(bits);
            return;
        case Simple::single:
            item.real = std::bit_cast<float>(static_cast<std::uint32_t>(bits));
            return;
        case Simple::wide:
            item.real = std::bit_cast<double>(bits);
            return;
        default:
            refuse("a malformed item");
    }
}

void CborReader::takeInteger(Item& item, bool isNegative, std::uint64_t magnitude) {
    if (magnitude > INT64_MAX) refuse("an item of a kind that is not carried");
    const auto number = static_cast<std::int64_t>(magnitude);
    item.kind = Kind::integer;
    item.integer = isNegative ? -1 - number : number;
}

CborReader::Item CborReader::next() {
    itemStart_ = offset_;
    if (++items_ > kMaxItems) refuse("more than 1048576 items");
    if (atEnd()) refuse("an item is missing");
    const auto first = static_cast<unsigned char>(bytes_[offset_++]);
    const auto major = static_cast<Major>(first >> 5);
    const unsigned lower = first & 0x1FU;
    Item item;
    if (lower == kNotToldInAdvance)
        refuseOpenEnded(major <= Major::negative || major == Major::tag);
    if (major == Major::simple) return takeSimple(item, lower), item;
    const auto count = number(lower);
    switch (major) {
        case Major::text:
        case Major::bytes:
            item.kind = major == Major::text ? Kind::text : Kind::bytes;
            item.content = content(count);
            break;
        case Major::positive:
        case Major::negative:
            takeInteger(item, major == Major::negative, count);
            break;
        default:
            item.kind = major == Major::array ? Kind::array
                        : major == Major::map ? Kind::map
                                              : Kind::tag;
            item.count = count;
    }
    return item;
}

void CborReader::checkCount(std::uint64_t count, std::size_t bytesEach) const {
    if (count > (bytes_.size() - offset_) / bytesEach)
        refuse("a count larger than the bytes that are left");
}

Array CborReader::array(std::uint64_t count, std::size_t depth) {
    checkCount(count, 1);
    Array array;
    array.reserve(std::min<std::size_t>(count, kReserveAtMost));
    for (std::uint64_t i = 0; i < count; ++i) array.push_back(nested(depth));
    return array;
}

Dictionary CborReader::dictionary(std::uint64_t count, std::size_t depth) {
    checkCount(count, 2);
    Dictionary dictionary;
    dictionary.reserve(std::min<std::size_t>(count, kReserveAtMost));
    for (std::uint64_t i = 0; i < count; ++i) {
        auto key = nested(depth);
        if (!key.is<std::string>() && !key.isNumber())
            refuse("a key that is neither a string nor a number");
        const auto keyStart = itemStart_;
        auto held = nested(depth);
        if (!dictionary.insert(std::move(key), std::move(held)))
            throw CborError("a key that came before", keyStart);
    }
    return dictionary;
}

Value CborReader::date(std::size_t depth) {
    const auto seconds = nested(depth);
    if (const auto* real = seconds.getIf<double>()) return Date{*real};
    if (seconds.is<std::int64_t>()) return Date{static_cast<double>(seconds.longLongValue())};
    refuse("a date that is not a number");
}

Value CborReader::container(const Item& item, std::size_t depth) {
    if (depth >= kMaxValueDepth) refuse("a value nested deeper than 64");
    if (item.kind == Kind::array) return array(item.count, depth + 1);
    if (item.kind == Kind::map) return dictionary(item.count, depth + 1);
    if (item.count != kDateTag) refuse("an unknown tag");
    return date(depth + 1);
}

Value CborReader::nested(std::size_t depth) {
    const auto item = next();
    switch (item.kind) {
        case Kind::undefined:
            return {};
        case Kind::null:
            return Null{};
        case Kind::boolean:
            return item.flag;
        case Kind::integer:
            return item.integer;
        case Kind::real:
            return item.real;
        case Kind::text:
            return item.content;
        case Kind::bytes:
            return Data(item.content);
        default:
            return container(item, depth);
    }
}

Value CborReader::value() {
    return nested(0);
}

bool CborReader::boolean() {
    const auto item = next();
    if (item.kind != Kind::boolean) refuse("a boolean is missing");
    return item.flag;
}

std::int64_t CborReader::integer() {
    const auto item = next();
    if (item.kind != Kind::integer) refuse("an integer is missing");
    return item.integer;
}

std::uint64_t CborReader::reference() {
    const auto tag = next();
    if (tag.kind != Kind::tag || tag.count != kReferenceTag)
        refuse("a reference to an object is missing");
    const auto number = next();
    if (number.kind != Kind::integer || number.integer < 0) refuse("a reference without a number");
    return static_cast<std::uint64_t>(number.integer);
}

std::string_view CborReader::text() {
    const auto item = next();
    if (item.kind != Kind::text) refuse("a string is missing");
    return item.content;
}

std::size_t CborReader::arrayHeader() {
    const auto item = next();
    if (item.kind != Kind::array) refuse("an array is missing");
    checkCount(item.count, 1);
    return item.count;
}

std::string encodeCbor(const Value& value) {
    std::string bytes;
    CborWriter(bytes).value(value);
    return bytes;
}

Value decodeCbor(std::string_view bytes) {
    CborReader reader(bytes);
    auto value = reader.value();
    if (!reader.atEnd()) throw CborError("bytes are left over", reader.offset());
    return value;
}

}  // namespace okv
