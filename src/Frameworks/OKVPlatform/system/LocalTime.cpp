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

// With the library: what the first call registers could come too late for a fork meanwhile. Without
// memory for it forks do not wait, and nothing else is lost.
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
