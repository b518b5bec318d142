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

    Mark mark() const;
    void setMark(const Mark& mark) noexcept;

private:
    okv::PrivateDescriptor file_;
};

/// Moves a store's file, and the log beside it, to a name with the time. Answers the new name;
/// throws StoreError.
std::string moveAside(const std::string& storeFile);

}  // namespace datacenter
