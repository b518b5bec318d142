#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/values/ForkGuard.h>

#include <cstdint>

namespace okv {

/// A descriptor that belongs to this process alone: it is closed on exec, and in a forked child it
/// is closed by the fork itself, without touching what the parent has. Afterwards it is invalid
/// there.
class OKV_EXPORT PrivateDescriptor {
public:
    PrivateDescriptor() noexcept = default;
    /// Takes ownership; -1 is "none". A fork in another thread between the call that made the
    /// descriptor and this one leaves it open in the child: `opened` keeps that from happening.
    explicit PrivateDescriptor(int fd);
    /// Takes ownership of what `open` answers, as `open` left errno; forks of other threads wait
    /// meanwhile, and so do others that open, so that `open` must not wait for anything itself.
    template <class Open>
    static PrivateDescriptor opened(Open open) {
        const Opening forksWait;
        return PrivateDescriptor(open());
    }
    /// The other is "none" then.
    PrivateDescriptor(PrivateDescriptor&& other) noexcept;
    /// Its own goes to the other, and is closed with that.
    PrivateDescriptor& operator=(PrivateDescriptor&& other) noexcept;
    ~PrivateDescriptor() { close(); }

    /// The number, or -1: none, closed, or left behind in the parent.
    int get() const noexcept { return isValid() ? fd_ : -1; }
    /// Whether it is open and of this process.
    bool isValid() const noexcept { return fd_ >= 0 && generation_ == forkGeneration(); }
    /// Closes it; does nothing where it is none.
    void close() noexcept;

private:
    /// Keeps forks of other threads waiting as long as it lives.
    class OKV_EXPORT Opening {
    public:
        Opening();
        ~Opening();
        Opening(const Opening&) = delete;
        Opening& operator=(const Opening&) = delete;
    };

    int fd_ = -1;
    std::uint32_t generation_ = 0;
};

}  // namespace okv
