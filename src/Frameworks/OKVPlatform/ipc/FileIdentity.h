#pragma once

#include <sys/stat.h>

namespace okv {

/// Which file it is that stands at a path or behind a descriptor, whatever it is called.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    FileIdentity() = default;
    explicit FileIdentity(const struct stat& status) noexcept
        : device(status.st_dev), inode(status.st_ino) {}
    bool operator==(const FileIdentity&) const = default;
};

}  // namespace okv
