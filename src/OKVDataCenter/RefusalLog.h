#pragma once

#include <OKVPlatform/ipc/PeerIdentity.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace datacenter {

/// Writes one line where the server's lines go. Any thread.
using LogLine = std::function<void(const std::string& line)>;

/// One line for each request that its caller had no right to: who asked for which method, and
/// nothing of what the store holds. A caller that asks without pause cannot fill the log.
class RefusalLog {
public:
    explicit RefusalLog(LogLine write) : write_(std::move(write)) {}

    /// `now` in seconds, of a clock that does not go back.
    void note(const okv::PeerIdentity& caller, std::string_view selector, double now);
    std::int64_t count() const noexcept { return count_; }

private:
    static constexpr int kLinesPerWindow = 10;
    static constexpr double kWindow = 10;

    LogLine write_;
    double windowStart_ = -kWindow;
    int written_ = 0;
    std::int64_t unwritten_ = 0;
    std::int64_t count_ = 0;
};

}  // namespace datacenter
