#include "Progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace okvctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kNotBefore(300);
constexpr std::chrono::milliseconds kInterval(100);
constexpr std::size_t kBarWidth = 24;
constexpr std::string_view kWipe = "\r\x1B[K";

void put(int descriptor, std::string_view text) {
    // A terminal that takes no more has nobody to show it to.
    [[maybe_unused]] const auto written = write(descriptor, text.data(), text.size());
}

}  // namespace

Progress::Progress(int descriptor, std::string task, std::size_t steps)
    : descriptor_(descriptor), task_(std::move(task)), steps_(steps) {
    if (isatty(descriptor) != 0) drawer_ = std::thread([this] { draw(); });
}

Progress::~Progress() {
    if (!drawer_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        isOver_ = true;
    }
    over_.notify_one();
    drawer_.join();
}

void Progress::step(std::string_view what) {
    const std::lock_guard lock(mutex_);
    what_ = what;
    if (begun_ < steps_) ++begun_;
}

std::string Progress::line(double seconds) const {
    const auto done = begun_ > 0 ? begun_ - 1 : 0;
    const auto filled = kBarWidth * done / steps_;
    char time[32];
    std::snprintf(time, sizeof time, "%.1f s", seconds);
    return task_ + " [" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + "] " +
           what_ + ", " + time;
}

void Progress::draw() {
    const auto start = Clock::now();
    std::unique_lock lock(mutex_);
    auto next = start + kNotBefore;
    bool drawn = false;
    while (!over_.wait_until(lock, next, [&] { return isOver_; })) {
        const std::chrono::duration<double> taken = Clock::now() - start;
        put(descriptor_, std::string(kWipe) + line(taken.count()));
        drawn = true;
        next = Clock::now() + kInterval;
    }
    if (drawn) put(descriptor_, kWipe);
}

}  // namespace okvctl
