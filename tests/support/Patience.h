#pragma once

#include <algorithm>
#include <chrono>

namespace support {

/// How long a test waits in turns for something to happen. A turn counts for a second at most: when
/// the process was stopped for a minute, it has had no time to do its part, and waits on.
class Patience {
public:
    explicit Patience(std::chrono::milliseconds length) : left_(length) {}

    /// Whether to wait for another turn; to be asked before each.
    bool isLeft() {
        const auto now = Clock::now();
        left_ -= std::min<Clock::duration>(now - lastTurn_, std::chrono::seconds(1));
        lastTurn_ = now;
        return left_ > Clock::duration::zero();
    }

private:
    using Clock = std::chrono::steady_clock;

    Clock::duration left_;
    Clock::time_point lastTurn_ = Clock::now();
};

}  // namespace support
