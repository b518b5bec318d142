#pragma once

#include "Model.h"

#include <OKVPlatform/values/Value.h>

#include <string_view>

namespace datacenter {

/// The name of the notice that tells every process of the suite that settings have changed.
inline constexpr char kSettingsNotice[] = "jp.nrm.okv6.notification";

/// Where notices go. Posting may wait for a lock, so it is done on the writer's thread.
class NoticePoster {
public:
    virtual ~NoticePoster() = default;
    virtual void post(std::string_view name, const okv::Dictionary& userInfo) = 0;
};

/// The user information of a change's notice: what `describe` tells, and "epoch". "osuserid" and
/// "session_userid" are always there, because each client takes a notice for a user switch and
/// reads a missing "osuserid" as root's: -1 and 0 are nobody's.
okv::Dictionary noticeFor(const Change& change, const std::string& epoch);

}  // namespace datacenter
