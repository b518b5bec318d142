#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/Data.h>
#include <OKVPlatform/values/Dictionary.h>

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace okv {

/// The null object: a value that stands for no value. Not the same as nil, which is no object at
/// all.
struct Null {
    friend bool operator==(Null, Null) noexcept { return true; }
};

/// A point in time: seconds since 1970-01-01 00:00:00 UTC, leap seconds not counted.
struct OKV_EXPORT Date {
    double secondsSince1970 = 0;
    /// The present instant by the system's real-time clock.
    static Date now();
    friend OKV_EXPORT bool operator==(Date a, Date b) noexcept;
};

using Array = std::vector<Value>;

/// A property-list value, or nil (default-constructed: no object).
///
/// Every number object is an `std::int64_t`, a `double` or a `bool`; the three differ when
/// compared. Strings are UTF-8 by agreement, but any bytes are carried, NUL included.
class OKV_EXPORT Value {
public:
    enum class Type { nil, null, boolean, integer, real, string, date, data, array, dictionary };

    Value() noexcept = default;
    // Implicit from every kind it can hold, as literals are:
    // NOLINTBEGIN(google-explicit-constructor)
    /// The null object.
    Value(Null null) noexcept : storage_(null) {}
    /// Exactly a bool: a pointer is none.
    template <std::same_as<bool> T>
    Value(T flag) noexcept : storage_(flag) {}
    /// An integer of any width. Throws std::out_of_range above 2^63-1.
    template <std::integral T>
    requires(!std::same_as<T, bool>) Value(T number) : storage_(checkedInteger(number)) {}
    /// A real.
    template <std::floating_point T>
    Value(T number) noexcept : storage_(static_cast<double>(number)) {}
    /// A string, with whatever bytes.
    Value(std::string text) noexcept : storage_(std::move(text)) {}
    /// A copy of the text.
    Value(std::string_view text) : storage_(std::string(text)) {}
    /// The text up to its first NUL; not null.
    Value(const char* text) : storage_(std::string(text)) {}
    /// A point in time.
    Value(Date date) noexcept : storage_(date) {}
    /// Bytes.
    Value(Data data) noexcept : storage_(std::move(data)) {}
    /// An array; its elements may be nil.
    Value(Array array) noexcept : storage_(std::move(array)) {}
    /// A dictionary.
    Value(Dictionary dictionary) noexcept : storage_(std::move(dictionary)) {}
    // NOLINTEND(google-explicit-constructor)
    Value(const Value&);
    Value(Value&&) noexcept;
    Value& operator=(const Value&);
    Value& operator=(Value&&) noexcept;
    ~Value();

    /// The kind of its content.
    Type type() const noexcept { return static_cast<Type>(storage_.index()); }
    /// Whether it is no object.
    bool isNil() const noexcept { return type() == Type::nil; }
    /// Whether it is the null object.
    bool isNull() const noexcept { return type() == Type::null; }
    /// nil or the null object: what settings treat alike as "not set".
    bool isMissing() const noexcept { return isNil() || isNull(); }
    /// Whether it is an integer, a real or a boolean.
    bool isNumber() const noexcept;

    /// The content as a T (bool, std::int64_t, double, std::string, Date, Data, Array, Dictionary),
    /// or null when it is of another kind.
    template <class T>
    const T* getIf() const noexcept {
        return std::get_if<T>(&storage_);
    }
    /// As above, to be changed in its place.
    template <class T>
    T* getIf() noexcept {
        return std::get_if<T>(&storage_);
    }
    /// Whether the content is a T.
    template <class T>
    bool is() const noexcept {
        return std::holds_alternative<T>(storage_);
    }
    /// The content as a T. Throws std::bad_variant_access when it is of another kind.
    template <class T>
    const T& as() const {
        return std::get<T>(storage_);
    }
    /// As above, to be changed in its place.
    template <class T>
    T& as() {
        return std::get<T>(storage_);
    }

    /// The number read as an integer: a number's value without its fraction, a string's leading
    /// decimal digits after blanks and one sign, clamped at the ends of the type; 0 for everything
    /// else.
    std::int32_t intValue() const noexcept;
    /// As `intValue`, 64 bits wide.
    std::int64_t longLongValue() const noexcept;
    /// The boolean reading: a number is true when it is not zero; a string when it begins, after
    /// blanks, one sign and zeros, with Y, y, T, t or a digit 1 to 9; everything else is false, the
    /// null object included.
    bool boolValue() const noexcept;

    friend OKV_EXPORT bool operator==(const Value& a, const Value& b);

private:
    template <class T>
    static std::int64_t checkedInteger(T number) {
        if constexpr (std::unsigned_integral<T> && sizeof(T) >= sizeof(std::int64_t)) {
            if (number > static_cast<T>(INT64_MAX)) throwTooLarge();
        }
        return static_cast<std::int64_t>(number);
    }
    [[noreturn]] static void throwTooLarge();

    // In the order of Type.
    std::variant<std::monostate, Null, bool, std::int64_t, double, std::string, Date, Data, Array,
                 Dictionary>
        storage_;
};

struct Dictionary::Entry {
    Value key;
    Value value;
};

/// The platform's `intValue` of a text: see Value::intValue.
OKV_EXPORT std::int32_t intValueOf(std::string_view text) noexcept;
/// The platform's `boolValue` of a text: see Value::boolValue.
OKV_EXPORT bool boolValueOf(std::string_view text) noexcept;

}  // namespace okv
