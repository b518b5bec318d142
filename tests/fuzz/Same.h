#pragma once

#include <OKVPlatform/values/Value.h>

#include <algorithm>

namespace fuzz {

bool same(const okv::Value& a, const okv::Value& b);

inline bool same(double a, double b) {
    return a == b || (a != a && b != b);
}

inline bool same(const okv::Dictionary& a, const okv::Dictionary& b) {
    return a.size() == b.size() && std::all_of(a.begin(), a.end(), [&](const auto& entry) {
               const auto* found = b.find(entry.key);
               return found != nullptr && same(entry.value, *found);
           });
}

/// Equal, where numbers that are none equal each other, too.
inline bool same(const okv::Value& a, const okv::Value& b) {
    if (a.type() != b.type()) return false;
    if (const auto* real = a.getIf<double>()) return same(*real, b.as<double>());
    if (const auto* date = a.getIf<okv::Date>())
        return same(date->secondsSince1970, b.as<okv::Date>().secondsSince1970);
    if (const auto* dictionary = a.getIf<okv::Dictionary>())
        return same(*dictionary, b.as<okv::Dictionary>());
    if (const auto* array = a.getIf<okv::Array>()) {
        const auto& other = b.as<okv::Array>();
        return std::equal(array->begin(), array->end(), other.begin(), other.end(),
                          [](const auto& x, const auto& y) { return same(x, y); });
    }
    return a == b;
}

}  // namespace fuzz
