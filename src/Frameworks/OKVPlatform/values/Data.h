#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace okv {

/// Bytes with a vector's interface, whose front can be cut off in constant time: the cut bytes stay
/// allocated until half of the store is dead, so cutting a buffer into pieces is linear in total.
class Data {
public:
    using value_type = std::uint8_t;
    using size_type = std::size_t;
    using iterator = std::uint8_t*;
    using const_iterator = const std::uint8_t*;

    Data() noexcept = default;
    /// The bytes listed.
    Data(std::initializer_list<std::uint8_t> bytes) : bytes_(bytes) {}
    /// So many times the byte.
    explicit Data(std::size_t count, std::uint8_t byte = 0) : bytes_(count, byte) {}
    /// A copy of the text's bytes.
    explicit Data(std::string_view text) : bytes_(text.begin(), text.end()) {}
    template <class Iterator>
    requires(!std::is_integral_v<Iterator>) Data(Iterator first, Iterator last)
        : bytes_(first, last) {}

    Data(const Data&) = default;
    Data& operator=(const Data&) = default;
    /// What is moved from is empty.
    Data(Data&& other) noexcept
        : bytes_(std::exchange(other.bytes_, {})), front_(std::exchange(other.front_, 0)) {}
    /// The same.
    Data& operator=(Data&& other) noexcept {
        bytes_ = std::exchange(other.bytes_, {});
        front_ = std::exchange(other.front_, 0);
        return *this;
    }
    ~Data() = default;

    /// In bytes, without those that were cut off.
    std::size_t size() const noexcept { return bytes_.size() - front_; }
    /// Whether there is no byte.
    bool empty() const noexcept { return size() == 0; }
    /// The first byte and what follows it; valid until the next change.
    const std::uint8_t* data() const noexcept { return bytes_.data() + front_; }
    /// The same, to be changed.
    std::uint8_t* data() noexcept { return bytes_.data() + front_; }
    /// From the first byte to behind the last one; valid until the next change.
    const_iterator begin() const noexcept { return data(); }
    const_iterator end() const noexcept { return data() + size(); }
    /// The same, to be changed.
    iterator begin() noexcept { return data(); }
    iterator end() noexcept { return data() + size(); }
    /// Unchecked: `i` is below the size.
    std::uint8_t operator[](std::size_t i) const noexcept { return data()[i]; }
    /// The same, to be changed.
    std::uint8_t& operator[](std::size_t i) noexcept { return data()[i]; }
    /// Unchecked: there is a byte.
    std::uint8_t& back() noexcept { return bytes_.back(); }
    /// The same bytes as a text; valid until the next change.
    std::string_view text() const noexcept {
        return {reinterpret_cast<const char*>(data()), size()};
    }

    /// Adds a byte at the end.
    void push_back(std::uint8_t byte) { bytes_.push_back(byte); }
    /// Room for so many bytes in all.
    void reserve(std::size_t count) { bytes_.reserve(front_ + count); }
    /// To so many bytes: cut at the end, or filled up with zeros.
    void resize(std::size_t count) { bytes_.resize(front_ + count); }
    /// Takes all bytes away.
    void clear() noexcept {
        bytes_.clear();
        front_ = 0;
    }
    /// Adds the bytes at the end.
    template <class Iterator>
    void append(Iterator first, Iterator last) {
        bytes_.insert(bytes_.end(), first, last);
    }
    /// Adds the text's bytes at the end.
    void append(std::string_view text) { append(text.begin(), text.end()); }

    /// A copy of `count` bytes from `offset`. Throws std::out_of_range when they are not all there.
    Data sub(std::size_t offset, std::size_t count) const {
        if (offset > size() || count > size() - offset)
            throw std::out_of_range("okv::Data::sub past the end");
        return Data(begin() + offset, begin() + offset + count);
    }

    /// Drops the first `count` bytes, in constant time over a series of cuts. Throws
    /// std::out_of_range.
    void cutFront(std::size_t count) {
        if (count > size()) throw std::out_of_range("okv::Data::cutFront past the end");
        front_ += count;
        if (front_ == bytes_.size()) return clear();
        if (front_ < bytes_.size() / 2 || front_ < 4096) return;
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(front_));
        front_ = 0;
    }

    friend bool operator==(const Data& a, const Data& b) noexcept { return a.text() == b.text(); }

private:
    std::vector<std::uint8_t> bytes_;
    std::size_t front_ = 0;
};

}  // namespace okv
