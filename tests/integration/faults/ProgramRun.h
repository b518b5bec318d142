#pragma once

#include "Support.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>

namespace faults {

/// How a program ended, and what it wrote to both its outputs.
struct Ran {
    int code;  ///< the exit code, or 128 and the signal's number
    std::string output;
};

inline Ran runProgram(const std::string& command) {
    Ran ran{-1, {}};
    auto* const pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return ran;
    std::array<char, 4096> bytes{};
    for (std::size_t count; (count = fread(bytes.data(), 1, bytes.size(), pipe)) > 0;)
        ran.output.append(bytes.data(), count);
    const int status = pclose(pipe);
    ran.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return ran;
}

}  // namespace faults
