#pragma once

#include <OKVPlatform/values/Value.h>

namespace okvctl {

/// Looks a whole store over before it is sent: the data server refuses it as well, but here each
/// mistake is named with its place and what to do about it. Sizes and counts are the server's own
/// business. Throws ToolError.
void checkStore(const okv::Value& store);

}  // namespace okvctl
