#pragma once

#include <unistd.h>
#include <string>

/// Standard error as a pipe for the life of the object. Each write(2) up to the pipe's packet size
/// is one packet: `nextWrite` answers what one write gave.
class CapturedStderr {
public:
    CapturedStderr();
    ~CapturedStderr();
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;

    /// The next write's bytes; empty when nothing was written.
    std::string nextWrite();

private:
    int reader_ = -1;
    int saved_ = -1;
};
