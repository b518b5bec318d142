#pragma once

#include <atomic>
#include <memory>

namespace okv {

// For what a process has one of, until its very end: threads and static destructors use it while
// the process ends. A local static object would not do: who makes one holds a lock meanwhile, and a
// child forked just then would wait for ever for a thread that it does not have.

/// There from the start, without memory too. To be declared `constinit`, outside functions.
template <class T>
class Lasting {
public:
    constexpr Lasting() noexcept : object_() {}
    Lasting(const Lasting&) = delete;
    Lasting& operator=(const Lasting&) = delete;
    constexpr ~Lasting() {}  // NOLINT(modernize-use-equals-default): the object stays

    T& operator*() noexcept { return object_; }
    T* operator->() noexcept { return &object_; }

private:
    union {
        T object_;
    };
};

/// Made by the first who asks for it, and never destroyed, unless its holder does it. Of several
/// that ask at once each makes one, and all but one of these go again: making it must change
/// nothing else. To be declared `constinit` where it is static. Any thread.
template <class T>
class OnDemand {
public:
    /// The object; where there is none yet, what `make` answers (a `std::unique_ptr<T>`).
    template <class Make>
    T& get(Make make) {
        if (auto* const made = object_.load(std::memory_order_acquire)) return *made;
        std::unique_ptr<T> ours = make();
        T* theirs = nullptr;
        if (!object_.compare_exchange_strong(theirs, ours.get(), std::memory_order_acq_rel,
                                             std::memory_order_acquire))
            return *theirs;
        return *ours.release();
    }
    T& get() {
        return get([] { return std::make_unique<T>(); });
    }
    /// For a holder that ends itself: nobody may have the object any more.
    void destroy() noexcept { delete object_.exchange(nullptr); }

private:
    std::atomic<T*> object_{nullptr};
};

}  // namespace okv
