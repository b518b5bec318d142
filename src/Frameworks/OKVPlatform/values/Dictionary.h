#pragma once

#include <OKVPlatform/Export.h>

#include <cstddef>
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

    /// Empty.
    Dictionary() noexcept;
    /// The pairs, key and value, as `set` puts them one after the other; throws as it does.
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
    /// The same for a text, without making a Value of it.
    const Value* find(std::string_view key) const;
    const Value* find(const char* key) const { return find(std::string_view(key)); }
    /// The same, to be changed in its place.
    Value* find(const Value& key);
    Value* find(std::string_view key);
    /// The value under `key`, or nil when there is none.
    const Value& operator[](const Value& key) const;
    /// The same for a text.
    const Value& operator[](std::string_view key) const;
    const Value& operator[](const char* key) const { return (*this)[std::string_view(key)]; }
    /// Whether there is a value, nil and the null object included, under this text.
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    /// Takes the entry away; answers whether there was one. Linear in the size.
    bool erase(const Value& key);
    /// Takes all entries away.
    void clear() noexcept;
    /// Room for so many entries in all, so that adding them moves none.
    void reserve(std::size_t count);

    /// The number of entries.
    std::size_t size() const noexcept;
    /// Whether there is no entry.
    bool empty() const noexcept { return size() == 0; }
    /// The entries in order of insertion; valid until the next change.
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
