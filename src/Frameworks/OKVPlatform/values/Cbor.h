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
    /// `offset`: of the item that is wrong, in bytes from the beginning.
    CborError(const std::string& what, std::size_t offset);
    /// In bytes from the beginning.
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
    /// `out` must outlive the writer; what it holds already stays.
    explicit CborWriter(std::string& out) : out_(out) {}

    /// No object; what a method without a result answers.
    void nil();
    /// A BOOL.
    void boolean(bool flag);
    /// An int, or an integer number object.
    void integer(std::int64_t number);
    /// A string; its bytes are carried as they are.
    void text(std::string_view text);
    /// Begins a string; its bytes are written next, so many of them.
    void textHeader(std::size_t size);
    /// An object by reference, by its number on this connection.
    void reference(std::uint64_t object);
    /// Begins an array; its elements are written next, so many of them.
    void arrayHeader(std::size_t count);
    /// Throws std::length_error for a value that is nested deeper than kMaxValueDepth.
    void value(const Value& value);

private:
    void nested(const Value& value, std::size_t depth);
    void scalar(const Value& value);

    std::string& out_;
};

namespace detail {

/// The upper three bits of an item's first byte.
enum class Major : std::uint8_t { positive, negative, bytes, text, array, map, tag, simple };

}  // namespace detail

/// Reads wire items one after the other from bytes that outlive it. Every operation throws
/// CborError when the bytes are not one item of the asked kind. Refused beside malformed bytes:
/// integers beyond 64 bits, lengths that are not told in advance, unknown tags and simple values,
/// keys that are neither strings nor numbers, repeated keys, containers nested too deep. Counts are
/// checked against the bytes that are left before anything is allocated.
class OKV_EXPORT CborReader {
public:
    /// Stands at the first item.
    explicit CborReader(std::string_view bytes) : bytes_(bytes) {}

    /// Whether all bytes were read.
    bool atEnd() const noexcept { return offset_ == bytes_.size(); }
    /// Where the next item begins, in bytes from the beginning.
    std::size_t offset() const noexcept { return offset_; }
    /// Throws CborError when bytes are left over.
    void expectEnd() const;

    /// Whether more items are left than so many, those inside of others counted, too. Looks at no
    /// more of them, and stays where it stands. Malformed bytes end the count: reading them tells
    /// what is wrong.
    bool holdsMoreThan(std::size_t items) const;

    /// The next item as a value, with all that it contains.
    Value value();
    /// The same; a text takes over the memory of `room`.
    Value value(std::string& room);
    /// The next item as a BOOL.
    bool boolean();
    /// The next item as an integer.
    std::int64_t integer();
    /// The next item as the number of an object by reference.
    std::uint64_t reference();
    /// A string's bytes where they stand: valid as long as the bytes that are read.
    std::string_view text();
    /// The number of elements of the array that begins here; they are read next.
    std::size_t arrayHeader();

private:
    struct Head {
        detail::Major major;
        std::uint8_t lower;    // five bits of its first byte
        std::uint64_t number;  // in or behind it: a value, a length, a count or a tag
    };

    Head next();
    std::uint64_t longNumber(Head head);
    std::string_view content(Head head);
    std::int64_t integer(Head head) const;
    Value simple(Head head) const;
    Value nested(std::size_t depth);
    Value valueOf(Head head, std::size_t depth);
    Value container(Head head, std::size_t depth);
    Value date(std::size_t depth);
    Array array(std::uint64_t count, std::size_t depth);
    Dictionary dictionary(std::uint64_t count, std::size_t depth);
    void checkCount(std::uint64_t count, std::size_t bytesEach) const;
    [[noreturn]] void refuse(const char* what) const;
    [[noreturn]] void refuseOpenEnded(Head head) const;

    std::string_view bytes_;
    std::size_t items_ = 0;
    std::size_t offset_ = 0;
    std::size_t itemStart_ = 0;
};

/// One value as bytes. Throws std::length_error for one that is nested too deep.
OKV_EXPORT std::string encodeCbor(const Value& value);
/// The value that the bytes are. Throws CborError; bytes that are left over are refused, too.
OKV_EXPORT Value decodeCbor(std::string_view bytes);

}  // namespace okv
