#include "SystemPoster.h"

#include <OKVPlatform/ipc/RuntimeFolder.h>

namespace datacenter {

namespace {

// Another poster that was stopped while it held the log must not hold the changes up for long.
constexpr std::chrono::milliseconds kLockWait{200};

}  // namespace

SystemPoster::SystemPoster(LogLine log, std::function<Clock::time_point()> now)
    : log_(std::move(log)),
      now_(std::move(now)),
      center_(okv::runtimeDirectory(), {.lockWait = kLockWait}) {}

void SystemPoster::post(std::string_view name, const okv::Dictionary& userInfo) {
    if (now_() < quietUntil_) {
        dropped_ = true;
        return;
    }
    try {
        tryPost(name, userInfo);
    } catch (const std::exception& error) {
        log_(std::string("a notice could not be posted: ") + error.what());
        quietUntil_ = now_() + kQuietAfterFailure;
        dropped_ = true;
    }
}

void SystemPoster::tryPost(std::string_view name, const okv::Dictionary& userInfo) {
    if (!dropped_) return center_.post(name, {}, userInfo);
    auto forAll = userInfo;
    forAll.erase("keys");
    center_.post(name, {}, forAll);
    dropped_ = false;
}

}  // namespace datacenter
