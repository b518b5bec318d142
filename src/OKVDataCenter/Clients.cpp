#include "Clients.h"

#include <OKVDataManager/okvDataManager.h>

namespace datacenter {

void Clients::add(okv::RemoteObject& client) {
    registered_[&client.port()] = okv::Ref<okv::RemoteObject>::retaining(&client);
}

void Clients::disconnectAll() {
    // A copy: posting to one that is just going away may take it out of the list.
    const auto clients = registered_;
    for (const auto& [port, client] : clients)
        okv::post<&OKVClientMng_protocol::disConnectSrv>(*client);
}

}  // namespace datacenter
