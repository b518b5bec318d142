#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Value.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace okv {

/// What was wrong with encoded bytes, and at which offset.
class OKV_EXPORT CborError final : public std::runtime_error {
public:
    CborError(const std::string& what, std::size_t offset);
    std::size_t offset() const noexcept { return offset_; }

private:
    std::size_t offset_;
};

/// Containers (arrays, dictionaries, tags) may stand this deep inside one another, in both
/// directions.
inline constexpr std::size_t kMaxValueDepth = 64;

/// So many items stand in one message at the most: each may cost its reader forty times the byte
/// that it costs its sender.
inline constexpr std::size_t kMaxItems = 1U << 20;

/// Appends the wire form (RFC 8949) to a string that the caller owns: nil is `undefined`, the null
/// object `null`, integers of either sign in the shortest form, reals 64 bits wide, strings as
/// text, data as bytes, dates as tag 1 around a real, references to objects as the private tag
/// 40600 around their number.
class OKV_EXPORT CborWriter {
public:
    explicit CborWriter(std::string& out) : out_(out) {}

    void nil();
    void boolean(bool flag);
    void integer(std::int64_t number);
    void text(std::string_view text);
    void reference(std::uint64_t object);
    void arrayHeader(std::size_t count);
    /// Throws std::length_error for a value that is nested deeper than kMaxValueDepth.
    void value(const Value& value);

private:
    void header(std::size_t written, const unsigned char* bytes);
    void nested(const Value& value, std::size_t depth);
    void scalar(const Value& value);

    std::string& out_;
};

/// Reads wire items one after the other from bytes that outlive it. Every operation throws
/// CborError when the bytes are not one item of the asked kind. Refused beside malformed bytes:
/// integers beyond 64 bits, lengths that are not told in advance, unknown tags and simple values,
/// keys that are neither strings nor numbers, repeated keys, containers nested too deep. Counts are
/// checked against the bytes that are left before anything is allocated.
class OKV_EXPORT CborReader {
public:
    explicit CborReader(std::string_view bytes) : bytes_(bytes) {}

    bool atEnd() const noexcept { return offset_ == bytes_.size(); }
    std::size_t offset() const noexcept { return offset_; }

    Value value();
    bool boolean();
    std::int64_t integer();
    std::uint64_t reference();
    /// A string's bytes where they stand: valid as long as the bytes that are read.
    std::string_view text();
    std::size_t arrayHeader();

private:
    struct Item;

    Item next();
    Value nested(std::size_t depth);
    Value container(const Item& item, std::size_t depth);
    Value date(std::size_t depth);
    Array array(std::uint64_t count, std::size_t depth);
    Dictionary dictionary(std::uint64_t count, std::size_t depth);
    void checkCount(std::uint64_t count, std::size_t bytesEach) const;
    [[noreturn]] void refuse(const char* what) const;

    std::string_view bytes_;
    std::size_t items_ = 0;
    std::size_t offset_ = 0;
    std::size_t itemStart_ = 0;
};

/// One value as bytes, and back. `decodeCbor` refuses bytes that are left over.
OKV_EXPORT std::string encodeCbor(const Value& value);
OKV_EXPORT Value decodeCbor(std::string_view bytes);

}  // namespace okv
