#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/FileIdentity.h>
#include <OKVPlatform/ipc/PeerIdentity.h>
#include <OKVPlatform/ipc/PrivateDescriptor.h>
#include <OKVPlatform/ipc/RuntimeFolder.h>

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

namespace okv {

/// 1 to 80 bytes of [A-Za-z0-9._-] that do not begin with ".".
OKV_EXPORT bool isRegisteredName(std::string_view name);

/// A name that this process holds, with the listening socket behind it. One process at a time holds
/// a name: a lock beside the socket says so, which the kernel gives back however the process ends.
/// Destroying it withdraws the name. In a forked child it is nothing.
class OKV_EXPORT PublishedName {
public:
    struct Options {
        std::string subfolder{};  ///< below the runtime folder; with one, the name is not locked
                                  ///< (names of single processes)
        mode_t mode = 0666;       ///< who may connect
        int backlog = 1024;
    };

    /// Null when the name cannot be had; `why` then says what stands in the way.
    static std::unique_ptr<PublishedName> publish(std::string_view name, const Options& options,
                                                  std::string& why);
    /// Takes over a listening socket that a service manager made at the name's place, and with it
    /// the name's lock. Null, with the reason in `why`, when it is no such socket or lies
    /// elsewhere. Withdrawing closes it and leaves its file, which is the service manager's.
    static std::unique_ptr<PublishedName> adopt(std::string_view name, int listener,
                                                std::string& why);

    PublishedName(const PublishedName&) = delete;
    PublishedName& operator=(const PublishedName&) = delete;
    ~PublishedName() { withdraw(); }

    /// The listening socket, non-blocking; -1 after `withdraw` and in a forked child.
    int listener() const noexcept { return listener_.get(); }
    /// Takes the name away, unless the file there is no longer ours.
    void withdraw() noexcept;

private:
    PublishedName() = default;
    bool openFolder(const Options& options, std::string& why);
    PrivateDescriptor openLock(const std::string& lockFile) const;
    bool lockName(const std::string& lockFile, std::string& why);
    bool listenAt(const Options& options, std::string& why);
    bool bindTemporary(const std::string& temporary, const Options& options, std::string& why);

    std::string name_;
    PrivateDescriptor folder_;
    PrivateDescriptor lock_;
    PrivateDescriptor listener_;
    FileIdentity identity_;
};

/// What came of a look-up: a connected socket, or why there is none.
struct ConnectedSocket {
    PrivateDescriptor socket;
    PeerIdentity peer;
    std::string why;
    bool refusedPeer = false;  ///< somebody serves the name, but nobody this process trusts
    int error = 0;             ///< the errno of what the system refused; 0 where it refused nothing
};

/// Connects to a registered name without ever waiting: a server whose backlog is full counts as
/// none. The peer must be root, this process's own effective uid, or, for the built-in folder, the
/// service user that owns it.
OKV_EXPORT ConnectedSocket connectToName(std::string_view name, std::string_view subfolder = {});

/// Connects to the name of a single process in a subfolder that every account may write to. The
/// peer must be that very process by the kernel's word; whose it is does not matter.
OKV_EXPORT ConnectedSocket connectToProcess(pid_t pid, std::string_view name,
                                            std::string_view subfolder);

}  // namespace okv
