#pragma once

#include <OKVPlatform/ipc/NotificationLog.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace okv {

/// Goes through the records of a log's file, which another process may be writing meanwhile. What
/// is not a whole record yet is read again from its first byte, never completed: a torn record may
/// have been cut off and another one written in its place.
class NotificationLogCursor {
public:
    /// Where the file's size is known, less is not taken for its end.
    explicit NotificationLogCursor(std::uint64_t offset = kLogHeaderSize, std::uint64_t size = 0)
        : offset_(offset), size_(size) {}

    /// The record at the offset, which moves past it when it is whole. Its content stays where it
    /// is until the next call.
    NotificationLogRecord next(int log);

    /// Goes back by so many bytes, of records that `next` gave.
    void goBack(std::size_t bytes) noexcept {
        offset_ -= bytes;
        forget();
    }

    /// Forgets what was read ahead, so that the next call looks at the file again.
    void forget() noexcept;

    std::uint64_t offset() const noexcept { return offset_; }
    /// Why the file could not be read; 0 where it could.
    int error() const noexcept { return error_; }

private:
    std::string_view ahead() const noexcept { return {bytes_.get() + begin_, end_ - begin_}; }
    bool mayHoldMore(const NotificationLogRecord& record) const noexcept;
    void read(int log, std::size_t wanted);

    std::uint64_t offset_;
    std::uint64_t size_;
    int error_ = 0;
    std::unique_ptr<char[]> bytes_;
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    bool sawEnd_ = false;  // the last read came to the end of the file
};

/// The header of an open log; none when it has no valid one, or cannot be read: then `error`, where
/// given, tells why.
std::optional<NotificationLogHeader> readLogHeader(int log, int* error = nullptr);

}  // namespace okv
