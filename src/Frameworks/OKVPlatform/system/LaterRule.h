#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace okv {

/// Seconds east of Greenwich at an instant by a rule in TZ's form ("EST5EDT,M3.2.0,M11.1.0"), or
/// none when the rule is not one.
std::optional<std::int64_t> offsetByRule(const std::string& rule, std::int64_t instant);

}  // namespace okv
