#pragma once

#include <OKVPlatform/Export.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace okv {

class Value;

/// Keys to values, in insertion order. Keys are strings or numbers; keys of different types differ
/// (1 is not 1.0). Small dictionaries are searched in line, large ones through a hash whose seed is
/// the process's own, so that a stranger cannot choose keys that collide.
class OKV_EXPORT Dictionary {
public:
    struct Entry;

    Dictionary() noexcept;
    Dictionary(std::initializer_list<std::pair<Value, Value>> entries);
    Dictionary(const Dictionary&);
    Dictionary(Dictionary&&) noexcept;
    Dictionary& operator=(const Dictionary&);
    Dictionary& operator=(Dictionary&&) noexcept;
    ~Dictionary();

    /// Puts `value` under `key`, replacing what was there (its place in the order is kept).
    /// Throws std::invalid_argument when the key is neither a string nor a number.
    void set(Value key, Value value);
    /// As `set`, but only where the key is new; answers whether it was.
    bool insert(Value key, Value value);

    /// The value under `key`, or null when there is none.
    const Value* find(const Value& key) const;
    const Value* find(std::string_view key) const;
    const Value* find(const char* key) const { return find(std::string_view(key)); }
    Value* find(const Value& key);
    Value* find(std::string_view key);
    /// The value under `key`, or nil when there is none.
    const Value& operator[](const Value& key) const;
    const Value& operator[](std::string_view key) const;
    const Value& operator[](const char* key) const { return (*this)[std::string_view(key)]; }
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    /// Takes the entry away; answers whether there was one. Linear in the size.
    bool erase(const Value& key);
    void clear() noexcept;
    void reserve(std::size_t count);

    std::size_t size() const noexcept;
    bool empty() const noexcept { return size() == 0; }
    const Entry* begin() const noexcept;
    const Entry* end() const noexcept;

    /// Equal when both hold equal values under the same keys, in whatever order.
    friend OKV_EXPORT bool operator==(const Dictionary& a, const Dictionary& b);

private:
    struct Index;

    std::size_t position(const Value& key) const;
    std::size_t position(std::string_view key) const;
    void indexLast();
    void rebuildIndex();

    std::vector<Entry> entries_;
    std::unique_ptr<Index> index_;
};

}  // namespace okv
