#pragma once

#include <stdexcept>
#include <string>

namespace okvctl {

/// What the tool's end says to scripts; the numbers are fixed.
enum class ExitCode : int {
    done = 0,
    failure = 1,
    usage = 2,
    timeout = 3,
    refused = 4,
    notRunning = 8,
    notSet = 10,
};

/// Ends a verb: the text goes to the standard error, the code to whoever called the tool.
class ToolError final : public std::runtime_error {
public:
    ToolError(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}

    ExitCode code() const noexcept { return code_; }

private:
    ExitCode code_;
};

}  // namespace okvctl
