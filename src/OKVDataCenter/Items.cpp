#include "Items.h"

namespace datacenter {

std::size_t itemsIn(const okv::Value& value) {
    std::size_t items = 1;
    if (const auto* array = value.getIf<okv::Array>()) {
        for (const auto& element : *array) items += itemsIn(element);
    } else if (const auto* dictionary = value.getIf<okv::Dictionary>()) {
        for (const auto& entry : *dictionary) items += 1 + itemsIn(entry.value);
    } else if (value.is<okv::Date>()) {
        ++items;  // a tag and a number
    }
    return items;
}

}  // namespace datacenter
