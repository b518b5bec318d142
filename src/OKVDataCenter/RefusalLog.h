#pragma once

#include "LogLine.h"

#include <OKVPlatform/ipc/PeerIdentity.h>

#include <cstdint>
#include <map>
#include <string_view>

namespace datacenter {

/// One line for each request that its caller had no right to: who asked for which method, and
/// nothing of what the store holds. A caller that asks without pause cannot fill the log, and does
/// not keep other accounts' refusals out of it either.
class RefusalLog {
public:
    /// Seconds for which lines are counted.
    static constexpr double kWindow = 10;
    static constexpr int kLinesPerUid = 10;
    static constexpr int kLinesPerWindow = 100;

    explicit RefusalLog(LogLine write) : write_(std::move(write)) {}

    /// `now` in seconds, of a clock that does not go back.
    void note(const okv::PeerIdentity& caller, std::string_view selector, double now);
    /// Tells how many refusals were left out since that was last told; nothing when none was.
    void tellLeftOut();
    bool hasLeftOut() const noexcept { return leftOut_ > 0; }
    std::int64_t count() const noexcept { return count_; }

private:
    bool isRoomFor(uid_t uid);

    LogLine write_;
    double windowStart_ = -kWindow;
    int written_ = 0;
    std::map<uid_t, int> writtenOf_;
    std::int64_t leftOut_ = 0;
    std::int64_t count_ = 0;
};

}  // namespace datacenter
