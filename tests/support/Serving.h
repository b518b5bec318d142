#pragma once

#include "Patience.h"

#include <OKVPlatform/ipc/RunLoop.h>

#include <chrono>
#include <functional>

namespace support {

/// Runs this thread's loop until it is so; false when it is not in good time.
inline bool serveUntil(const std::function<bool()>& isSo) {
    const auto loop = okv::RunLoop::current();
    Patience patience(std::chrono::seconds(30));
    while (!isSo()) {
        if (!patience.isLeft()) return false;
        loop->runUntil(okv::RunLoop::Clock::now() + std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace support
