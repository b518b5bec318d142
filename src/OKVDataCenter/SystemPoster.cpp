#include "SystemPoster.h"

#include <OKVPlatform/ipc/RuntimeFolder.h>

namespace datacenter {

namespace {

using Steady = std::chrono::steady_clock;

// Another poster that was stopped while it held the log must not hold the changes up for long.
constexpr std::chrono::milliseconds kLockWait{200};
constexpr std::chrono::seconds kQuietAfterFailure{2};

}  // namespace

SystemPoster::SystemPoster(LogLine log)
    : log_(std::move(log)), center_(okv::runtimeDirectory(), {.lockWait = kLockWait}) {}

void SystemPoster::post(std::string_view name, const okv::Dictionary& userInfo) {
    if (Steady::now() < quietUntil_) {
        dropped_ = true;
        return;
    }
    try {
        tryPost(name, userInfo);
    } catch (const std::exception& error) {
        log_(std::string("a notice could not be posted: ") + error.what());
        quietUntil_ = Steady::now() + kQuietAfterFailure;
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
