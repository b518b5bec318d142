#pragma once

#include "Contest.h"

#include <memory>
#include <string>

/// The same look-up over sd-bus: a key and an int in, a 32-byte string out.
namespace bench {

class SdBus {
public:
    /// Peer to peer, over a socket pair.
    static std::unique_ptr<SdBus> peerToPeer();
    /// Over a bus of its own that this program runs; null when it cannot be started.
    static std::unique_ptr<SdBus> overBus(const std::string& program);
    virtual ~SdBus() = default;
    virtual void call() = 0;
};

}  // namespace bench
