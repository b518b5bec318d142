#pragma once

#include <OKVPlatform/Export.h>

#include <sys/types.h>

#include <optional>
#include <vector>

namespace okv {

/// The kernel's overflow uid: it stands for "somebody of another namespace", never for an account.
inline constexpr uid_t kOverflowUid = 65534;

/// Who is at the other end of a socket, as the kernel recorded it when the connection was made.
struct OKV_EXPORT PeerIdentity {
    pid_t pid = 0;
    uid_t uid = kOverflowUid;
    gid_t gid = kOverflowUid;
    std::vector<gid_t> groups;  ///< supplementary ones

    /// Whether the uid stands for an account.
    bool isAccount() const noexcept { return uid != kOverflowUid; }
    /// Whether the group is its own or among the supplementary ones.
    bool isInGroup(gid_t group) const noexcept;

    /// Asks the kernel; none when the descriptor is no connected Unix socket. The groups only when
    /// asked for.
    static std::optional<PeerIdentity> ofSocket(int descriptor, bool withGroups = true);
};

}  // namespace okv
