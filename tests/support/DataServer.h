#pragma once

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>

#include <stdexcept>
#include <string>

/// Connections to the data server, past the data manager.
namespace support {

/// Throws std::runtime_error with the reason when there is none.
inline okv::Ref<okv::Connection> connection() {
    std::string why;
    auto made =
        okv::Connection::connectionWithRegisteredName(kOKVDataServerName, std::nullopt, &why);
    if (!made) throw std::runtime_error(why);
    return made;
}

inline okv::Ref<okv::RemoteObject> connect() {
    return connection()->rootProxy();
}

}  // namespace support
