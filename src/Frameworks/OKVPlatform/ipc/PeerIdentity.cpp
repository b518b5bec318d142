#include <OKVPlatform/ipc/PeerIdentity.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace okv {

namespace {

std::vector<gid_t> groupsOfPeer(int descriptor) {
    socklen_t length = 0;
    std::vector<gid_t> groups;
    while (getsockopt(descriptor, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) != 0) {
        if (errno != ERANGE) return {};
        groups.resize(length / sizeof(gid_t));
    }
    groups.resize(length / sizeof(gid_t));
    return groups;
}

}  // namespace

bool PeerIdentity::isInGroup(gid_t group) const noexcept {
    return gid == group || std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::optional<PeerIdentity> PeerIdentity::ofSocket(int descriptor, bool withGroups) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return std::nullopt;
    PeerIdentity identity{credentials.pid, credentials.uid, credentials.gid, {}};
    if (withGroups) identity.groups = groupsOfPeer(descriptor);
    return identity;
}

}  // namespace okv
