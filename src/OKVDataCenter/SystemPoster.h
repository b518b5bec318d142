#pragma once

#include "Notices.h"
#include "RefusalLog.h"

namespace datacenter {

/// Posts to every process of the machine. A notice that cannot be posted is logged and dropped:
/// what it tells is stored, and can be asked for by revision.
class SystemPoster final : public NoticePoster {
public:
    explicit SystemPoster(LogLine log) : log_(std::move(log)) {}

    void post(std::string_view name, const okv::Dictionary& userInfo) override;

private:
    LogLine log_;
};

}  // namespace datacenter
