#pragma once

#include "Transfer.h"
#include "View.h"

#include <OKVPlatform/values/Value.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

/// What requests are made of, chosen by the fuzzer's bytes.
namespace fuzz {

/// The fuzzer's bytes, taken from the front; zeros once they are used up.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size)
        : left_(reinterpret_cast<const char*>(data), size) {}

    bool atEnd() const { return left_.empty(); }
    std::uint8_t byte() {
        if (atEnd()) return 0;
        const auto first = static_cast<std::uint8_t>(left_.front());
        left_.remove_prefix(1);
        return first;
    }
    std::size_t below(std::size_t limit) { return byte() % limit; }
    std::string_view text(std::size_t length) {
        const auto taken = left_.substr(0, length);
        left_.remove_prefix(taken.size());
        return taken;
    }
    std::string_view text() { return text(byte()); }
    template <class Number>
    Number number() {
        Number number{};
        const auto bytes = text(sizeof number);
        bytes.copy(reinterpret_cast<char*>(&number), bytes.size());
        return number;
    }

private:
    std::string_view left_;
};

inline constexpr std::array kTexts{"dc-gui-colour",
                                   "dc-syscmnf-host",
                                   "dc-cmnset-common_filter_off",
                                   "k",
                                   "",
                                   "\x01",
                                   "dc-a-name-longer-than-is-allowed",
                                   "\xC3\xA9",
                                   "1",
                                   "2",
                                   "1000",
                                   "-1",
                                   "format",
                                   "everybody",
                                   "users",
                                   "settings",
                                   "user_setting",
                                   "contents_words",
                                   "accounts",
                                   "appuid",
                                   "current",
                                   "locks",
                                   "current_user",
                                   "highest_user",
                                   "clock",
                                   "time",
                                   "running",
                                   "since",
                                   "flt_proc_white",
                                   "kill_web_proc"};
inline constexpr std::array<std::int32_t, 8> kNumbers{1, 2, 3, 1000, 0, -1, INT32_MAX, 65534};

inline std::int32_t intFrom(Input& input) {
    const auto choice = input.below(kNumbers.size() + 1);
    return choice < kNumbers.size() ? kNumbers[choice] : input.number<std::int32_t>();
}

inline std::string_view textFrom(Input& input) {
    const auto choice = input.below(kTexts.size() + 1);
    return choice < kTexts.size() ? kTexts[choice] : input.text();
}

inline okv::Value valueFrom(Input& input, const datacenter::View& view, int depth = 0);

inline okv::Value containerFrom(Input& input, const datacenter::View& view, bool isArray,
                                int depth) {
    okv::Array array;
    okv::Dictionary dictionary;
    for (auto left = depth < 6 ? input.below(6) : 0; left > 0; --left) {
        if (isArray) {
            array.push_back(valueFrom(input, view, depth + 1));
        } else {
            dictionary.set(textFrom(input), valueFrom(input, view, depth + 1));
        }
    }
    return isArray ? okv::Value(std::move(array)) : okv::Value(std::move(dictionary));
}

inline okv::Value nestedFrom(Input& input) {
    okv::Value nested = 1;
    for (auto left = input.below(okv::kMaxValueDepth); left > 0; --left)
        nested = okv::Array{std::move(nested)};
    return nested;
}

inline okv::Value valueFrom(Input& input, const datacenter::View& view, int depth) {
    switch (input.below(14)) {
        case 0:
            return textFrom(input);
        case 1:
            return intFrom(input);
        case 2:
            return containerFrom(input, view, true, depth);
        case 3:
            return containerFrom(input, view, false, depth);
        case 4:
            return okv::Null{};
        case 5:
            return {};
        case 6:
            return input.byte() % 2 == 0;
        case 7:
            return input.number<double>();
        case 8:
            return okv::Date{input.number<double>()};
        case 9:
            return input.number<std::int64_t>();
        case 10:
            return okv::Data(input.text());
        case 11:
            return std::string(4U * input.byte(), 'x');
        case 12:
            return nestedFrom(input);
        default:
            return datacenter::exportOf(view);
    }
}

}  // namespace fuzz
