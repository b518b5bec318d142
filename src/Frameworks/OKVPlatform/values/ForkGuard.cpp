#include <OKVPlatform/values/ForkGuard.h>

#include <OKVPlatform/values/Lasting.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <vector>

namespace okv {

namespace {

// Held across fork itself: no guard comes or goes meanwhile.
struct Guards {
    struct Guard {
        const ForkGuard* owner;
        void* what;
        ForkGuard::Steps steps;
    };
    std::mutex mutex;
    std::vector<Guard> all;

    void take(ForkGuard::Step ForkGuard::Steps::*step) const {
        for (const auto& guard : all) {
            if (const auto taken = guard.steps.*step; taken != nullptr) taken(guard.what);
        }
    }
};

constinit Lasting<Guards> guards;
constinit std::atomic<std::uint32_t> generation{0};

// Registered while the library is loaded: a fork may be under way when the first guard comes. Where
// there is no memory for it, a fork goes unnoticed, as it would without guards.
[[maybe_unused]] const int guarded = pthread_atfork(
    [] {
        guards->mutex.lock();
        guards->take(&ForkGuard::Steps::before);
    },
    [] {
        guards->take(&ForkGuard::Steps::inParent);
        guards->mutex.unlock();
    },
    [] {
        generation.fetch_add(1, std::memory_order_relaxed);
        guards->take(&ForkGuard::Steps::inChild);
        guards->mutex.unlock();
    });

}  // namespace

std::uint32_t forkGeneration() noexcept {
    return generation.load(std::memory_order_relaxed);
}

ForkGuard::ForkGuard(void* what, Steps steps) {
    const std::lock_guard lock(guards->mutex);
    guards->all.push_back({this, what, steps});
}

ForkGuard::~ForkGuard() {
    const std::lock_guard lock(guards->mutex);
    std::erase_if(guards->all, [this](const auto& guard) { return guard.owner == this; });
}

}  // namespace okv
