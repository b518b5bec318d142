#pragma once

#include <span>

namespace okvctl {

/// Runs the tool: the arguments without the program's name, output and messages to the standard
/// descriptors. Answers the exit code.
int runTool(std::span<const char* const> arguments);

}  // namespace okvctl
