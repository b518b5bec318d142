#include <OKVPlatform/values/Object.h>

namespace okv {

namespace {
// While dealloc() runs the count stands far above any real one: balanced references inside it never
// reach 0 again.
constexpr std::uint32_t kDying = 0x80000000U;
}  // namespace

bool Object::retainUnlessDying() const noexcept {
    auto count = count_.load(std::memory_order_relaxed);
    while (count != 0 && count < kDying) {
        if (count_.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) return true;
    }
    return false;
}

void Object::release() const noexcept {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    count_.store(kDying, std::memory_order_relaxed);
    auto* self = const_cast<Object*>(this);
    self->dealloc();
    delete self;
}

std::size_t Object::retainCount() const noexcept {
    // Who finds himself alone may rely on what the others did before they let go.
    const auto count = count_.load(std::memory_order_acquire);
    return count < kDying ? count : 0;
}

}  // namespace okv
