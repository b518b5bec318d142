#include <OKVPlatform/ipc/PrivateDescriptor.h>
#include <OKVPlatform/values/Lasting.h>

#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace okv {

namespace {

// What a child must close. Both mutexes are held across fork, in their order here, so that the
// child finds a whole list: with what is being opened just then, too.
struct Registry {
    std::mutex opening;
    std::mutex mutex;
    std::vector<int> open;
    ForkGuard guard{this, {&lock, &unlock, &closeInChild}};

    static void lock(void* self) {
        static_cast<Registry*>(self)->opening.lock();
        static_cast<Registry*>(self)->mutex.lock();
    }
    static void unlock(void* self) {
        static_cast<Registry*>(self)->mutex.unlock();
        static_cast<Registry*>(self)->opening.unlock();
    }
    static void closeInChild(void* self) {
        auto& open = static_cast<Registry*>(self)->open;
        for (const int fd : open) ::close(fd);
        open.clear();
        unlock(self);
    }
};

Registry& registry() {
    static constinit OnDemand<Registry> descriptors;
    return descriptors.get();
}

}  // namespace

PrivateDescriptor::Opening::Opening() {
    registry().opening.lock();
}

PrivateDescriptor::Opening::~Opening() {
    registry().opening.unlock();
}

PrivateDescriptor::PrivateDescriptor(int fd) : fd_(fd) {
    if (fd < 0) return;
    const std::lock_guard lock(registry().mutex);
    try {
        registry().open.push_back(fd);
    } catch (const std::bad_alloc&) {
        ::close(fd);
        throw;
    }
    generation_ = forkGeneration();
}

PrivateDescriptor::PrivateDescriptor(PrivateDescriptor&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), generation_(other.generation_) {}

PrivateDescriptor& PrivateDescriptor::operator=(PrivateDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    std::swap(generation_, other.generation_);
    return *this;
}

void PrivateDescriptor::close() noexcept {
    if (isValid()) {
        const std::lock_guard lock(registry().mutex);
        auto& open = registry().open;
        if (const auto at = std::find(open.rbegin(), open.rend(), fd_); at != open.rend()) {
            *at = open.back();
            open.pop_back();
        }
        ::close(fd_);
    }
    fd_ = -1;
}

}  // namespace okv
