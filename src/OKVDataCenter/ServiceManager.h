#pragma once

#include <OKVPlatform/ipc/RunLoop.h>

#include <chrono>
#include <functional>
#include <string>

namespace datacenter {

/// The service manager that started this process, where there is one: hands a socket over, and is
/// told what the server is about. Without one nothing of this does anything. On the run loop's
/// thread.
class ServiceManager {
public:
    static constexpr int kNoSocket = -1;

    ServiceManager() = default;
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;
    ~ServiceManager() { loop_->cancel(timer_); }

    /// The listening socket that was handed over, or kNoSocket. False when there is more than one;
    /// `why` then says so. What was handed to another process, which left its environment to us, is
    /// nothing.
    static bool takeSocket(int& socket, std::string& why);

    /// The server serves. From now on the watchdog is fed by the run loop, for as long as it turns
    /// and `isWell` agrees: who does not feed it is ended and started again.
    void ready(std::function<bool()> isWell);
    void reloading();
    /// `failure` is empty when all was read again.
    void reloaded(const std::string& failure);
    void stopping();

private:
    void feedWatchdog();

    const okv::Ref<okv::RunLoop> loop_ = okv::RunLoop::current();
    std::function<bool()> isWell_;
    std::chrono::microseconds feedEvery_{0};
    okv::RunLoop::Id timer_ = 0;
    bool stopping_ = false;
};

}  // namespace datacenter
