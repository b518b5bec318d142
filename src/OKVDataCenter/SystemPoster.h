#pragma once

#include "Notices.h"
#include "RefusalLog.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

#include <chrono>

namespace datacenter {

/// Posts to every process of the machine. A notice that cannot be posted is logged and dropped:
/// what it tells is stored, and can be asked for by revision. The next one that is posted then
/// carries no keys: it stands for those that were dropped, too.
class SystemPoster final : public NoticePoster {
public:
    explicit SystemPoster(LogLine log);

    void post(std::string_view name, const okv::Dictionary& userInfo) override;

private:
    void tryPost(std::string_view name, const okv::Dictionary& userInfo);

    const LogLine log_;
    okv::DistributedNotificationCenter center_;
    std::chrono::steady_clock::time_point
        quietUntil_;  // after a failure: changes must not wait for each notice
    bool dropped_ = false;
};

}  // namespace datacenter
