#pragma once

#include <OKVPlatform/ipc/NotificationLog.h>

#include <cstdint>
#include <string>

namespace ipctest {

inline std::string record(std::uint64_t sequence, const okv::Notification& notification) {
    auto bytes = okv::encodeLogRecord(notification);
    okv::sealLogRecord(bytes, sequence);
    return bytes;
}

/// With any bytes for a content.
inline std::string rawRecord(std::uint64_t sequence, const std::string& content) {
    auto bytes = std::string(okv::kLogRecordHeaderSize, '\0') + content;
    okv::sealLogRecord(bytes, sequence);
    return bytes;
}

}  // namespace ipctest
