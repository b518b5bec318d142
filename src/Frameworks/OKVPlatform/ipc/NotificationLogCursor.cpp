#include <OKVPlatform/ipc/NotificationLogCursor.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <span>

namespace okv {

namespace {

// Read at a time; a record that is larger gets a buffer of its own size.
constexpr std::size_t kChunk = 16U << 10;

ssize_t readOnce(int file, std::span<char> bytes, std::uint64_t offset) {
    ssize_t count = 0;
    do {
        count = pread(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    } while (count < 0 && errno == EINTR);
    return count;
}

// Goes on after less than was wanted, up to the file's size where that is known.
std::size_t readAt(int file, std::span<char> bytes, std::uint64_t offset, std::uint64_t size,
                   int& error) {
    std::size_t done = 0;
    do {
        const auto count = readOnce(file, bytes.subspan(done), offset + done);
        if (count < 0) error = errno;
        if (count <= 0) break;
        done += static_cast<std::size_t>(count);
    } while (done < bytes.size() && offset + done < size);
    return done;
}

}  // namespace

void NotificationLogCursor::forget() noexcept {
    begin_ = end_ = 0;
    sawEnd_ = false;
}

void NotificationLogCursor::read(int log, std::size_t wanted) {
    wanted = std::max(wanted, kChunk);
    if (capacity_ != wanted) {
        bytes_.reset(new char[wanted]);  // left unfilled: only what was read is looked at
        capacity_ = wanted;
    }
    begin_ = 0;
    end_ = readAt(log, {bytes_.get(), wanted}, offset_, size_, error_);
    sawEnd_ = end_ < wanted;
}

// Whether reading from the record's first byte could show more of it than is there.
bool NotificationLogCursor::mayHoldMore(const NotificationLogRecord& record) const noexcept {
    if (begin_ == end_) return !sawEnd_;
    return begin_ != 0 || (!sawEnd_ && record.size > end_);
}

NotificationLogRecord NotificationLogCursor::next(int log) {
    auto record = parseLogRecord(ahead());
    while (record.state != NotificationLogRecord::State::whole && mayHoldMore(record)) {
        read(log, record.size);
        record = parseLogRecord(ahead());
    }
    if (record.state == NotificationLogRecord::State::whole) {
        begin_ += record.size;
        offset_ += record.size;
    }
    return record;
}

std::optional<NotificationLogHeader> readLogHeader(int log, int* error) {
    char bytes[kLogHeaderSize];
    int reason = 0;
    const auto size = readAt(log, bytes, 0, sizeof bytes, reason);
    if (error != nullptr) *error = reason;
    return parseLogHeader({bytes, size});
}

}  // namespace okv
