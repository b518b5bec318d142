#include <OKVPlatform/values/PropertyListFile.h>
#include <OKVPlatform/values/PropertyListLimits.h>
#include <OKVPlatform/values/Unicode.h>

#include <algorithm>
#include <bit>
#include <cmath>

namespace okv {

namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;
constexpr double kSecondsFrom1970To2001 = 978307200;

// The high half of an object's first byte.
enum : unsigned {
    kSimple = 0x0,
    kInteger = 0x1,
    kReal = 0x2,
    kDate = 0x3,
    kData = 0x4,
    kAscii = 0x5,
    kUtf16 = 0x6,
    kUniqueId = 0x8,
    kArray = 0xA,
    kOrderedSet = 0xB,
    kSet = 0xC,
    kDictionary = 0xD,
};

// Without shared containers a list has fewer values than bytes. Sharing is good up to a point: a
// few hundred bytes of a stranger must not cost as much as a large file.
std::size_t valueLimit(std::size_t bytes) {
    constexpr std::size_t kAlways = 65536;
    constexpr std::size_t kPerByte = 64;
    return std::clamp(bytes, kAlways / kPerByte, kMaxPropertyListValues / kPerByte) * kPerByte;
}

// Layout: the magic, the objects one after another, the table of their offsets, the trailer with
// the widths. Objects refer to others by number, several to the same one if they like: what a file
// expands to is counted, since a few shared objects can stand for billions.
class BinaryReader {
public:
    explicit BinaryReader(std::string_view bytes)
        : bytes_(bytes), valueLimit_(valueLimit(bytes.size())) {}

    PropertyListResult read() {
        Value root;
        if (!readTrailer() || !readObject(top_, 0, root)) return {std::nullopt, std::move(error_)};
        return {std::move(root), {}};
    }

private:
    // An object without its content: `at` is its first byte, `body` where the content begins and
    // `count` the low half of the first byte or, for kinds with a length, the length.
    struct Head {
        std::size_t at = 0;
        std::size_t body = 0;
        unsigned kind = 0;
        std::uint64_t count = 0;
    };

    bool fail(std::size_t at, std::string_view what) {
        error_ = "byte " + std::to_string(at) + ": " + std::string(what);
        return false;
    }

    unsigned byteAt(std::size_t at) const { return static_cast<unsigned char>(bytes_[at]); }

    // A big-endian number of 1 to 8 bytes, which the caller knows to be there.
    std::uint64_t numberAt(std::size_t at, std::size_t width) const {
        std::uint64_t number = 0;
        for (std::size_t i = 0; i < width; ++i) number = (number << 8) | byteAt(at + i);
        return number;
    }

    bool readTrailer() {
        if (!bytes_.starts_with(kMagic)) return fail(0, "not a binary property list, version 00");
        if (bytes_.size() < kMagic.size() + kTrailerSize) return fail(bytes_.size(), "cut short");
        const auto trailer = bytes_.size() - kTrailerSize;
        offsetWidth_ = byteAt(trailer + 6);
        referenceWidth_ = byteAt(trailer + 7);
        if (offsetWidth_ < 1 || offsetWidth_ > 8) return fail(trailer + 6, "bad width of offsets");
        if (referenceWidth_ < 1 || referenceWidth_ > 8)
            return fail(trailer + 7, "bad width of references");
        return readTable(trailer);
    }

    bool readTable(std::size_t trailer) {
        const auto count = numberAt(trailer + 8, 8);
        top_ = numberAt(trailer + 16, 8);
        const auto table = numberAt(trailer + 24, 8);
        if (table < kMagic.size() || table > trailer)
            return fail(trailer + 24, "the offset table lies outside");
        if (count > (trailer - table) / offsetWidth_)
            return fail(trailer + 8, "more objects than the offset table holds");
        table_ = static_cast<std::size_t>(table);
        beingRead_.resize(static_cast<std::size_t>(count));
        return true;
    }

    // Several objects may be the same one, but none may lie within itself.
    bool readObject(std::uint64_t number, std::size_t depth, Value& into) {
        Head head;
        if (!locate(number, head.at)) return false;
        const auto index = static_cast<std::size_t>(number);
        if (beingRead_[index]) return fail(head.at, "an object that holds itself");
        beingRead_[index] = true;
        const bool good = readHead(head) && readContent(head, depth, into);
        beingRead_[index] = false;
        return good;
    }

    bool locate(std::uint64_t number, std::size_t& at) {
        if (number >= beingRead_.size())
            return fail(table_, "reference to a missing object " + std::to_string(number));
        const auto entry = table_ + static_cast<std::size_t>(number) * offsetWidth_;
        const auto offset = numberAt(entry, offsetWidth_);
        if (offset < kMagic.size() || offset >= table_)
            return fail(entry, "an object's offset lies outside");
        at = static_cast<std::size_t>(offset);
        return true;
    }

    bool readHead(Head& head) {
        head.kind = byteAt(head.at) >> 4;
        head.count = byteAt(head.at) & 0xFU;
        head.body = head.at + 1;
        const bool hasLength =
            head.kind == kData || head.kind == kAscii || head.kind == kUtf16 || head.kind >= kArray;
        return hasLength && head.count == 0xF ? readLongCount(head) : true;
    }

    // A length of 15 or more stands in an integer behind the first byte.
    bool readLongCount(Head& head) {
        const auto at = head.body;
        if (at >= table_ || byteAt(at) >> 4 != kInteger || (byteAt(at) & 0xFU) > 3)
            return fail(at, "a length must follow here");
        const std::size_t width = std::size_t{1} << (byteAt(at) & 0xFU);
        if (!checkRoom(at + 1, width)) return false;
        head.count = numberAt(at + 1, width);
        head.body = at + 1 + width;
        return true;
    }

    bool checkRoom(std::size_t at, std::uint64_t wanted) {
        return wanted <= table_ - at || fail(at, "more content than there are bytes");
    }

    bool readContent(const Head& head, std::size_t depth, Value& into) {
        switch (head.kind) {
            case kSimple:
                return readSimple(head, into);
            case kInteger:
                return readInteger(head, into);
            case kReal:
                return readReal(head, into);
            case kDate:
                return readDate(head, into);
            case kData:
                return readData(head, into);
            case kAscii:
                return readAscii(head, into);
            case kUtf16:
                return readUtf16(head, into);
            case kArray:
                return readArray(head, depth + 1, into);
            case kDictionary:
                return readDictionary(head, depth + 1, into);
            case kUniqueId:
                return fail(head.at, "unique ids are not supported");
            case kOrderedSet:
            case kSet:
                return fail(head.at, "sets are not supported");
            default:
                return fail(head.at, "an unknown kind of object");
        }
    }

    bool readSimple(const Head& head, Value& into) {
        if (head.count == 0) return fail(head.at, "the null object has no place in a list");
        if (head.count != 8 && head.count != 9) return fail(head.at, "an unknown kind of object");
        into = head.count == 9;
        return true;
    }

    // 1, 2 and 4 bytes are unsigned, 8 and 16 signed.
    bool readInteger(const Head& head, Value& into) {
        if (head.count > 4) return fail(head.at, "an integer of more than 16 bytes");
        const std::size_t width = std::size_t{1} << head.count;
        if (!checkRoom(head.body, width)) return false;
        if (width == 16) return readWideInteger(head, into);
        into = std::bit_cast<std::int64_t>(numberAt(head.body, width));
        return true;
    }

    bool readWideInteger(const Head& head, Value& into) {
        const auto high = numberAt(head.body, 8);
        const auto number = std::bit_cast<std::int64_t>(numberAt(head.body + 8, 8));
        if (high != (number < 0 ? ~std::uint64_t{0} : 0))
            return fail(head.at, "an integer beyond 64 bits");
        into = number;
        return true;
    }

    bool readReal(const Head& head, Value& into) {
        if (head.count != 2 && head.count != 3) return fail(head.at, "a real of unknown width");
        const std::size_t width = std::size_t{1} << head.count;
        if (!checkRoom(head.body, width)) return false;
        const auto bits = numberAt(head.body, width);
        into = width == 8 ? std::bit_cast<double>(bits)
                          : double{std::bit_cast<float>(static_cast<std::uint32_t>(bits))};
        return true;
    }

    bool readDate(const Head& head, Value& into) {
        if (head.count != 3) return fail(head.at, "a date of unknown width");
        if (!checkRoom(head.body, 8)) return false;
        const auto since2001 = std::bit_cast<double>(numberAt(head.body, 8));
        if (!std::isfinite(since2001)) return fail(head.at, "a date that is no point in time");
        into = Date{since2001 + kSecondsFrom1970To2001};
        return true;
    }

    bool takeContent(const Head& head, std::size_t unit, std::string_view& content) {
        if (head.count > (table_ - head.body) / unit)
            return fail(head.at, "more content than there are bytes");
        content = bytes_.substr(head.body, static_cast<std::size_t>(head.count) * unit);
        contentBytes_ += content.size();
        return contentBytes_ <= kMaxPropertyListBytes ||
               fail(head.at, "expands to more than 64 MiB of text and data");
    }

    bool readData(const Head& head, Value& into) {
        std::string_view content;
        if (!takeContent(head, 1, content)) return false;
        into = Data(content);
        return true;
    }

    bool readAscii(const Head& head, Value& into) {
        std::string_view content;
        if (!takeContent(head, 1, content)) return false;
        const auto bad = std::find_if(content.begin(), content.end(),
                                      [](char c) { return static_cast<unsigned char>(c) > 0x7F; });
        if (bad != content.end())
            return fail(head.body + static_cast<std::size_t>(bad - content.begin()),
                        "not an ASCII character");
        into = content;
        return true;
    }

    bool readUtf16(const Head& head, Value& into) {
        std::string_view content;
        if (!takeContent(head, 2, content)) return false;
        std::size_t badAt = 0;
        auto text = utf8FromUtf16(content, ByteOrder::big, badAt);
        if (!text) return fail(head.body + badAt, "a surrogate without its partner");
        into = std::move(*text);
        return true;
    }

    // Checks the references of a container, `perEntry` for each of its entries. All of its values
    // are counted before room is made for them: containers may share bytes, so that a chain of
    // large ones costs a file next to nothing.
    bool enterContainer(const Head& head, std::size_t depth, std::size_t perEntry) {
        if (depth > kMaxPropertyListDepth) return fail(head.at, kTooDeep);
        if (head.count > (table_ - head.body) / (perEntry * referenceWidth_))
            return fail(head.at, "more content than there are bytes");
        values_ += static_cast<std::size_t>(head.count) * perEntry;
        return values_ <= valueLimit_ ||
               fail(head.at, "more than " + std::to_string(valueLimit_) + " values");
    }

    bool readReferred(const Head& head, std::uint64_t place, std::size_t depth, Value& into) {
        const auto at = head.body + static_cast<std::size_t>(place) * referenceWidth_;
        return readObject(numberAt(at, referenceWidth_), depth, into);
    }

    bool readArray(const Head& head, std::size_t depth, Value& into) {
        if (!enterContainer(head, depth, 1)) return false;
        Array array(static_cast<std::size_t>(head.count));
        for (std::size_t i = 0; i < array.size(); ++i)
            if (!readReferred(head, i, depth, array[i])) return false;
        into = std::move(array);
        return true;
    }

    // All the keys stand before all the values.
    bool readDictionary(const Head& head, std::size_t depth, Value& into) {
        if (!enterContainer(head, depth, 2)) return false;
        Dictionary dictionary;
        dictionary.reserve(static_cast<std::size_t>(head.count));
        for (std::uint64_t i = 0; i < head.count; ++i) {
            Value key;
            Value value;
            if (!readReferred(head, i, depth, key)) return false;
            if (!key.is<std::string>()) return fail(head.at, "a key that is not a text");
            if (!readReferred(head, head.count + i, depth, value)) return false;
            dictionary.set(std::move(key), std::move(value));
        }
        into = std::move(dictionary);
        return true;
    }

    std::string_view bytes_;
    std::string error_;
    std::size_t offsetWidth_ = 0;
    std::size_t referenceWidth_ = 0;
    std::size_t table_ = 0;
    std::uint64_t top_ = 0;
    std::vector<bool> beingRead_;
    std::size_t valueLimit_;
    std::size_t values_ = 1;
    std::size_t contentBytes_ = 0;
};

}  // namespace

PropertyListResult readPropertyListBinary(std::string_view bytes) {
    return BinaryReader(bytes).read();
}

}  // namespace okv
