#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVPlatform/values/ErrorText.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace okv {

namespace {

constexpr std::size_t kNameAtMost = 80;

bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

std::string withReason(const std::string& what) {
    return what + ": " + errorText(errno);
}

bool ownsBuiltInFolder(uid_t uid) {
    struct stat status {};
    return isServiceUser(uid) && stat(OKV_RUNTIME_DIR, &status) == 0 && status.st_uid == uid;
}

bool isTrustedServer(const PeerIdentity& peer) {
    return peer.isAccount() &&
           (peer.uid == 0 || peer.uid == geteuid() || ownsBuiltInFolder(peer.uid));
}

std::string folderPath(std::string_view subfolder) {
    auto path = runtimeDirectory();
    if (!subfolder.empty()) path.append("/").append(subfolder);
    return path;
}

// Sockets are addressed through the folder's descriptor: no limit on the length of its path, no
// race on it.
sockaddr_un addressIn(int folder, const std::string& file) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const auto path = "/proc/self/fd/" + std::to_string(folder) + "/" + file;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

PrivateDescriptor unixSocket() {
    return PrivateDescriptor::opened(
        [] { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); });
}

const sockaddr* asSocketAddress(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

std::string temporaryName() {
    static std::atomic<unsigned> count{0};
    return ".new-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

}  // namespace

bool isRegisteredName(std::string_view name) {
    return !name.empty() && name.size() <= kNameAtMost && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), isNameCharacter);
}

bool PublishedName::openFolder(const Options& options, std::string& why) {
    // Names of single processes live in a sticky folder that every account may write.
    folder_ = openRuntimeFolder(folderPath(options.subfolder), !options.subfolder.empty(), why);
    return folder_.isValid();
}

// What root makes belongs to the folder's owner, who could not publish otherwise; a file that is
// there already is nobody's to give away.
PrivateDescriptor PublishedName::openLock(const std::string& lockFile) const {
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const auto openAlso = [&](int more) {
        return PrivateDescriptor::opened(
            [&] { return openat(folder_.get(), lockFile.c_str(), flags | more, 0600); });
    };
    auto made = openAlso(O_CREAT | O_EXCL);
    if (!made.isValid()) return openAlso(O_CREAT);
    struct stat owner {};
    if (geteuid() == 0 && fstat(folder_.get(), &owner) == 0)
        (void)!fchown(made.get(), owner.st_uid, owner.st_gid);
    return made;
}

bool PublishedName::lockName(const std::string& lockFile, std::string& why) {
    lock_ = openLock(lockFile);
    if (!lock_.isValid()) {
        why = withReason("the lock file " + lockFile);
        struct stat held {};
        if (fstatat(folder_.get(), lockFile.c_str(), &held, AT_SYMLINK_NOFOLLOW) == 0)
            why += " (it belongs to uid " + std::to_string(held.st_uid) + ")";
        return false;
    }
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) return true;
    why = errno == EWOULDBLOCK ? "the name is taken" : withReason("the lock file " + lockFile);
    return false;
}

bool PublishedName::bindTemporary(const std::string& temporary, const Options& options,
                                  std::string& why) {
    listener_ = unixSocket();
    if (!listener_.isValid()) {
        why = withReason("a socket");
        return false;
    }
    const auto address = addressIn(folder_.get(), temporary);
    unlinkat(folder_.get(), temporary.c_str(), 0);
    struct stat status {};
    if (bind(listener_.get(), asSocketAddress(address), sizeof address) != 0 ||
        fchmodat(folder_.get(), temporary.c_str(), options.mode, 0) != 0 ||
        listen(listener_.get(), options.backlog) != 0 ||
        fstatat(folder_.get(), temporary.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        why = withReason("a socket in the runtime folder");
        return false;
    }
    identity_ = FileIdentity(status);
    return true;
}

// Whoever connects meets a socket that listens already: it gets the name only then.
bool PublishedName::listenAt(const Options& options, std::string& why) {
    // Who holds the lock is alone with the name's temporary one, and takes a killed one's remains
    // away; names without a lock need one of their own.
    const auto temporary = lock_.isValid() ? "." + name_ + ".new" : temporaryName();
    const bool bound = bindTemporary(temporary, options, why);
    if (bound && renameat(folder_.get(), temporary.c_str(), folder_.get(), name_.c_str()) == 0)
        return true;
    if (bound) why = withReason("the name " + name_);
    unlinkat(folder_.get(), temporary.c_str(), 0);
    return false;
}

std::unique_ptr<PublishedName> PublishedName::publish(std::string_view name, const Options& options,
                                                      std::string& why) {
    if (!isRegisteredName(name)) {
        why = "not a name: 1 to 80 of A-Z a-z 0-9 . _ -, not beginning with a dot";
        return nullptr;
    }
    std::unique_ptr<PublishedName> published(new PublishedName);
    if (!published->openFolder(options, why)) return nullptr;
    if (options.subfolder.empty() && !published->lockName(std::string(name) + ".lock", why))
        return nullptr;
    published->name_ = name;
    if (published->listenAt(options, why)) return published;
    published->name_.clear();
    return nullptr;
}

namespace {

bool isListening(int descriptor) {
    int listening = 0, type = 0;
    socklen_t size = sizeof listening;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0) return false;
    return listening != 0 && getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 &&
           type == SOCK_STREAM;
}

// Empty for a socket that is not of the file system.
std::string pathOf(int socket) {
    sockaddr_un address{};
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (getsockname(socket, any, &size) != 0 || address.sun_family != AF_UNIX) return {};
    return {address.sun_path, strnlen(address.sun_path, sizeof address.sun_path)};
}

// However the path is written that the socket was bound to.
bool isBoundAt(int socket, int folder, const std::string& name) {
    struct stat bound {
    }, wanted{};
    return stat(pathOf(socket).c_str(), &bound) == 0 &&
           fstatat(folder, name.c_str(), &wanted, AT_SYMLINK_NOFOLLOW) == 0 &&
           FileIdentity(bound) == FileIdentity(wanted);
}

}  // namespace

std::unique_ptr<PublishedName> PublishedName::adopt(std::string_view name, int listener,
                                                    std::string& why) {
    std::unique_ptr<PublishedName> published(new PublishedName);
    published->listener_ = PrivateDescriptor(listener);
    if (!isListening(listener)) {
        why = "what was handed over is no listening socket";
        return nullptr;
    }
    if (!published->openFolder({}, why)) return nullptr;
    if (!isRegisteredName(name) ||
        !isBoundAt(listener, published->folder_.get(), std::string(name))) {
        why = "the socket that was handed over is not that of " + folderPath({}) + "/" +
              std::string(name);
        return nullptr;
    }
    if (!published->lockName(std::string(name) + ".lock", why)) return nullptr;
    fcntl(listener, F_SETFL, fcntl(listener, F_GETFL) | O_NONBLOCK);
    fcntl(listener, F_SETFD, FD_CLOEXEC);
    // Listening again makes the kernel record this process as the one that serves.
    if (listen(listener, SOMAXCONN) == 0) return published;
    why = withReason("the socket that was handed over");
    return nullptr;
}

void PublishedName::withdraw() noexcept {
    struct stat status {};
    if (!name_.empty() && folder_.isValid() &&
        fstatat(folder_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        FileIdentity(status) == identity_) {
        unlinkat(folder_.get(), name_.c_str(), 0);
    }
    name_.clear();
    listener_.close();
    lock_.close();  // last: the next publisher must not be able to start before the file is gone
    folder_.close();
}

namespace {

ConnectedSocket notConnected(std::string why, bool refusedPeer = false) {
    ConnectedSocket result;
    result.why = std::move(why);
    result.refusedPeer = refusedPeer;
    return result;
}

ConnectedSocket notConnectedBySystem(const std::string& what) {
    const int error = errno;
    auto result = notConnected(withReason(what));
    result.error = error;
    return result;
}

// Without looking at who the peer is.
ConnectedSocket connectToAnybody(std::string_view name, std::string_view subfolder) {
    if (!isRegisteredName(name)) return notConnected("not a registered name");
    const auto folder = PrivateDescriptor::opened(
        [&] { return open(folderPath(subfolder).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); });
    if (!folder.isValid())
        return notConnectedBySystem("the runtime folder " + folderPath(subfolder));
    ConnectedSocket result;
    result.socket = unixSocket();
    if (!result.socket.isValid()) return notConnectedBySystem("a socket");
    const auto address = addressIn(folder.get(), std::string(name));
    if (connect(result.socket.get(), asSocketAddress(address), sizeof address) != 0)
        return notConnectedBySystem("no server at " + folderPath(subfolder) + "/" +
                                    std::string(name));
    if (const auto peer = PeerIdentity::ofSocket(result.socket.get(), false)) result.peer = *peer;
    fcntl(result.socket.get(), F_SETFL, 0);
    return result;
}

}  // namespace

ConnectedSocket connectToName(std::string_view name, std::string_view subfolder) {
    auto result = connectToAnybody(name, subfolder);
    if (!result.socket.isValid() || isTrustedServer(result.peer)) return result;
    return notConnected(
        "served by uid " + std::to_string(result.peer.uid) + ", which is not trusted", true);
}

ConnectedSocket connectToProcess(pid_t pid, std::string_view name, std::string_view subfolder) {
    auto result = connectToAnybody(name, subfolder);
    if (!result.socket.isValid() || result.peer.pid == pid) return result;
    return notConnected("served by process " + std::to_string(result.peer.pid), true);
}

}  // namespace okv
