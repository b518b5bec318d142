#pragma once

#include <OKVPlatform/values/Value.h>

#include <optional>
#include <string>
#include <string_view>

namespace okvctl {

/// A date as "2026-01-31T23:59:59.25Z", with as many decimals as it takes to read the same date
/// back; none where that form does not reach: outside of the years 1 to 9999, fractions of seconds
/// before 1970, and what is no number.
std::optional<std::string> isoText(okv::Date date);

/// A date as `isoText`, else as "@" and its seconds since 1970. Reads back as the same date.
std::string dateText(okv::Date date);

/// "2026-01-31T23:59:59", with decimals if need be, then "Z" or a distance from UTC such as
/// "+09:00"; or "@" and seconds since 1970. None for any other text.
std::optional<okv::Date> parseDate(std::string_view text);

}  // namespace okvctl
