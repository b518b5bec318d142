#include "Require.h"

#include <OKVPlatform/ipc/NotificationLog.h>
#include <OKVPlatform/values/Cbor.h>

#include <string>
#include <string_view>

namespace {

using fuzz::require;

// Goes through the bytes as a reader goes through a file.
void readAsLog(std::string_view bytes) {
    if (okv::parseLogHeader(bytes)) bytes.remove_prefix(okv::kLogHeaderSize);
    for (;;) {
        const auto record = okv::parseLogRecord(bytes);
        if (record.state != okv::NotificationLogRecord::State::whole) return;
        require(record.size <= bytes.size() && !record.content.empty());
        require(record.content.size() <= okv::kNotificationAtMost);
        okv::decodeNotification(record.content);
        bytes.remove_prefix(record.size);
    }
}

// A checksum keeps almost every mutation out of a record's content: given without one as well.
// What is a notice comes back from a record of its own.
void readAsContent(std::string_view bytes) {
    const auto notice = okv::decodeNotification(bytes);
    if (!notice) return;
    auto sealed = okv::encodeLogRecord(*notice);
    okv::sealLogRecord(sealed, 7);
    const auto record = okv::parseLogRecord(sealed);
    require(record.state == okv::NotificationLogRecord::State::whole && record.sequence == 7);
    const auto again = okv::decodeNotification(record.content);
    require(again && again->name == notice->name && again->object == notice->object);
    // Compared as bytes: a number that is none does not equal itself.
    require(okv::encodeCbor(again->userInfo) == okv::encodeCbor(notice->userInfo));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    readAsLog(bytes);
    if (size <= okv::kNotificationAtMost / 2) readAsContent(bytes);
    return 0;
}
