#pragma once

#include <OKVPlatform/Export.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace okv {

/// The root class: a counted object, born with count 1, owned by whoever made it.
///
/// The last `release` calls `dealloc()` and then deletes the object. Work that needs a whole object
/// (logging, disconnecting, withdrawing observers) belongs in `dealloc()`: a destructor runs when
/// the derived parts are already gone.
///
/// Threads: counting is safe from any thread; everything else is the derived class's business.
class OKV_EXPORT Object {
public:
    Object() noexcept = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    /// Takes a reference; the caller must hold one already.
    void retain() const noexcept { count_.fetch_add(1, std::memory_order_relaxed); }

    /// Takes a reference unless the last one is already gone; answers whether it did. For those who
    /// keep plain pointers (observers, exported objects) and must not wake what is being
    /// deallocated.
    bool retainUnlessDying() const noexcept;

    /// Gives a reference up; the last one calls `dealloc()` and deletes the object.
    void release() const noexcept;

    /// The number of references; 0 while `dealloc()` runs.
    std::size_t retainCount() const noexcept;

protected:
    virtual ~Object() = default;

    /// Called once, by the last release, before the destructors. References taken and released
    /// inside are balanced as usual and do not call it again.
    virtual void dealloc() {}

private:
    mutable std::atomic<std::uint32_t> count_{1};
};

/// One counted reference to a T, or none.
template <class T>
class Ref {
public:
    Ref() noexcept = default;
    /// None.
    Ref(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor): none is spelled nullptr
    Ref(const Ref& other) noexcept : Ref(retaining(other.object_)) {}
    /// Takes the other's reference over; the other holds none then.
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    // As pointers do.
    // clang-format off
    template <class U>
        requires std::is_convertible_v<U*, T*>
    Ref(Ref<U> other) noexcept : object_(other.leak()) {}  // NOLINT(google-explicit-constructor)
    // clang-format on
    Ref& operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() {
        if (object_ != nullptr) object_->release();
    }

    /// Takes over a reference that the caller owns (a new object's first one).
    static Ref adopting(T* object) noexcept {
        Ref ref;
        ref.object_ = object;
        return ref;
    }
    /// Adds a reference of its own; the caller keeps what it had.
    static Ref retaining(T* object) noexcept {
        if (object != nullptr) object->retain();
        return adopting(object);
    }
    /// A reference to an object that may be going: none when it is.
    static Ref unlessDying(T* object) noexcept {
        return adopting(object != nullptr && object->retainUnlessDying() ? object : nullptr);
    }

    /// The object, or null; not retained for the caller.
    T* get() const noexcept { return object_; }
    /// Only where one is held.
    T* operator->() const noexcept { return object_; }
    /// Only where one is held.
    T& operator*() const noexcept { return *object_; }
    /// Whether one is held.
    explicit operator bool() const noexcept { return object_ != nullptr; }
    /// Gives the reference to the caller, who must release it.
    T* leak() noexcept { return std::exchange(object_, nullptr); }

    friend bool operator==(const Ref& a, const Ref& b) noexcept { return a.object_ == b.object_; }
    friend bool operator==(const Ref& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

private:
    T* object_ = nullptr;
};

/// A new T from these arguments, owned by the answer alone. Throws what its constructor throws.
template <class T, class... Args>
Ref<T> make(Args&&... args) {
    return Ref<T>::adopting(new T(std::forward<Args>(args)...));
}

/// A counted array of plain pointers for the bulk release helpers: whoever fills it says who owns
/// the elements' references; the array itself neither takes nor gives up any.
class OKV_EXPORT ObjectArray final : public Object {
public:
    std::vector<Object*> elements;
};

}  // namespace okv
