#include <OKVPlatform/ipc/Crc32c.h>
#include <OKVPlatform/ipc/NotificationLog.h>
#include <OKVPlatform/values/Cbor.h>

namespace okv {

namespace {

constexpr std::string_view kMagic = "OKVNOTES";
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kContentParts = 3;
// Offsets in a record's header.
constexpr std::size_t kChecksumAt = 4;
constexpr std::size_t kSequenceAt = 8;

template <class Number>
void putNumber(std::string& out, Number number) {
    for (int shift = static_cast<int>(sizeof number) * 8 - 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<char>(number >> shift));
}

template <class Number>
void setNumber(std::string& out, std::size_t at, Number number) {
    std::string bytes;
    putNumber(bytes, number);
    out.replace(at, bytes.size(), bytes);
}

template <class Number>
Number numberAt(std::string_view bytes, std::size_t at) {
    Number number = 0;
    for (std::size_t i = 0; i < sizeof number; ++i)
        number = static_cast<Number>(number << 8) | static_cast<std::uint8_t>(bytes[at + i]);
    return number;
}

void encodeContent(std::string& out, const Notification& notification) {
    CborWriter writer(out);
    writer.arrayHeader(kContentParts);
    writer.text(notification.name);
    writer.value(notification.object);
    writer.value(notification.userInfo);
}

Notification readContent(std::string_view content) {
    CborReader reader(content);
    if (reader.arrayHeader() != kContentParts) throw CborError("not a notice", 0);
    Notification notification;
    notification.name = reader.text();
    notification.object = reader.value();
    notification.userInfo = reader.value();
    reader.expectEnd();
    return notification;
}

}  // namespace

std::string encodeLogHeader(const NotificationLogHeader& header) {
    std::string bytes(kMagic);
    putNumber(bytes, kVersion);
    putNumber(bytes, header.id);
    putNumber(bytes, header.first);
    putNumber(bytes, crc32c(bytes));
    return bytes;
}

std::optional<NotificationLogHeader> parseLogHeader(std::string_view bytes) {
    if (bytes.size() < kLogHeaderSize || bytes.substr(0, kMagic.size()) != kMagic)
        return std::nullopt;
    const auto checked = bytes.substr(0, kLogHeaderSize - sizeof(std::uint32_t));
    if (numberAt<std::uint32_t>(bytes, checked.size()) != crc32c(checked) ||
        numberAt<std::uint32_t>(bytes, kMagic.size()) != kVersion)
        return std::nullopt;
    constexpr auto idAt = kMagic.size() + sizeof kVersion;
    const NotificationLogHeader header{numberAt<std::uint64_t>(bytes, idAt),
                                       numberAt<std::uint64_t>(bytes, idAt + 8)};
    if (header.id == 0) return std::nullopt;
    return header;
}

NotificationLogRecord parseLogRecord(std::string_view bytes) {
    NotificationLogRecord record;
    if (bytes.size() < kLogRecordHeaderSize) return record;
    const auto length = numberAt<std::uint32_t>(bytes, 0);
    if (length == 0 || length > kNotificationAtMost) {
        record.state = NotificationLogRecord::State::bad;
        return record;
    }
    record.size += length;
    if (bytes.size() < record.size) return record;
    const auto checked = bytes.substr(kSequenceAt, record.size - kSequenceAt);
    record.state = numberAt<std::uint32_t>(bytes, kChecksumAt) == crc32c(checked)
                       ? NotificationLogRecord::State::whole
                       : NotificationLogRecord::State::bad;
    record.sequence = numberAt<std::uint64_t>(bytes, kSequenceAt);
    record.content = bytes.substr(kLogRecordHeaderSize, length);
    return record;
}

std::string encodeLogRecord(const Notification& notification) {
    std::string record(kLogRecordHeaderSize, '\0');
    try {
        encodeContent(record, notification);
    } catch (const std::length_error& error) {
        throw NotificationError(NotificationError::Kind::tooLarge, error.what());
    }
    const auto length = record.size() - kLogRecordHeaderSize;
    if (length > kNotificationAtMost)
        throw NotificationError(NotificationError::Kind::tooLarge,
                                "a notice of " + std::to_string(length) + " bytes: at most " +
                                    std::to_string(kNotificationAtMost) + " can be posted");
    return record;
}

void sealLogRecord(std::string& record, std::uint64_t sequence) {
    const auto length = static_cast<std::uint32_t>(record.size() - kLogRecordHeaderSize);
    setNumber(record, 0, length);
    setNumber(record, kSequenceAt, sequence);
    setNumber(record, kChecksumAt, crc32c(std::string_view(record).substr(kSequenceAt)));
}

std::optional<Notification> decodeNotification(std::string_view content) {
    try {
        auto notification = readContent(content);
        if (notification.object.isNil() || notification.object.is<std::string>())
            return notification;
    } catch (const CborError&) {
        // Told to the caller like any other content that is no notice.
    }
    return std::nullopt;
}

}  // namespace okv
