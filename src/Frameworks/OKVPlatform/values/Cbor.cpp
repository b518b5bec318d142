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

using detail::Major;

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
    textHeader(text.size());
    out_.append(text);
}

void CborWriter::textHeader(std::size_t size) {
    appendHead(out_, Major::text, size);
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
void CborReader::refuseOpenEnded(Head head) const {
    const bool isNumber = head.major <= Major::negative || head.major == Major::tag;
    refuse(isNumber ? "a malformed item" : "an item of a kind that is not carried");
}

// The number behind an item's first byte.
std::uint64_t CborReader::longNumber(Head head) {
    if (head.lower == kNotToldInAdvance) refuseOpenEnded(head);
    if (head.lower > kEightBytes) refuse("a malformed item");
    const auto width = std::size_t{1} << (head.lower - kOneByte);
    if (bytes_.size() - offset_ < width) refuse("an item is cut short");
    std::uint64_t bits = 0;
    std::memcpy(reinterpret_cast<char*>(&bits) + sizeof bits - width, &bytes_[offset_], width);
    offset_ += width;
    return be64toh(bits);
}

CborReader::Head CborReader::next() {
    itemStart_ = offset_;
    if (++items_ > kMaxItems) refuse("more than 1048576 items");
    if (atEnd()) refuse("an item is missing");
    const auto first = static_cast<unsigned char>(bytes_[offset_++]);
    Head head{static_cast<Major>(first >> 5), static_cast<std::uint8_t>(first & 0x1FU), 0};
    head.number = head.lower < kOneByte ? head.lower : longNumber(head);
    return head;
}

std::string_view CborReader::content(Head head) {
    if (bytes_.size() - offset_ < head.number) refuse("an item is cut short");
    const std::string_view content(bytes_.data() + offset_, head.number);
    offset_ += head.number;
    return content;
}

std::int64_t CborReader::integer(Head head) const {
    if (head.number > INT64_MAX) refuse("an item of a kind that is not carried");
    const auto number = static_cast<std::int64_t>(head.number);
    return head.major == Major::negative ? -1 - number : number;
}

Value CborReader::simple(Head head) const {
    switch (head.lower) {
        case Simple::no:
            return false;
        case Simple::yes:
            return true;
        case Simple::null:
            return Null{};
        case Simple::undefined:
            return {};
        case Simple::half:
            return realOfHalf(head.number);
        case Simple::single:
            return std::bit_cast<float>(static_cast<std::uint32_t>(head.number));
        case Simple::wide:
            return std::bit_cast<double>(head.number);
        default:
            refuse("a malformed item");
    }
}

void CborReader::checkCount(std::uint64_t count, std::size_t bytesEach) const {
    if (count > (bytes_.size() - offset_) / bytesEach)
        refuse("a count larger than the bytes that are left");
}

Array CborReader::array(std::uint64_t count, std::size_t depth) {
    checkCount(count, 1);
    Array array;
    array.reserve(std::min<std::size_t>(count, kReserveAtMost));
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto head = next();
        if (head.major <= Major::negative)
            array.emplace_back(integer(head));  // in its place: long lists are of numbers
        else
            array.push_back(valueOf(head, depth));
    }
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

Value CborReader::container(Head head, std::size_t depth) {
    if (depth >= kMaxValueDepth) refuse("a value nested deeper than 64");
    if (head.major == Major::array) return array(head.number, depth + 1);
    if (head.major == Major::map) return dictionary(head.number, depth + 1);
    if (head.number != kDateTag) refuse("an unknown tag");
    return date(depth + 1);
}

Value CborReader::nested(std::size_t depth) {
    return valueOf(next(), depth);
}

Value CborReader::valueOf(Head head, std::size_t depth) {
    switch (head.major) {
        case Major::positive:
        case Major::negative:
            return integer(head);
        case Major::text:
            return content(head);
        case Major::bytes:
            return Data(content(head));
        case Major::simple:
            return simple(head);
        default:
            return container(head, depth);
    }
}

bool CborReader::holdsMoreThan(std::size_t items) const try {
    if (bytes_.size() - offset_ <= items) return false;  // none takes less than a byte
    auto rest = *this;
    for (std::size_t seen = 0; !rest.atEnd(); ++seen) {
        const auto head = rest.next();
        if (seen == items) return true;
        if (head.major == Major::text || head.major == Major::bytes) rest.content(head);
    }
    return false;
} catch (const CborError&) {
    return false;
}

Value CborReader::value() {
    return nested(0);
}

Value CborReader::value(std::string& room) {
    const auto head = next();
    if (head.major != Major::text) return valueOf(head, 0);
    room = content(head);
    return std::move(room);
}

bool CborReader::boolean() {
    const auto head = next();
    const bool flag = head.lower == Simple::yes;
    if (head.major != Major::simple || (!flag && head.lower != Simple::no))
        refuse("a boolean is missing");
    return flag;
}

std::int64_t CborReader::integer() {
    const auto head = next();
    if (head.major > Major::negative) refuse("an integer is missing");
    return integer(head);
}

std::uint64_t CborReader::reference() {
    const auto tag = next();
    if (tag.major != Major::tag || tag.number != kReferenceTag)
        refuse("a reference to an object is missing");
    const auto object = next();
    if (object.major != Major::positive || object.number > INT64_MAX)
        refuse("a reference without a number");
    return object.number;
}

std::string_view CborReader::text() {
    const auto head = next();
    if (head.major != Major::text) refuse("a string is missing");
    return content(head);
}

std::size_t CborReader::arrayHeader() {
    const auto head = next();
    if (head.major != Major::array) refuse("an array is missing");
    checkCount(head.number, 1);
    return head.number;
}

void CborReader::expectEnd() const {
    if (!atEnd()) throw CborError("bytes are left over", offset_);
}

std::string encodeCbor(const Value& value) {
    std::string bytes;
    if (const auto* text = value.getIf<std::string>()) bytes.reserve(text->size() + kHeadSize);
    CborWriter(bytes).value(value);
    return bytes;
}

Value decodeCbor(std::string_view bytes) {
    CborReader reader(bytes);
    auto value = reader.value();
    reader.expectEnd();
    return value;
}

}  // namespace okv
