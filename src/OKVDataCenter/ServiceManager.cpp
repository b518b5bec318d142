#include "ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <ctime>

namespace datacenter {

namespace {

// The clock that the manager compares a reload with.
long long monotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

}  // namespace

bool ServiceManager::takeSocket(int& socket, std::string& why) {
    const int handedOver = sd_listen_fds(1);
    socket = handedOver == 1 ? SD_LISTEN_FDS_START : kNoSocket;
    if (handedOver <= 1) return true;
    why = "the service manager handed over more than one socket";
    return false;
}

void ServiceManager::ready(std::function<bool()> isWell) {
    sd_notify(0, "READY=1");
    isWell_ = std::move(isWell);
    std::uint64_t within = 0;
    if (sd_watchdog_enabled(0, &within) <= 0) return;
    feedEvery_ = std::chrono::microseconds(within / 2);
    feedWatchdog();
}

// Not on a thread of its own, which would turn whatever became of the others.
void ServiceManager::feedWatchdog() {
    if (isWell_()) sd_notify(0, "WATCHDOG=1");
    timer_ = loop_->performAfter(feedEvery_, [this] { feedWatchdog(); });
}

void ServiceManager::reloading() {
    sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%lld", monotonicMicroseconds());
}

void ServiceManager::reloaded(const std::string& failure) {
    if (stopping_) return;
    const auto status = failure.empty() ? std::string() : "The last reload failed: " + failure;
    sd_notifyf(0, "READY=1\nSTATUS=%s", status.c_str());
}

void ServiceManager::stopping() {
    stopping_ = true;
    sd_notify(0, "STOPPING=1");
}

}  // namespace datacenter
