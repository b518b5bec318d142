#pragma once

#include "Verdict.h"

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace soak {

/// What a living process takes now; its memory is what nobody shares with it.
Sample measure(pid_t process, double at);
std::int64_t bytesOfFilesIn(const std::string& folder);

}  // namespace soak
