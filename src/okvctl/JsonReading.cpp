#include "DateText.h"
#include "JsonForm.h"
#include "JsonTags.h"

#include <OKVPlatform/values/Cbor.h>
#include <OKVPlatform/values/PropertyListScalars.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>

namespace okvctl {

namespace {

using okv::Array;
using okv::Dictionary;
using okv::Value;
using Read = std::optional<Value>;

// A dictionary written as pairs takes three levels of JSON.
constexpr std::size_t kJsonDepth = 3 * okv::kMaxValueDepth + 1;

Read nonFinite(const Value& content) {
    const auto* text = content.getIf<std::string>();
    if (text == nullptr) return std::nullopt;
    const auto number = okv::parseReal(*text);
    return number && !std::isfinite(*number) ? Read(*number) : std::nullopt;
}

Read readNil(const Value& content) {
    return content == Value(true) ? Read(Value()) : std::nullopt;
}

Read readDate(const Value& content) {
    if (const auto* number = content.getIf<double>()) return okv::Date{*number};
    if (const auto* number = content.getIf<std::int64_t>())
        return okv::Date{static_cast<double>(*number)};
    if (const auto number = nonFinite(content)) return okv::Date{number->as<double>()};
    const auto* text = content.getIf<std::string>();
    const auto date = text != nullptr ? parseDate(*text) : std::nullopt;
    return date ? Read(*date) : std::nullopt;
}

Read readData(const Value& content) {
    const auto* text = content.getIf<std::string>();
    auto data = text != nullptr ? okv::decodeBase64(*text) : std::nullopt;
    return data ? Read(std::move(*data)) : std::nullopt;
}

Read readBytes(const Value& content) {
    const auto data = readData(content);
    return data ? Read(data->as<okv::Data>().text()) : std::nullopt;
}

bool isKey(const Value& value) {
    return value.is<std::string>() || value.isNumber();
}

Read readDictionary(const Value& content) {
    const auto* pairs = content.getIf<Array>();
    if (pairs == nullptr) return std::nullopt;
    Dictionary dictionary;
    for (const auto& element : *pairs) {
        const auto* pair = element.getIf<Array>();
        if (pair == nullptr || pair->size() != 2 || !isKey((*pair)[0])) return std::nullopt;
        if (!dictionary.insert((*pair)[0], (*pair)[1])) return std::nullopt;
    }
    return dictionary;
}

struct Form {
    std::string_view tag;
    Read (*read)(const Value& content);
};

constexpr Form kForms[] = {{kNilTag, readNil},     {kRealTag, nonFinite},
                           {kDateTag, readDate},   {kDataTag, readData},
                           {kBytesTag, readBytes}, {kDictionaryTag, readDictionary}};

Read readForm(std::string_view tag, const Value& content) {
    const auto* const form = std::find_if(std::begin(kForms), std::end(kForms),
                                          [&](const Form& each) { return each.tag == tag; });
    return form != std::end(kForms) ? form->read(content) : std::nullopt;
}

bool isForm(const Dictionary& dictionary) {
    return dictionary.size() == 1 && dictionary.begin()->key.as<std::string>().starts_with('$');
}

// Takes the parser's events: it keeps a stack of its own, so that no text makes it recurse.
class Builder {
public:
    using number_integer_t = nlohmann::json::number_integer_t;
    using number_unsigned_t = nlohmann::json::number_unsigned_t;
    using number_float_t = nlohmann::json::number_float_t;
    using string_t = nlohmann::json::string_t;
    using binary_t = nlohmann::json::binary_t;

    bool null() { return add(okv::Null{}, 0); }
    bool boolean(bool flag) { return add(flag, 0); }
    bool number_integer(number_integer_t number) { return add(number, 0); }
    bool number_unsigned(number_unsigned_t number) {
        if (number > INT64_MAX) return fail("an integer beyond 64 bits");
        return add(number, 0);
    }
    // An integer that is too large for the parser comes as a real, too.
    bool number_float(number_float_t number, const string_t& text) {
        if (text.find_first_of(".eE") == string_t::npos) return fail("an integer beyond 64 bits");
        return add(number, 0);
    }
    bool string(string_t& text) { return add(std::move(text), 0); }
    bool binary(binary_t&) { return fail("no JSON"); }
    bool start_object(std::size_t) { return open(Dictionary()); }
    bool start_array(std::size_t) { return open(Array()); }
    bool key(string_t& text) {
        if (open_.back().container.as<Dictionary>().contains(text))
            return fail("the key " + jsonText(text, JsonStyle::ascii) + " stands twice");
        open_.back().key = std::move(text);
        return true;
    }
    bool end_array() {
        auto done = close();
        return add(std::move(done.container), done.height + 1);
    }
    bool end_object();
    bool parse_error(std::size_t position, const std::string&, const nlohmann::json::exception&) {
        return fail("no JSON at byte " + std::to_string(position));
    }

    ParsedValue result() && { return std::move(result_); }

private:
    struct Level {
        Value container;
        std::string key;
        std::size_t height = 0;  // of the highest element
    };

    bool fail(std::string why) {
        result_ = {std::nullopt, std::move(why.append(place()))};
        return false;
    }
    std::string place() const;
    bool open(Value container) {
        if (open_.size() == kJsonDepth) return fail("nested too deep");
        open_.push_back({std::move(container), {}, 0});
        return true;
    }
    Level close() {
        auto done = std::move(open_.back());
        open_.pop_back();
        return done;
    }
    bool add(Value value, std::size_t height);

    std::vector<Level> open_;
    ParsedValue result_{std::nullopt, "no value"};
};

// ", in a.b": the keys of the objects that are open, as far as that is of use.
std::string Builder::place() const {
    constexpr std::size_t placeAtMost = 300;
    std::string place;
    for (const auto& level : open_) {
        if (!level.key.empty() && place.size() < placeAtMost)
            place.append(place.empty() ? ", in " : ".").append(level.key, 0, placeAtMost);
    }
    return place;
}

bool Builder::add(Value value, std::size_t height) {
    if (open_.empty()) {
        if (height > okv::kMaxValueDepth) return fail("nested deeper than 64");
        result_ = {std::move(value), {}};
        return true;
    }
    auto& level = open_.back();
    level.height = std::max(level.height, height);
    if (auto* array = level.container.getIf<Array>()) {
        array->push_back(std::move(value));
    } else {
        level.container.as<Dictionary>().set(std::move(level.key), std::move(value));
        level.key.clear();
    }
    return true;
}

bool Builder::end_object() {
    auto done = close();
    const auto& dictionary = done.container.as<Dictionary>();
    if (!isForm(dictionary)) return add(std::move(done.container), done.height + 1);
    const auto& [tag, content] = *dictionary.begin();
    auto value = readForm(tag.as<std::string>(), content);
    if (!value) return fail("no " + jsonText(tag, JsonStyle::ascii) + " that is known");
    // The list of pairs and each pair are levels of the text, not of the dictionary.
    const auto height = value->is<Dictionary>() ? std::max<std::size_t>(done.height, 2) - 1 : 0;
    return add(std::move(*value), height);
}

}  // namespace

ParsedValue parseJson(std::string_view text, std::size_t atMost) {
    if (text.size() > atMost)
        return {std::nullopt, "longer than " + std::to_string(atMost >> 20) + " MiB of JSON"};
    Builder builder;
    nlohmann::json::sax_parse(text, &builder);
    return std::move(builder).result();
}

}  // namespace okvctl
