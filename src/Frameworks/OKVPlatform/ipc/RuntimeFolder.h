#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/PrivateDescriptor.h>

#include <sys/types.h>

#include <string>

namespace okv {

/// Where the registered names and the notices of this machine live: `$OKV_RUNTIME_DIR` (ignored in
/// privileged programs) or the folder built in.
OKV_EXPORT std::string runtimeDirectory();

/// The service user, who counts only where it was built in: for the folder that was built in too.
OKV_EXPORT bool isServiceUser(uid_t uid);

/// Who may own what this process trusts in a runtime folder: root, its own effective uid, the
/// service user.
OKV_EXPORT bool isTrustedOwner(uid_t uid);

/// Opens a folder (O_PATH) to publish in: of a trusted owner, and not writable by others, unless it
/// is sticky and `sharedWhenSticky`. Not valid otherwise; `why` then says what stands in the way.
OKV_EXPORT PrivateDescriptor openRuntimeFolder(const std::string& path, bool sharedWhenSticky,
                                               std::string& why);

}  // namespace okv
