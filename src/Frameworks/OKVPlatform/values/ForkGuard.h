#pragma once

#include <OKVPlatform/Export.h>

#include <cstdint>
#include <mutex>

namespace okv {

/// How many forks lie between the first process that loaded this library and this one: what was
/// made in another generation belongs to a parent. Any thread.
OKV_EXPORT std::uint32_t forkGeneration() noexcept;

/// Keeps something whole over a fork. In the child the parent's other threads are gone, in the
/// middle of whatever they did: what they had locked would stay so for ever.
class OKV_EXPORT ForkGuard {
public:
    using Step = void (*)(void* what);
    /// Called on the thread that forks: before it, and then on either side; null for nothing. They
    /// must not fork, wait for anything that takes long, or make or end a guard.
    struct Steps {
        Step before = nullptr;
        Step inParent = nullptr;
        Step inChild = nullptr;
    };

    /// From now on, until the guard goes, the steps are taken with `what`. Any thread.
    ForkGuard(void* what, Steps steps);
    ForkGuard(const ForkGuard&) = delete;
    ForkGuard& operator=(const ForkGuard&) = delete;
    ~ForkGuard();
};

/// A mutex that a fork waits for, so that what it guards is whole in the child, and free. It must
/// be held for moments only, and no other mutex taken meanwhile.
class ForkMutex {
public:
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

private:
    static void hold(void* self) { static_cast<ForkMutex*>(self)->lock(); }
    static void free(void* self) { static_cast<ForkMutex*>(self)->unlock(); }

    std::mutex mutex_;
    ForkGuard guard_{this, {&hold, &free, &free}};
};

}  // namespace okv
