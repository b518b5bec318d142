#include <OKVPlatform/values/Cbor.h>

#include <cbor.h>

#include <algorithm>

namespace okv {

namespace {

constexpr std::uint64_t kDateTag = 1;
constexpr std::uint64_t kReferenceTag = 40600;
// A count that a peer told is not trusted with more than this before its elements have really come.
constexpr std::size_t kReserveAtMost = 1024;
// The longest head of an item: one byte and a 64-bit number.
constexpr std::size_t kHeadSize = 9;

enum class Kind { refused, undefined, null, boolean, integer, real, text, bytes, array, map, tag };

}  // namespace

struct CborReader::Item {
    Kind kind = Kind::refused;
    bool flag = false;
    std::uint64_t count = 0;  // of elements; or a tag's number
    std::int64_t integer = 0;
    double real = 0;
    std::string_view content;
};

// The library's streaming decoder reports one item through callbacks; these put it into an Item. A
// kind without a callback of ours (lengths not told in advance, integers out of range) leaves it
// `refused`.
namespace {

template <class Item>
struct Callbacks {
    static Item& at(void* context) { return *static_cast<Item*>(context); }

    static void integer(void* context, std::uint64_t magnitude, bool negative) {
        if (magnitude > INT64_MAX) return;
        const auto number = static_cast<std::int64_t>(magnitude);
        at(context).kind = Kind::integer;
        at(context).integer = negative ? -1 - number : number;
    }
    template <class U>
    static void positive(void* context, U number) {
        integer(context, number, false);
    }
    template <class U>
    static void negative(void* context, U number) {
        integer(context, number, true);
    }
    template <class Real>
    static void real(void* context, Real number) {
        at(context).kind = Kind::real;
        at(context).real = static_cast<double>(number);
    }
    template <Kind kind>
    static void content(void* context, cbor_data bytes, std::size_t size) {
        at(context).kind = kind;
        at(context).content = {reinterpret_cast<const char*>(bytes), size};
    }
    template <Kind kind, class Count>
    static void counted(void* context, Count count) {
        at(context).kind = kind;
        at(context).count = count;
    }
    template <Kind kind>
    static void bare(void* context) {
        at(context).kind = kind;
    }
    static void boolean(void* context, bool flag) {
        at(context).kind = Kind::boolean;
        at(context).flag = flag;
    }

    static cbor_callbacks table() {
        auto callbacks = cbor_empty_callbacks;
        callbacks.uint8 = positive<std::uint8_t>;
        callbacks.uint16 = positive<std::uint16_t>;
        callbacks.uint32 = positive<std::uint32_t>;
        callbacks.uint64 = positive<std::uint64_t>;
        callbacks.negint8 = negative<std::uint8_t>;
        callbacks.negint16 = negative<std::uint16_t>;
        callbacks.negint32 = negative<std::uint32_t>;
        callbacks.negint64 = negative<std::uint64_t>;
        callbacks.float2 = real<float>;
        callbacks.float4 = real<float>;
        callbacks.float8 = real<double>;
        callbacks.string = content<Kind::text>;
        callbacks.byte_string = content<Kind::bytes>;
        callbacks.array_start = counted<Kind::array>;
        callbacks.map_start = counted<Kind::map>;
        callbacks.tag = counted<Kind::tag>;
        callbacks.undefined = bare<Kind::undefined>;
        callbacks.null = bare<Kind::null>;
        callbacks.boolean = boolean;
        return callbacks;
    }
};

const unsigned char* bytesAt(std::string_view bytes, std::size_t offset) {
    return reinterpret_cast<const unsigned char*>(bytes.data()) + offset;
}

}  // namespace

CborError::CborError(const std::string& what, std::size_t offset)
    : std::runtime_error(what + " at byte " + std::to_string(offset)), offset_(offset) {}

void CborWriter::header(std::size_t written, const unsigned char* bytes) {
    out_.append(reinterpret_cast<const char*>(bytes), written);
}

void CborWriter::nil() {
    out_.push_back(static_cast<char>(0xF7));
}
void CborWriter::boolean(bool flag) {
    out_.push_back(static_cast<char>(flag ? 0xF5 : 0xF4));
}

void CborWriter::integer(std::int64_t number) {
    unsigned char head[kHeadSize];
    const auto magnitude = static_cast<std::uint64_t>(number < 0 ? -1 - number : number);
    header(number < 0 ? cbor_encode_negint(magnitude, head, sizeof head)
                      : cbor_encode_uint(magnitude, head, sizeof head),
           head);
}

void CborWriter::text(std::string_view text) {
    unsigned char head[kHeadSize];
    header(cbor_encode_string_start(text.size(), head, sizeof head), head);
    out_.append(text);
}

void CborWriter::reference(std::uint64_t object) {
    unsigned char head[kHeadSize];
    header(cbor_encode_tag(kReferenceTag, head, sizeof head), head);
    header(cbor_encode_uint(object, head, sizeof head), head);
}

void CborWriter::arrayHeader(std::size_t count) {
    unsigned char head[kHeadSize];
    header(cbor_encode_array_start(count, head, sizeof head), head);
}

void CborWriter::value(const Value& value) {
    nested(value, 0);
}

void CborWriter::scalar(const Value& value) {
    unsigned char head[kHeadSize];
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
            return header(cbor_encode_double(value.as<double>(), head, sizeof head), head);
        case Value::Type::date:
            header(cbor_encode_tag(kDateTag, head, sizeof head), head);
            return header(cbor_encode_double(value.as<Date>().secondsSince1970, head, sizeof head),
                          head);
        case Value::Type::data:
            header(cbor_encode_bytestring_start(value.as<Data>().size(), head, sizeof head), head);
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
    unsigned char head[kHeadSize];
    header(cbor_encode_map_start(dictionary->size(), head, sizeof head), head);
    for (const auto& [key, held] : *dictionary) {
        scalar(key);
        nested(held, depth + 1);
    }
}

void CborReader::refuse(const char* what) const {
    throw CborError(what, itemStart_);
}

CborReader::Item CborReader::next() {
    static const auto callbacks = Callbacks<Item>::table();
    itemStart_ = offset_;
    Item item;
    if (++items_ > kMaxItems) refuse("more than 1048576 items");
    if (atEnd()) refuse("an item is missing");
    const auto result =
        cbor_stream_decode(bytesAt(bytes_, offset_), bytes_.size() - offset_, &callbacks, &item);
    if (result.status == CBOR_DECODER_NEDATA) refuse("an item is cut short");
    if (result.status != CBOR_DECODER_FINISHED) refuse("a malformed item");
    if (item.kind == Kind::refused) refuse("an item of a kind that is not carried");
    offset_ += result.read;
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
