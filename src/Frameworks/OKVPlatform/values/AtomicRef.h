#pragma once

#include <OKVPlatform/values/Object.h>

#include <atomic>
#include <cstdint>
#include <thread>

namespace okv {

/// A `Ref` field that any thread may read and replace: one pointer word whose lowest bit is a lock,
/// held only while the count is raised, so that a reader never meets an object between its last two
/// releases.
template <class T>
class AtomicRef {
public:
    AtomicRef() noexcept = default;
    AtomicRef(const AtomicRef&) = delete;
    AtomicRef& operator=(const AtomicRef&) = delete;
    ~AtomicRef() { store(nullptr); }

    /// What is held at this moment, with a reference of the caller's own; none when the field is
    /// empty.
    Ref<T> load() const noexcept {
        const auto word = lock();
        auto ref = Ref<T>::retaining(pointer(word));
        unlock(word);
        return ref;
    }

    /// Holds this instead; what was held is released, which may run its `dealloc()` here.
    void store(Ref<T> value) noexcept { exchange(std::move(value)); }

    /// Holds this instead, and gives what was held to the caller.
    Ref<T> exchange(Ref<T> value) noexcept {
        const auto old = lock();
        unlock(reinterpret_cast<std::uintptr_t>(value.leak()));
        return Ref<T>::adopting(pointer(old));
    }

    /// Clears the field only while it still holds `expected`; answers whether it did.
    bool clearIf(const T* expected) noexcept {
        const auto word = lock();
        if (pointer(word) != expected || expected == nullptr) {
            unlock(word);
            return false;
        }
        unlock(0);
        Ref<T>::adopting(pointer(word));
        return true;
    }

    /// Frees the field where another thread was reading or replacing it when this process was
    /// forked. Only in the child, before it has threads of its own.
    void freeInChild() noexcept { word_.fetch_and(~kLock, std::memory_order_relaxed); }

    /// Whether something is held at this moment.
    explicit operator bool() const noexcept {
        return (word_.load(std::memory_order_acquire) & ~kLock) != 0;
    }

private:
    static constexpr std::uintptr_t kLock = 1;

    static T* pointer(std::uintptr_t word) noexcept { return reinterpret_cast<T*>(word); }

    std::uintptr_t lock() const noexcept {
        auto word = word_.load(std::memory_order_relaxed) & ~kLock;
        while (!word_.compare_exchange_weak(word, word | kLock, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            if ((word & kLock) != 0) std::this_thread::yield();
            word &= ~kLock;
        }
        return word;
    }

    void unlock(std::uintptr_t word) const noexcept {
        word_.store(word, std::memory_order_release);
    }

    mutable std::atomic<std::uintptr_t> word_{0};
};

}  // namespace okv
