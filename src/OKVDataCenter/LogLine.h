#pragma once

#include <functional>
#include <string>

namespace datacenter {

/// Writes one line where the server's lines go. Any thread; must not wait.
using LogLine = std::function<void(const std::string& line)>;

}  // namespace datacenter
