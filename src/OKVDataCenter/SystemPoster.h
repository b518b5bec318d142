#pragma once

#include "Notices.h"
#include "RefusalLog.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

#include <chrono>
#include <functional>

namespace datacenter {

/// Posts to every process of the machine. A notice that cannot be posted is logged and dropped:
/// what it tells is stored, and can be asked for by revision. The next one that is posted then
/// carries no keys: it stands for those that were dropped, too.
class SystemPoster final : public NoticePoster {
public:
    using Clock = std::chrono::steady_clock;

    /// After a failure nothing is tried for so long: changes must not wait for each notice.
    static constexpr std::chrono::seconds kQuietAfterFailure{2};

    explicit SystemPoster(LogLine log, std::function<Clock::time_point()> now = Clock::now);

    void post(std::string_view name, const okv::Dictionary& userInfo) override;

private:
    void tryPost(std::string_view name, const okv::Dictionary& userInfo);

    const LogLine log_;
    const std::function<Clock::time_point()> now_;
    okv::DistributedNotificationCenter center_;
    Clock::time_point quietUntil_ = Clock::time_point::min();
    bool dropped_ = false;
};

}  // namespace datacenter
