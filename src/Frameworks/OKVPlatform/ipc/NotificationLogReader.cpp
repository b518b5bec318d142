#include <OKVPlatform/ipc/NotificationLogReader.h>
#include <OKVPlatform/ipc/RuntimeFolder.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

namespace okv {

void NotificationLogReader::skipToEnd() {
    refresh(true);
    while (nextRaw()) {
    }
}

NotificationLogPosition NotificationLogReader::end() const {
    NotificationLogReader ahead(folder_);
    ahead.file_ = file_;
    ahead.cursor_ = NotificationLogCursor(cursor_.offset());
    ahead.id_ = id_;
    ahead.first_ = first_;
    ahead.expected_ = expected_;
    ahead.skipToEnd();
    return ahead.position();
}

void NotificationLogReader::refresh(bool pathToo) {
    cursor_.forget();
    found_ = false;
    if (pathToo) lookAtPath();
}

// Looks at the path before it reads: once the path names another file, no poster writes to this one
// any more, and what is read then is all there ever was.
void NotificationLogReader::lookAtPath() {
    const auto path = folder_ + "/" + kNotificationLogFile;
    struct stat status {};
    successor_.reset();
    atPath_ = lstat(path.c_str(), &status) == 0;
    if (!atPath_) return;
    if (file_ && file_->identity == FileIdentity(status)) return;
    successor_ = openLog();
    atPath_ = successor_ != nullptr;
}

// Null for what is no log, or not one of an owner whom this process trusts.
std::shared_ptr<const NotificationLogReader::File> NotificationLogReader::openLog() const {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const auto path = folder_ + "/" + kNotificationLogFile;
    auto descriptor = PrivateDescriptor::opened([&] { return open(path.c_str(), flags); });
    struct stat status {};
    if (!descriptor.isValid() || fstat(descriptor.get(), &status) != 0) return nullptr;
    if (!S_ISREG(status.st_mode) || !isTrustedOwner(status.st_uid)) return nullptr;
    const auto header = readLogHeader(descriptor.get());
    if (!header) return nullptr;
    return std::make_shared<const File>(File{std::move(descriptor), FileIdentity(status), *header});
}

std::optional<NotificationLogEntry> NotificationLogReader::next() {
    auto raw = nextRaw();
    if (!raw) return std::nullopt;
    lastFrom_ = raw->entry.missedFrom;
    lastSize_ = raw->content.empty() ? 0 : kLogRecordHeaderSize + raw->content.size();
    try {
        if (!raw->content.empty()) raw->entry.notification = decodeNotification(raw->content);
    } catch (const std::bad_alloc&) {
        stepBack();
        throw;
    }
    // A record that is none of ours counts as one that could not be read.
    if (!raw->content.empty() && !raw->entry.notification) ++raw->entry.sequence;
    return std::move(raw->entry);
}

void NotificationLogReader::stepBack() noexcept {
    cursor_.goBack(lastSize_);
    expected_ = lastFrom_;
}

std::optional<NotificationLogReader::Raw> NotificationLogReader::nextRaw() {
    for (;;) {
        auto raw = nextInFile();
        if (!raw && successor_) {
            raw = switchTo(std::exchange(successor_, nullptr));
            if (!raw) continue;
        }
        return raw;
    }
}

std::optional<NotificationLogReader::Raw> NotificationLogReader::nextInFile() {
    if (!file_) return std::nullopt;
    for (;;) {
        const auto record = cursor_.next(file_->descriptor.get());
        if (record.state != NotificationLogRecord::State::whole) {
            if (wasRewritten(record.state)) continue;
            return std::nullopt;
        }
        found_ = true;
        if (record.sequence < expected_) continue;
        Raw raw{{id_, expected_, record.sequence, std::nullopt}, record.content};
        expected_ = record.sequence + 1;
        return raw;
    }
}

// The number of lost records is known only where the log was carried on; a new one starts at 1.
std::optional<NotificationLogReader::Raw> NotificationLogReader::switchTo(
    std::shared_ptr<const File> file) {
    file_ = std::move(file);
    startAnew(file_->header);
    if (first_ <= expected_) return std::nullopt;
    return Raw{{id_, std::exchange(expected_, first_), first_, std::nullopt}, {}};
}

void NotificationLogReader::startAnew(const NotificationLogHeader& header) {
    if (id_ != header.id) expected_ = 1;
    id_ = header.id;
    first_ = header.first;
    cursor_ = NotificationLogCursor();
}

// No poster rewrites a log in its place, but somebody's hand can (an editor, a copy over it).
// Looked for only where nothing else was found or could be, so that the usual reading pays nothing
// for it.
bool NotificationLogReader::wasRewritten(NotificationLogRecord::State state) {
    if (std::exchange(found_, true) && state != NotificationLogRecord::State::bad) return false;
    struct stat status {};
    const int log = file_->descriptor.get();
    const auto header = readLogHeader(log);
    if (!header || fstat(log, &status) != 0) return false;
    const bool shorter = static_cast<std::uint64_t>(status.st_size) < cursor_.offset();
    const bool another = header->id != id_ || header->first != first_;
    if (!another && !shorter) return false;
    startAnew(*header);
    if (another) return true;
    // What is left of the same log was read before.
    expected_ = first_;
    for (auto left = cursor_.next(log); left.state == NotificationLogRecord::State::whole;
         left = cursor_.next(log))
        expected_ = left.sequence + 1;
    return true;
}

}  // namespace okv
