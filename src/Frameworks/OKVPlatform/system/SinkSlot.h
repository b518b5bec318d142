#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace okv {

/// A process-wide function that tests may set while other threads call it. Without a function, a
/// call costs one relaxed load and takes no lock, so that a forked child can log.
template <class... Arguments>
class SinkSlot {
public:
    using Function = std::function<void(Arguments...)>;

    void set(Function function) {
        auto next = function ? std::make_shared<const Function>(std::move(function)) : nullptr;
        const std::lock_guard lock(mutex_);
        isSet_.store(next != nullptr, std::memory_order_relaxed);
        function_.swap(next);
    }

    bool isSet() const noexcept { return isSet_.load(std::memory_order_relaxed); }

    /// Calls the function, if there is one, under no lock.
    void operator()(Arguments... arguments) const {
        if (!isSet()) return;
        if (const auto function = held()) (*function)(arguments...);
    }

private:
    std::shared_ptr<const Function> held() const {
        const std::lock_guard lock(mutex_);
        return function_;
    }

    mutable std::mutex mutex_;
    std::shared_ptr<const Function> function_;
    std::atomic<bool> isSet_{false};
};

}  // namespace okv
