#pragma once

#include "support/Files.h"

#include <OKVPlatform/values/Value.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

/// The files of tests/corpus, each with a companion below "expected" that says what a reader makes
/// of it. script/make-plist-corpus writes both.
namespace corpus {

inline std::string contentOf(const std::filesystem::path& path) {
    EXPECT_TRUE(std::filesystem::exists(path)) << path;
    return support::bytesOf(path);
}

/// "folder/name" of every file in the folder whose name begins with `start`, in order.
inline std::vector<std::string> filesIn(const std::string& folder, const std::string& start) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(OKV_CORPUS "/" + folder)) {
        const auto name = entry.path().filename().string();
        if (name.starts_with(start)) names.push_back(folder + "/" + name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

inline std::vector<std::string> propertyLists(const std::string& start) {
    std::vector<std::string> names;
    for (const auto* folder : {"plist_xml", "plist_binary", "plist_text"})
        for (auto& name : filesIn(folder, start)) names.push_back(std::move(name));
    return names;
}

inline std::string bytesOf(const std::string& name) {
    return contentOf(std::filesystem::path(OKV_CORPUS) / name);
}

inline std::string expectedOf(const std::string& name) {
    auto text = contentOf(std::filesystem::path(OKV_CORPUS) / "expected" / (name + ".txt"));
    if (text.ends_with('\n')) text.pop_back();
    return text;
}

inline std::string describeText(const std::string& text) {
    std::string shown = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\x%02x", unsigned{byte});
        const bool plain = byte >= 32 && byte < 127 && c != '"' && c != '\\';
        shown += plain ? std::string(1, c) : std::string(escape);
    }
    return shown + "\"";
}

inline std::string describeReal(const char* kind, double number) {
    char text[64];
    std::snprintf(text, sizeof text, "%s %.17g", kind, number);
    return std::isnan(number) ? std::string(kind) + " nan" : std::string(text);
}

inline std::string describe(const okv::Value& value);

inline std::string describeItems(const okv::Array& array) {
    std::string text;
    for (const auto& item : array) text += (text.empty() ? "" : ", ") + describe(item);
    return text;
}

inline std::string describeItems(const okv::Dictionary& dictionary) {
    std::string text;
    for (const auto& [key, item] : dictionary)
        text += (text.empty() ? "" : ", ") + describe(key) + ": " + describe(item);
    return text;
}

inline std::string describeData(const okv::Data& data) {
    std::string text = "data ";
    for (const auto byte : data) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x", unsigned{byte});
        text += digits;
    }
    return text;
}

/// One line that tells every value from every other.
inline std::string describe(const okv::Value& value) {
    using okv::Value;
    switch (value.type()) {
        case Value::Type::nil:
            return "nil";
        case Value::Type::null:
            return "null";
        case Value::Type::boolean:
            return value.as<bool>() ? "true" : "false";
        case Value::Type::integer:
            return "int " + std::to_string(value.as<std::int64_t>());
        case Value::Type::real:
            return describeReal("real", value.as<double>());
        case Value::Type::string:
            return describeText(value.as<std::string>());
        case Value::Type::date:
            return describeReal("date", value.as<okv::Date>().secondsSince1970);
        case Value::Type::data:
            return describeData(value.as<okv::Data>());
        case Value::Type::array:
            return "[" + describeItems(value.as<okv::Array>()) + "]";
        case Value::Type::dictionary:
            return "{" + describeItems(value.as<okv::Dictionary>()) + "}";
    }
    return "?";
}

/// The name of a corpus file as the name of a test.
inline std::string testName(const testing::TestParamInfo<std::string>& info) {
    auto name = info.param;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

}  // namespace corpus
