#pragma once

#include "Store.h"

#include <OKVPlatform/ipc/PrivateDescriptor.h>

namespace datacenter {

/// The file beside a store, `FILE.guard`: its lock says that a server has the store open, its text
/// which epoch and revision were last seen in it. A store that stands below its own mark is an
/// older copy that was put back, which must not be taken for the newer one.
class Store::Guard {
public:
    struct Mark {
        std::string epoch;
        std::int64_t revision = 0;
    };

    /// Throws StoreError when another server holds it, or the folder is missing.
    explicit Guard(const std::string& storeFile);

    /// Throws StoreError when it cannot be read.
    Mark mark() const;
    void setMark(const std::string& epoch, std::int64_t revision) noexcept;

private:
    okv::PrivateDescriptor file_;
    int markSize_ = -1;  // of the mark that stands in the file; unknown at first
};

/// Moves a store's file, and the log beside it, to its own name with the ending and the time.
/// Answers the new name, none where there was nothing to move; throws StoreError.
std::string moveAside(const std::string& storeFile, const char* ending);
/// Renames the file, and the log beside it: all of them or none. Throws StoreError.
void moveStore(const std::string& from, const std::string& to);

}  // namespace datacenter
