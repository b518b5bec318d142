#include <OKVPlatform/values/Lasting.h>
#include <OKVPlatform/values/SeededHash.h>
#include <OKVPlatform/values/Value.h>

#include <bit>
#include <cmath>
#include <stdexcept>

namespace okv {

namespace {

constexpr std::size_t kNowhere = SIZE_MAX;
// Up to this many entries a walk is faster than a hash.
constexpr std::size_t kUnindexed = 16;

std::uint64_t hashOf(std::string_view bytes) {
    return seededHash(bytes);
}

std::uint64_t hashOf(std::uint64_t number) {
    return hashOf(std::string_view(reinterpret_cast<const char*>(&number), sizeof number));
}

std::uint64_t hashOf(const Value& key) {
    if (const auto* text = key.getIf<std::string>()) return hashOf(std::string_view(*text));
    if (const auto* real = key.getIf<double>(); real != nullptr && std::isnan(*real))
        return hashOf(std::uint64_t{0});  // equal, whatever their payload
    if (const auto* real = key.getIf<double>())
        return hashOf(std::bit_cast<std::uint64_t>(*real == 0 ? 0.0 : *real));
    return hashOf(static_cast<std::uint64_t>(key.longLongValue()));
}

bool equals(const Value& key, const Value& wanted) {
    return key == wanted;
}
bool equals(const Value& key, std::string_view wanted) {
    const auto* text = key.getIf<std::string>();
    return text != nullptr && *text == wanted;
}

}  // namespace

// Open addressing over positions in the entry list; a slot holds position + 1, and 0 is free.
struct Dictionary::Index {
    explicit Index(std::size_t slotCount) : slots(slotCount) {}

    void put(std::uint64_t hash, std::size_t position) {
        auto slot = hash & (slots.size() - 1);
        while (slots[slot] != 0) slot = (slot + 1) & (slots.size() - 1);
        slots[slot] = static_cast<std::uint32_t>(position + 1);
    }

    template <class Key>
    std::size_t position(const Key& key, const std::vector<Entry>& entries) const {
        for (auto slot = hashOf(key) & (slots.size() - 1); slots[slot] != 0;
             slot = (slot + 1) & (slots.size() - 1)) {
            if (equals(entries[slots[slot] - 1].key, key)) return slots[slot] - 1;
        }
        return kNowhere;
    }

    // Takes a position out, before its entry goes; those behind it come one forward.
    void takeOut(std::size_t position, const std::vector<Entry>& entries) {
        auto slot = hashOf(entries[position].key) & (slots.size() - 1);
        while (slots[slot] != position + 1) slot = (slot + 1) & (slots.size() - 1);
        free(slot, entries);
        for (auto& held : slots) held -= held > position + 1 ? 1 : 0;
    }

    // Fills the gap from the run behind it, so that no search ends at it too early.
    void free(std::size_t gap, const std::vector<Entry>& entries) {
        const auto mask = slots.size() - 1;
        for (auto slot = (gap + 1) & mask; slots[slot] != 0; slot = (slot + 1) & mask) {
            const auto home = hashOf(entries[slots[slot] - 1].key) & mask;
            if (((slot - home) & mask) < ((slot - gap) & mask)) continue;  // begins behind the gap
            slots[gap] = slots[slot];
            gap = slot;
        }
        slots[gap] = 0;
    }

    std::vector<std::uint32_t> slots;
};

Dictionary::Dictionary() noexcept = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<std::pair<Value, Value>> entries) {
    for (const auto& [key, value] : entries) set(key, value);
}

Dictionary::Dictionary(const Dictionary& other)
    : entries_(other.entries_),
      index_(other.index_ ? std::make_unique<Index>(*other.index_) : nullptr) {}

Dictionary& Dictionary::operator=(const Dictionary& other) {
    return *this = Dictionary(other);
}

template <class Key>
static std::size_t walk(const std::vector<Dictionary::Entry>& entries, const Key& key) {
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (equals(entries[i].key, key)) return i;
    }
    return kNowhere;
}

std::size_t Dictionary::position(const Value& key) const {
    return index_ ? index_->position(key, entries_) : walk(entries_, key);
}

std::size_t Dictionary::position(std::string_view key) const {
    return index_ ? index_->position(key, entries_) : walk(entries_, key);
}

void Dictionary::rebuildIndex() {
    index_.reset();
    if (entries_.size() <= kUnindexed) return;
    index_ = std::make_unique<Index>(std::bit_ceil(entries_.size() * 4));
    for (std::size_t i = 0; i < entries_.size(); ++i) index_->put(hashOf(entries_[i].key), i);
}

void Dictionary::indexLast() {
    if (!index_ || entries_.size() * 2 > index_->slots.size()) return rebuildIndex();
    index_->put(hashOf(entries_.back().key), entries_.size() - 1);
}

bool Dictionary::insert(Value key, Value value) {
    if (!key.is<std::string>() && !key.isNumber())
        throw std::invalid_argument("okv::Dictionary: a key must be a string or a number");
    if (position(key) != kNowhere) return false;
    entries_.push_back({std::move(key), std::move(value)});
    indexLast();
    return true;
}

void Dictionary::set(Value key, Value value) {
    if (auto* held = find(key)) {
        *held = std::move(value);
        return;
    }
    insert(std::move(key), std::move(value));
}

const Value* Dictionary::find(const Value& key) const {
    const auto at = position(key);
    return at == kNowhere ? nullptr : &entries_[at].value;
}

const Value* Dictionary::find(std::string_view key) const {
    const auto at = position(key);
    return at == kNowhere ? nullptr : &entries_[at].value;
}

Value* Dictionary::find(const Value& key) {
    return const_cast<Value*>(std::as_const(*this).find(key));
}
Value* Dictionary::find(std::string_view key) {
    return const_cast<Value*>(std::as_const(*this).find(key));
}

static constinit Lasting<const Value> missingValue;

static const Value& orNil(const Value* value) {
    return value != nullptr ? *value : *missingValue;
}

const Value& Dictionary::operator[](const Value& key) const {
    return orNil(find(key));
}
const Value& Dictionary::operator[](std::string_view key) const {
    return orNil(find(key));
}

bool Dictionary::erase(const Value& key) {
    const auto at = position(key);
    if (at == kNowhere) return false;
    const bool isSmall = entries_.size() <= kUnindexed + 1;
    const bool keepsIndex = index_ && !isSmall && entries_.size() * 16 > index_->slots.size();
    if (keepsIndex) index_->takeOut(at, entries_);
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
    if (!keepsIndex) rebuildIndex();
    return true;
}

void Dictionary::clear() noexcept {
    entries_.clear();
    index_.reset();
}

void Dictionary::reserve(std::size_t count) {
    entries_.reserve(count);
}
std::size_t Dictionary::size() const noexcept {
    return entries_.size();
}
const Dictionary::Entry* Dictionary::begin() const noexcept {
    return entries_.data();
}
const Dictionary::Entry* Dictionary::end() const noexcept {
    return entries_.data() + entries_.size();
}

bool operator==(const Dictionary& a, const Dictionary& b) {
    if (a.size() != b.size()) return false;
    for (const auto& [key, value] : a.entries_) {
        const auto* other = b.find(key);
        if (other == nullptr || !(*other == value)) return false;
    }
    return true;
}

}  // namespace okv
