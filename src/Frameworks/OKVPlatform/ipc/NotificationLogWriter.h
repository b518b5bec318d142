#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/FileIdentity.h>
#include <OKVPlatform/ipc/NotificationLog.h>
#include <OKVPlatform/ipc/PrivateDescriptor.h>

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace okv {

/// Posts notices to the log in a runtime folder: who may write the log may post.
///
/// Threads: any may post. Several processes may: a lock beside the log puts them in order.
class OKV_EXPORT NotificationLogWriter {
public:
    struct Options {
        std::size_t sizeLimit = 1U << 20;  ///< bytes; a file that would grow larger is followed
                                           ///< by a new one
        std::chrono::milliseconds lockWait{5000};  ///< how long another poster may hold the lock
    };

    /// `folder`: the runtime folder; looked at only when something is posted.
    NotificationLogWriter(std::string folder, const Options& options)
        : folder_(std::move(folder)), options_(options) {}

    /// When it returns, the notice is in the log. Throws NotificationError; then it is not.
    void post(const Notification& notification);

private:
    PrivateDescriptor openFolder() const;
    PrivateDescriptor takeLock(int folder) const;
    PrivateDescriptor openLock(int folder) const;
    void openLog(int folder);
    bool isAtPath(int folder, struct stat& status) const;
    void checkLog(const struct stat& status) const;
    bool catchUp(std::uint64_t size);
    bool walk(std::uint64_t size);
    void startLog(int folder, const NotificationLogHeader& header);
    PrivateDescriptor createFile(int folder, const char* name, mode_t mode) const;
    void append(const std::string& bytes);
    std::string path(const char* file) const { return folder_ + "/" + file; }
    [[noreturn]] void fail(const std::string& what) const;
    [[noreturn]] void failReading(int error) const;

    const std::string folder_;
    const Options options_;
    std::mutex mutex_;  // guards all below: what this process knows of the log from its last post
    PrivateDescriptor log_;  // kept open, so that no other file can get its inode number meanwhile
    FileIdentity identity_;
    std::uint64_t id_ = 0;
    std::uint64_t end_ = 0;   // all records before are whole
    std::uint64_t next_ = 1;  // the number of the next one
};

}  // namespace okv
