#pragma once

#include "Verdict.h"

#include <sys/types.h>

#include <string>
#include <string_view>

namespace soak {

/// The number of a line "NAME:   123 kB"; 0 when there is no such line.
std::int64_t numberOf(std::string_view text, std::string_view name);

/// What a living process takes now; its memory is what nobody shares with it.
Sample measure(pid_t process, double at);
std::int64_t bytesOfFilesIn(const std::string& folder);

}  // namespace soak
