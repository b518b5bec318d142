#pragma once

#include <OKVPlatform/ipc/Message.h>

#include <cstddef>
#include <unordered_map>

namespace datacenter {

/// The clients that registered: one per connection, however often it asks. Forgotten when the
/// connection ends.
class Clients {
public:
    void add(okv::RemoteObject& client);
    void remove(const okv::MessagePort& port) { registered_.erase(&port); }
    std::size_t count() const noexcept { return registered_.size(); }
    /// Tells every one of them to disconnect, and waits for none.
    void disconnectAll();

private:
    std::unordered_map<const okv::MessagePort*, okv::Ref<okv::RemoteObject>> registered_;
};

}  // namespace datacenter
