#pragma once

#include "Require.h"

#include <OKVPlatform/values/PropertyListFile.h>

#include <cstdint>
#include <stdexcept>

/// What must hold for every input, whichever reader it goes through.
namespace fuzz {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// The list's XML form, or nothing when XML cannot carry one of its texts or dates.
inline std::string xmlOf(const okv::Value& value) {
    try {
        return okv::writePropertyListXml(value);
    } catch (const std::invalid_argument&) {
        return {};
    }
}

/// A result is a value or an error, and a value survives the way through XML. Dates lose their
/// fraction on the first way, hence the second one. What shared pieces blow up to megabytes tells
/// nothing new and would only slow the fuzzer down.
inline void check(const okv::PropertyListResult& result) {
    require(result.value.has_value() == result.error.empty());
    if (!result) return;
    const auto xml = xmlOf(*result.value);
    constexpr std::size_t kLargest = 65536;
    if (xml.empty() || xml.size() > kLargest) return;
    const auto again = okv::readPropertyList(xml);
    require(again.value.has_value());
    require(xmlOf(*again.value) == xml);
}

}  // namespace fuzz
