#include <OKVPlatform/ipc/ForkGuard.h>

#include <OKVPlatform/values/Lasting.h>

#include <pthread.h>

#include <algorithm>
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

    void take(ForkGuard::Step ForkGuard::Steps::*step) {
        for (const auto& guard : all) {
            if (const auto taken = guard.steps.*step; taken != nullptr) taken(guard.what);
        }
    }
};

constinit Lasting<Guards> guards;

// With the library: what the first guard registers could come too late for a fork meanwhile.
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
        guards->take(&ForkGuard::Steps::inChild);
        guards->mutex.unlock();
    });

}  // namespace

ForkGuard::ForkGuard(void* what, Steps steps) {
    const std::lock_guard lock(guards->mutex);
    guards->all.push_back({this, what, steps});
}

ForkGuard::~ForkGuard() {
    const std::lock_guard lock(guards->mutex);
    std::erase_if(guards->all, [this](const auto& guard) { return guard.owner == this; });
}

}  // namespace okv
