#pragma once

#include "LogLine.h"

#include <memory>
#include <string>

namespace datacenter {

/// Writes lines on a thread of its own, in their order: whoever logs never waits, whatever the log
/// does. Up to 1024 lines wait; of more, only their number is told.
class BackgroundLog {
public:
    /// `write` is called on that thread alone and may take its time.
    explicit BackgroundLog(LogLine write);
    /// Waits until what was added is written, but no longer than a second for a log that hangs:
    /// what `write` refers to must then still be there as long as the process is.
    ~BackgroundLog();
    BackgroundLog(const BackgroundLog&) = delete;
    BackgroundLog& operator=(const BackgroundLog&) = delete;

    /// Any thread.
    void add(std::string line);

private:
    struct Lines;
    const std::shared_ptr<Lines> lines_;
};

}  // namespace datacenter
