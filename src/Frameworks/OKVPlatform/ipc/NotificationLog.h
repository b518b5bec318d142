#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/Notification.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace okv {

// The log of distributed notices: a header, then records. All numbers stand with the high byte
// first.
//
//   header: "OKVNOTES" (8), version (4), id of the log (8), number of the first record (8),
//           checksum of the bytes before it (4)
//   record: length of the content (4), checksum (4) of number and content, number (8), content
//
// The content is one array of the wire form: name, sender, user information.

/// The files, in the runtime folder: the log, and the lock that posters take. The lock is a file of
/// its own, which readers cannot open: who reads could otherwise hold the lock and block posting.
inline constexpr char kNotificationLogFile[] = "notifications";
inline constexpr char kNotificationLockFile[] = "notifications.lock";

inline constexpr std::size_t kLogHeaderSize = 32;
inline constexpr std::size_t kLogRecordHeaderSize = 16;
/// The largest content that a record may have.
inline constexpr std::size_t kNotificationAtMost = 256U << 10;

/// A notice that could not be posted. The kind says what the caller may conclude.
class OKV_EXPORT NotificationError final : public std::runtime_error {
public:
    enum class Kind {
        refused,   ///< this account may not post here
        tooLarge,  ///< larger, or nested deeper, than a notice may be
        failed,    ///< no runtime folder, no space, a poster that holds the lock and does not go on
    };

    /// `what`: the reason, for people.
    NotificationError(Kind kind, const std::string& what) : std::runtime_error(what), kind_(kind) {}

    /// What the caller may conclude.
    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

struct NotificationLogHeader {
    std::uint64_t id;     ///< random, never 0; it stays while the log is carried on in a new file
    std::uint64_t first;  ///< the number of the first record in this file
};

/// The kLogHeaderSize bytes that a log begins with.
OKV_EXPORT std::string encodeLogHeader(const NotificationLogHeader& header);
/// None when the bytes do not begin with a header of a version that is known.
OKV_EXPORT std::optional<NotificationLogHeader> parseLogHeader(std::string_view bytes);

struct NotificationLogRecord {
    enum class State {
        whole,
        incomplete,  ///< the bytes end before the record does: it is still being written, or was
                     ///< left so
        bad,         ///< no record
    };
    State state = State::incomplete;
    std::size_t size = kLogRecordHeaderSize;  ///< as far as the bytes tell: with its header
    std::uint64_t sequence = 0;
    std::string_view content;  ///< where it stands in the parsed bytes
};

/// The record at the beginning of the bytes.
OKV_EXPORT NotificationLogRecord parseLogRecord(std::string_view bytes);

/// A notice as a record that is not numbered yet. Throws NotificationError when it is too large.
OKV_EXPORT std::string encodeLogRecord(const Notification& notification);
/// Numbers the record and seals it with its checksum.
OKV_EXPORT void sealLogRecord(std::string& record, std::uint64_t sequence);
/// A whole record's content; none when it is no notice.
OKV_EXPORT std::optional<Notification> decodeNotification(std::string_view content);

}  // namespace okv
