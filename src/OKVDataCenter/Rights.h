#pragma once

#include "Limits.h"
#include "Methods.h"

#include <OKVPlatform/ipc/PeerIdentity.h>

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>

namespace datacenter {

/// What a method asks of its caller, where it is carried out, and how large its request may be.
struct Grant {
    enum class Class {
        none,        ///< nobody: a method that stands in no row
        read,        ///< whoever can connect
        own,         ///< an account for its own user, where the server runs with self-service
        administer,  ///< root, the server's own account, the administrators' group
    };
    enum class Where {
        here,   ///< on the thread that reads requests
        store,  ///< on the writer's
    };
    Class grantedTo = Class::none;
    Where where = Where::here;
    bool isImport = false;  ///< takes a whole store, so its request may be larger
};

/// The row of a method; `Grant{}` for one that was forgotten.
const Grant& grantFor(Method method);

/// Who may do what, by the kernel's word about the caller alone.
class Rights {
public:
    struct Options {
        bool selfService = false;
        uid_t ownUid = 0;                 ///< the server's
        std::optional<gid_t> adminGroup;  ///< members administer
    };
    explicit Rights(Options options)
        : options_(options), adminGroup_(numberOf(options.adminGroup)) {}
    Rights(const Rights& other) : options_(other.options_), adminGroup_(other.adminGroup_.load()) {}
    Rights& operator=(const Rights&) = delete;

    /// From now on; any thread.
    void setAdminGroup(std::optional<gid_t> group) noexcept { adminGroup_ = numberOf(group); }
    std::optional<gid_t> adminGroup() const noexcept;

    bool isAdministrator(const okv::PeerIdentity& caller) const noexcept;
    /// Whether the caller may send methods of this class at all. For the class "own", whether it
    /// concerns the caller's own user is asked where the change is made.
    bool allows(const okv::PeerIdentity& caller, Grant::Class granted) const noexcept;
    bool hasSelfService() const noexcept { return options_.selfService; }

private:
    static constexpr std::int64_t kNoGroup = -1;
    static std::int64_t numberOf(std::optional<gid_t> group) noexcept {
        return group ? std::int64_t{*group} : kNoGroup;
    }

    const Options options_;
    std::atomic<std::int64_t> adminGroup_;
};

/// The group whose members administer, as the system knows it now; `unknown` when the system cannot
/// tell at the moment. May wait for a name service.
std::optional<gid_t> administratorsGroup(const char* name,
                                         std::optional<gid_t> unknown = std::nullopt);

}  // namespace datacenter
