#pragma once

#include <OKVPlatform/values/Value.h>

#include <cstddef>

namespace datacenter {

/// How many items a value consists of in a message: itself, keys, and what is inside. An item takes
/// a byte at least, so there are never more of them than bytes.
std::size_t itemsIn(const okv::Value& value);

}  // namespace datacenter
