#pragma once

#include <string>
#include <string_view>

namespace support {

inline std::string repeated(std::string_view part, std::size_t count) {
    std::string all;
    all.reserve(part.size() * count);
    while (count-- > 0) all.append(part);
    return all;
}

}  // namespace support
