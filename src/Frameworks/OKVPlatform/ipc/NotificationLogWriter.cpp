#include <OKVPlatform/ipc/NotificationLogCursor.h>
#include <OKVPlatform/ipc/NotificationLogWriter.h>
#include <OKVPlatform/ipc/RuntimeFolder.h>
#include <OKVPlatform/values/ErrorText.h>
#include <OKVPlatform/values/WriteAll.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace okv {

namespace {

using Kind = NotificationError::Kind;

constexpr char kTemporaryFile[] = "notifications.new";
constexpr mode_t kLogMode = 0644;
constexpr mode_t kLockMode = 0600;
constexpr std::chrono::microseconds kLockRetry{200};
// A file of this folder that already is there, whoever made it.
constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
// And one that nobody made: what lies in its place is neither followed nor written to.
constexpr int kMakeFlags = kOpenFlags | O_APPEND | O_CREAT | O_EXCL;

PrivateDescriptor openedIn(int folder, const char* name, int flags, mode_t mode = 0) {
    return PrivateDescriptor::opened([=] { return openat(folder, name, flags, mode); });
}

NotificationLogHeader newLog() {
    NotificationLogHeader header{0, 1};
    while (header.id == 0)
        if (getrandom(&header.id, sizeof header.id, 0) != sizeof header.id) header.id = 0;
    return header;
}

}  // namespace

void NotificationLogWriter::fail(const std::string& what) const {
    const int reason = errno;
    if (reason == EACCES || reason == EPERM)
        throw NotificationError(Kind::refused, "uid " + std::to_string(geteuid()) +
                                                   " may not post notices: " + what + ": " +
                                                   errorText(reason));
    throw NotificationError(Kind::failed, what + ": " + errorText(reason));
}

void NotificationLogWriter::failReading(int error) const {
    errno = error;
    fail(path(kNotificationLogFile));
}

void NotificationLogWriter::post(const Notification& notification) {
    auto record = encodeLogRecord(notification);
    const std::lock_guard guard(mutex_);
    const auto folder = openFolder();
    const auto lock = takeLock(folder.get());
    openLog(folder.get());
    if (end_ + record.size() > options_.sizeLimit && end_ > kLogHeaderSize)
        startLog(folder.get(), {id_, next_});
    sealLogRecord(record, next_);
    append(record);
}

PrivateDescriptor NotificationLogWriter::openFolder() const {
    std::string why;
    auto folder = openRuntimeFolder(folder_, false, why);
    if (folder.isValid()) return folder;
    const bool missing = access(folder_.c_str(), F_OK) != 0;
    throw NotificationError(missing ? Kind::failed : Kind::refused, why);
}

// Makes a file that is not there; answers none where it is. What root makes belongs to the folder's
// owner, who could not post otherwise.
PrivateDescriptor NotificationLogWriter::createFile(int folder, const char* name,
                                                    mode_t mode) const {
    auto file = openedIn(folder, name, kMakeFlags, mode);
    if (!file.isValid() && errno == EEXIST) return file;
    struct stat owner {};
    if (!file.isValid() || fchmod(file.get(), mode) != 0 || fstat(folder, &owner) != 0 ||
        (geteuid() == 0 && fchown(file.get(), owner.st_uid, owner.st_gid) != 0))
        fail(path(name));
    return file;
}

PrivateDescriptor NotificationLogWriter::openLock(int folder) const {
    auto lock = openedIn(folder, kNotificationLockFile, kOpenFlags);
    if (!lock.isValid() && errno == ENOENT)
        lock = createFile(folder, kNotificationLockFile, kLockMode);
    // Another poster may just have made it.
    if (!lock.isValid() && errno == EEXIST)
        lock = openedIn(folder, kNotificationLockFile, kOpenFlags);
    if (!lock.isValid()) fail(path(kNotificationLockFile));
    return lock;
}

PrivateDescriptor NotificationLogWriter::takeLock(int folder) const {
    auto lock = openLock(folder);
    const auto deadline = std::chrono::steady_clock::now() + options_.lockWait;
    while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) fail(path(kNotificationLockFile));
        if (std::chrono::steady_clock::now() >= deadline)
            throw NotificationError(Kind::failed, path(kNotificationLockFile) +
                                                      ": another poster holds it and does not "
                                                      "go on");
        std::this_thread::sleep_for(kLockRetry);
    }
    return lock;
}

void NotificationLogWriter::checkLog(const struct stat& status) const {
    if (!S_ISREG(status.st_mode))
        throw NotificationError(Kind::refused, path(kNotificationLogFile) + ": no regular file");
    if (!isTrustedOwner(status.st_uid))
        throw NotificationError(Kind::refused, path(kNotificationLogFile) + ": owned by uid " +
                                                   std::to_string(status.st_uid));
}

// Whether the log at the path is the one this process posted to last.
bool NotificationLogWriter::isAtPath(int folder, struct stat& status) const {
    return log_.isValid() &&
           fstatat(folder, kNotificationLogFile, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           FileIdentity(status) == identity_;
}

// Lock held: nobody else appends or puts another file in its place.
void NotificationLogWriter::openLog(int folder) {
    struct stat status {};
    if (isAtPath(folder, status)) {
        if (static_cast<std::uint64_t>(status.st_size) == end_) return;
        if (catchUp(static_cast<std::uint64_t>(status.st_size))) return;
        return startLog(folder, newLog());
    }
    log_ = openedIn(folder, kNotificationLogFile, kOpenFlags | O_APPEND);
    if (!log_.isValid() && errno == ENOENT) return startLog(folder, newLog());
    if (!log_.isValid() || fstat(log_.get(), &status) != 0) fail(path(kNotificationLogFile));
    checkLog(status);
    identity_ = FileIdentity(status);
    end_ = 0;
    if (!catchUp(static_cast<std::uint64_t>(status.st_size))) startLog(folder, newLog());
}

// Reads on from where this process knows the log. False when it cannot be carried on: it holds what
// is no record, or has lost records that were there, whose numbers must not be given twice.
bool NotificationLogWriter::catchUp(std::uint64_t size) {
    if (size < end_) return false;
    if (end_ >= kLogHeaderSize && walk(size)) return true;
    int error = 0;
    const auto header = readLogHeader(log_.get(), &error);
    if (error != 0) failReading(error);
    if (!header) return false;
    id_ = header->id;
    next_ = header->first;
    end_ = kLogHeaderSize;
    return walk(size);
}

// A record that was left incomplete, by a poster that was killed, is cut off: it was never
// acknowledged, and no reader takes it for a record.
bool NotificationLogWriter::walk(std::uint64_t size) {
    NotificationLogCursor cursor(end_, size);
    auto record = cursor.next(log_.get());
    for (; record.state == NotificationLogRecord::State::whole; record = cursor.next(log_.get())) {
        if (record.sequence != next_) return false;
        ++next_;
        end_ = cursor.offset();
    }
    // What cannot be read is not cut off: others may still be able to.
    if (cursor.error() != 0) failReading(cursor.error());
    if (end_ == size) return true;
    return record.state == NotificationLogRecord::State::incomplete &&
           ftruncate(log_.get(), static_cast<off_t>(end_)) == 0;
}

// A log never grows smaller under its readers: a new file takes its place.
void NotificationLogWriter::startLog(int folder, const NotificationLogHeader& header) {
    unlinkat(folder, kTemporaryFile, 0);
    auto log = createFile(folder, kTemporaryFile, kLogMode);
    if (!log.isValid()) fail(path(kTemporaryFile));
    struct stat status {};
    if (!writeAll(log.get(), encodeLogHeader(header)) || fstat(log.get(), &status) != 0 ||
        renameat(folder, kTemporaryFile, folder, kNotificationLogFile) != 0) {
        const int reason = errno;
        unlinkat(folder, kTemporaryFile, 0);
        errno = reason;
        fail(path(kNotificationLogFile));
    }
    log_ = std::move(log);
    identity_ = FileIdentity(status);
    id_ = header.id;
    end_ = kLogHeaderSize;
    next_ = header.first;
}

void NotificationLogWriter::append(const std::string& bytes) {
    if (writeAll(log_.get(), bytes)) {
        end_ += bytes.size();
        ++next_;
        return;
    }
    const int reason = errno;
    // What part of it was written goes again, at the latest before the next post.
    if (ftruncate(log_.get(), static_cast<off_t>(end_)) != 0) log_.close();
    errno = reason;
    fail(path(kNotificationLogFile));
}

}  // namespace okv
