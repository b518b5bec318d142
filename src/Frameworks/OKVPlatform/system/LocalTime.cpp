#include <OKVPlatform/system/LocalTime.h>

#include <pthread.h>

#include <mutex>

namespace okv {

namespace {

std::mutex zoneMutex;

void hold() {
    zoneMutex.lock();
}
void letGo() {
    zoneMutex.unlock();
}

// Registered as in ForkGuard.cpp; no guard itself, for making one needs memory, and these functions
// do not fail.
[[maybe_unused]] const int registered = pthread_atfork(&hold, &letGo, &letGo);

}  // namespace

ZoneLock::ZoneLock() noexcept {
    hold();
}
ZoneLock::~ZoneLock() {
    letGo();
}

bool localTime(std::time_t instant, std::tm& fields) noexcept {
    const ZoneLock lock;
    return localtime_r(&instant, &fields) != nullptr;
}

void readLocalZone() noexcept {
    const ZoneLock lock;
    tzset();
}

}  // namespace okv
