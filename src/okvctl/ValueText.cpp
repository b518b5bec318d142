#include "ValueText.h"

#include "DateText.h"

#include <OKVPlatform/values/PropertyListScalars.h>
#include <OKVPlatform/values/Unicode.h>

#include <algorithm>
#include <array>

namespace okvctl {

namespace {

using okv::Value;

struct TypeRow {
    std::string_view name;
    ValueType type;
    ParsedValue (*read)(std::string_view text);
};

template <class T>
ParsedValue readOr(std::optional<T> value, const char* expected) {
    if (value) return {Value(std::move(*value)), {}};
    return {std::nullopt, expected};
}

ParsedValue readString(std::string_view text) {
    return {Value(text), {}};
}
ParsedValue readInteger(std::string_view text) {
    return readOr(okv::parseInteger(text),
                  "an integer of 64 bits is expected, such as -12 or 0x1f");
}
ParsedValue readReal(std::string_view text) {
    return readOr(okv::parseReal(text), "a number is expected, such as 1.5 or -2e9");
}
ParsedValue readDate(std::string_view text) {
    if (text == "now") return {Value(okv::Date::now()), {}};
    return readOr(parseDate(text),
                  "a date is expected, such as 2026-01-31T23:59:59Z, @SECONDS (since 1970) or now");
}
ParsedValue readData(std::string_view text) {
    return readOr(okv::decodeBase64(text), "base64 is expected, such as aGVsbG8=");
}

ParsedValue readJson(std::string_view text) {
    return parseJson(text);
}

std::optional<bool> flagOf(std::string_view text) {
    constexpr std::string_view yes[] = {"true", "yes", "on", "1"};
    constexpr std::string_view no[] = {"false", "no", "off", "0"};
    if (std::find(std::begin(yes), std::end(yes), text) != std::end(yes)) return true;
    if (std::find(std::begin(no), std::end(no), text) != std::end(no)) return false;
    return std::nullopt;
}
ParsedValue readBoolean(std::string_view text) {
    return readOr(flagOf(text), "true or false is expected (yes, on, 1; no, off, 0)");
}
ParsedValue readNull(std::string_view text) {
    if (text.empty()) return {Value(okv::Null{}), {}};
    return {std::nullopt, "the null object takes no value"};
}

constexpr TypeRow kTypes[] = {
    {"string", ValueType::string, readString}, {"int", ValueType::integer, readInteger},
    {"bool", ValueType::boolean, readBoolean}, {"real", ValueType::real, readReal},
    {"date", ValueType::date, readDate},       {"data", ValueType::data, readData},
    {"json", ValueType::json, readJson},       {"null", ValueType::null, readNull},
};

bool isBlankAtAnEnd(std::string_view text) {
    return okv::withoutSurroundingBlanks(text).size() != text.size();
}

std::string jsonCell(const Value& value) {
    auto text = jsonText(value);
    return isPrintable(text) ? text : jsonText(value, JsonStyle::ascii);
}

std::string stringCell(const Value& value) {
    const auto& text = value.as<std::string>();
    const bool plain = !text.empty() && isPrintable(text) && !isBlankAtAnEnd(text) &&
                       !text.starts_with('"') && !text.starts_with('{');
    return plain ? text : jsonCell(value);
}

}  // namespace

std::optional<ValueType> valueTypeNamed(std::string_view name) {
    const auto* const row = std::find_if(std::begin(kTypes), std::end(kTypes),
                                         [&](const TypeRow& each) { return each.name == name; });
    return row != std::end(kTypes) ? std::optional(row->type) : std::nullopt;
}

std::span<const std::string_view> valueTypeNames() {
    static constexpr auto names = [] {
        std::array<std::string_view, std::size(kTypes)> all;
        std::transform(std::begin(kTypes), std::end(kTypes), all.begin(),
                       [](const TypeRow& row) { return row.name; });
        return all;
    }();
    return names;
}

ParsedValue parseValue(ValueType type, std::string_view text) {
    const auto* const row = std::find_if(std::begin(kTypes), std::end(kTypes),
                                         [&](const TypeRow& each) { return each.type == type; });
    return row->read(text);
}

std::string_view typeName(const Value& value) {
    constexpr std::string_view names[] = {"nil",    "null", "bool", "int",   "real",
                                          "string", "date", "data", "array", "dictionary"};
    return names[static_cast<std::size_t>(value.type())];
}

std::string cellText(const Value& value) {
    switch (value.type()) {
        case Value::Type::nil:
            return "nil";
        case Value::Type::string:
            return stringCell(value);
        case Value::Type::real:
            return okv::formatReal(value.as<double>());
        case Value::Type::date:
            return dateText(value.as<okv::Date>());
        case Value::Type::data:
            return okv::encodeBase64(value.as<okv::Data>());
        default:
            return jsonCell(value);
    }
}

bool isPrintable(std::string_view text) {
    return okv::isUtf8Of(text, [](char32_t one) { return !okv::isControl(one); });
}

namespace {

// Whoever passed a whole file for a key knows its beginning by sight.
constexpr std::size_t kMessageAtMost = 2000;

std::string_view beginningOf(std::string_view text) {
    auto end = kMessageAtMost;
    while (end > 0 && okv::isUtf8Continuation(text[end])) --end;
    return text.substr(0, end);
}

}  // namespace

std::string messageText(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    if (text.size() > kMessageAtMost) return messageText(beginningOf(text)) + "...";
    if (isPrintable(text)) return std::string(text);
    std::string escaped;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F) {
            escaped += c;
        } else {
            escaped.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 15U]);
        }
    }
    return escaped;
}

}  // namespace okvctl
