#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/FileIdentity.h>
#include <OKVPlatform/ipc/NotificationLogCursor.h>
#include <OKVPlatform/ipc/PrivateDescriptor.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace okv {

/// What a reader met: perhaps missing records, then perhaps a notice.
struct NotificationLogEntry {
    std::uint64_t log = 0;         ///< the id of the log
    std::uint64_t missedFrom = 0;  ///< the records from this number up to `sequence` were not read
    std::uint64_t sequence = 0;    ///< the number of the notice, or of the first record after the
                                   ///< missing ones
    std::optional<Notification> notification;
};

/// A place between two records; `log` is 0 where there is no log.
struct NotificationLogPosition {
    std::uint64_t log = 0;
    std::uint64_t next = 1;
};

/// Reads the log in a runtime folder as it grows and as files take one another's place. Needs
/// nobody's help and takes no lock, so that it can hinder no poster.
///
/// Threads: one at a time.
class OKV_EXPORT NotificationLogReader {
public:
    explicit NotificationLogReader(std::string folder) : folder_(std::move(folder)) {}

    /// Goes past everything that has been posted by now.
    void skipToEnd();
    /// Makes `next` look at the file again, and at the path too when another file may be there.
    void refresh(bool pathToo);
    /// The next entry, none when the log has no more for now.
    std::optional<NotificationLogEntry> next();
    /// Gives the last entry once more: for who had no memory for it.
    void stepBack() noexcept;

    NotificationLogPosition position() const noexcept { return {id_, expected_}; }
    /// The place after everything that has been posted by now; the reader stays where it is.
    NotificationLogPosition end() const;
    /// Whether the path named a log at the last look.
    bool isAtPath() const noexcept { return atPath_; }

private:
    struct File {
        PrivateDescriptor descriptor;
        FileIdentity identity;
        NotificationLogHeader header;  // as it was when the file was opened
    };
    struct Raw {
        NotificationLogEntry entry;
        std::string_view content;  // empty when the entry only tells of missing records
    };

    void lookAtPath();
    std::shared_ptr<const File> openLog() const;
    std::optional<Raw> nextRaw();
    std::optional<Raw> nextInFile();
    std::optional<Raw> switchTo(std::shared_ptr<const File> file);
    bool wasRewritten(NotificationLogRecord::State state);
    void startAnew(const NotificationLogHeader& header);

    std::string folder_;
    std::shared_ptr<const File> file_;
    std::shared_ptr<const File> successor_;  // what the path names, when it is another file
    NotificationLogCursor cursor_;
    std::uint64_t id_ = 0;
    std::uint64_t first_ = 1;     // the number of the first record in the file
    std::uint64_t expected_ = 1;  // the number of the next record
    std::uint64_t lastFrom_ = 1;  // where the last entry began
    std::size_t lastSize_ = 0;    // its bytes
    bool atPath_ = false;
    bool found_ = false;  // since the last refresh
};

}  // namespace okv
