#pragma once

#include <OKVPlatform/ipc/FileIdentity.h>
#include <OKVPlatform/ipc/PrivateDescriptor.h>

#include <cstddef>
#include <string>

namespace okv {

/// Tells when a file in a folder changes or another one takes its name. The folder is watched, not
/// the file, which may be missing.
class FolderWatch {
public:
    struct Seen {
        bool path = false;  ///< the file's name may stand for another file, or for none
        bool lost = false;  ///< the folder is no longer at its path: nothing more will be seen
    };

    FolderWatch(std::string folder, std::string file)
        : folder_(std::move(folder)), file_(std::move(file)) {}

    /// Begins to watch; false without a folder, or when the system has no watch to spare.
    bool open();
    void close() noexcept { inotify_.close(); }
    bool isOpen() const noexcept { return inotify_.isValid(); }
    /// Whether the folder that is watched is still the one at the path: a folder that somebody
    /// holds open can be gone without any sign.
    bool isAtPath() const;

    /// Readable when something was seen.
    int descriptor() const noexcept { return inotify_.get(); }
    /// What was seen since the last time.
    Seen read();

private:
    Seen seenIn(const char* events, std::size_t size) const;

    const std::string folder_;
    const std::string file_;
    PrivateDescriptor inotify_;
    FileIdentity identity_;
};

}  // namespace okv
