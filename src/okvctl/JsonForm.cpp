#include "JsonForm.h"

#include "DateText.h"
#include "JsonTags.h"

#include <OKVPlatform/values/Cbor.h>
#include <OKVPlatform/values/PropertyListScalars.h>
#include <OKVPlatform/values/Unicode.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <stdexcept>

namespace okvctl {

namespace {

using nlohmann::ordered_json;
using okv::Array;
using okv::Dictionary;
using okv::Value;

ordered_json formed(const Value& value, std::size_t depth);

// Appends without looking for the key: a dictionary holds each once.
void append(ordered_json& object, std::string key, ordered_json value) {
    auto& members = object.get_ref<ordered_json::object_t&>();
    static_cast<ordered_json::object_t::Container&>(members).emplace_back(std::move(key),
                                                                          std::move(value));
}

ordered_json tagged(std::string_view tag, ordered_json content) {
    auto object = ordered_json::object();
    append(object, std::string(tag), std::move(content));
    return object;
}

ordered_json formedText(const std::string& text) {
    if (!okv::findInvalidUtf8(text)) return text;
    return tagged(kBytesTag, okv::encodeBase64(okv::Data(text)));
}

ordered_json formedReal(double number) {
    if (std::isfinite(number)) return number;
    return tagged(kRealTag, okv::formatReal(number));
}

ordered_json formedDate(okv::Date date) {
    if (auto text = isoText(date)) return tagged(kDateTag, std::move(*text));
    const auto seconds = date.secondsSince1970;
    if (std::isfinite(seconds)) return tagged(kDateTag, seconds);
    return tagged(kDateTag, okv::formatReal(seconds));
}

bool isPlainObject(const Dictionary& dictionary) {
    for (const auto& [key, value] : dictionary) {
        const auto* text = key.getIf<std::string>();
        if (text == nullptr || okv::findInvalidUtf8(*text)) return false;
        if (dictionary.size() == 1 && text->starts_with('$')) return false;
    }
    return true;
}

ordered_json formedPairs(const Dictionary& dictionary, std::size_t depth) {
    auto pairs = ordered_json::array();
    for (const auto& [key, value] : dictionary)
        pairs.push_back(ordered_json::array({formed(key, depth), formed(value, depth)}));
    return tagged(kDictionaryTag, std::move(pairs));
}

ordered_json formedDictionary(const Dictionary& dictionary, std::size_t depth) {
    if (!isPlainObject(dictionary)) return formedPairs(dictionary, depth);
    auto object = ordered_json::object();
    for (const auto& [key, value] : dictionary)
        append(object, key.as<std::string>(), formed(value, depth));
    return object;
}

ordered_json formedArray(const Array& array, std::size_t depth) {
    auto elements = ordered_json::array();
    for (const auto& element : array) elements.push_back(formed(element, depth));
    return elements;
}

ordered_json formedContainer(const Value& value, std::size_t depth) {
    if (depth >= okv::kMaxValueDepth)
        throw std::length_error("okvctl: a value nested deeper than 64 has no JSON form");
    if (const auto* array = value.getIf<Array>()) return formedArray(*array, depth + 1);
    return formedDictionary(value.as<Dictionary>(), depth + 1);
}

// The depth ends the recursion.
ordered_json formed(const Value& value, std::size_t depth) {
    switch (value.type()) {
        case Value::Type::nil:
            return tagged(kNilTag, true);
        case Value::Type::null:
            return nullptr;
        case Value::Type::boolean:
            return value.as<bool>();
        case Value::Type::integer:
            return value.as<std::int64_t>();
        case Value::Type::real:
            return formedReal(value.as<double>());
        case Value::Type::string:
            return formedText(value.as<std::string>());
        case Value::Type::date:
            return formedDate(value.as<okv::Date>());
        case Value::Type::data:
            return tagged(kDataTag, okv::encodeBase64(value.as<okv::Data>()));
        default:
            return formedContainer(value, depth);
    }
}

}  // namespace

std::string jsonText(const Value& value, JsonStyle style) {
    return formed(value, 0).dump(-1, ' ', style == JsonStyle::ascii);
}

}  // namespace okvctl
