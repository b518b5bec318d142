#pragma once

#include "Bytes.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Message.h>
#include <OKVPlatform/ipc/RegisteredName.h>

#include <sys/socket.h>

#include <stdexcept>
#include <string>
#include <string_view>

/// The data server's clients that behave as the library never does: frames by hand, on a socket.
namespace support {

/// The frame that reads the default user's setting.
inline std::string readingRequest(std::string_view key) {
    std::string frame;
    okv::beginRequest(frame, okv::kRootObject, "okvDataPT:appUid:", "@i");
    okv::CborWriter writer(frame);
    writer.text(key);
    writer.integer(1);
    okv::finishRequest(frame);
    return frame;
}

/// A socket to the data server, on which nothing was said yet; throws when there is none.
inline okv::PrivateDescriptor connectRaw() {
    auto connected = okv::connectToName(kOKVDataServerName);
    if (!connected.socket.isValid()) throw std::runtime_error(connected.why);
    return std::move(connected.socket);
}

/// Sends what goes out without waiting; answers how many bytes did.
inline std::size_t push(const okv::PrivateDescriptor& socket, std::string_view bytes) {
    const auto count =
        ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

}  // namespace support
