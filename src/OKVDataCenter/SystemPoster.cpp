#include "SystemPoster.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

namespace datacenter {

void SystemPoster::post(std::string_view name, const okv::Dictionary& userInfo) {
    try {
        okv::DistributedNotificationCenter::defaultCenter().post(name, {}, userInfo);
    } catch (const std::exception& error) {
        log_(std::string("a notice could not be posted: ") + error.what());
    }
}

}  // namespace datacenter
