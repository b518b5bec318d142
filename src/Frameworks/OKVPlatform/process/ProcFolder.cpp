#include <OKVPlatform/process/ProcFolder.h>
#include <OKVPlatform/values/NumberText.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

namespace okv {

namespace {

// "PID/file" without an allocation: this runs once per process of every walk.
class RelativePath {
public:
    RelativePath(int pid, std::string_view file) noexcept {
        auto* end = std::to_chars(text_, text_ + kPidRoom, pid).ptr;
        *end++ = '/';
        *std::copy(file.begin(), file.begin() + std::min(file.size(), kFileRoom), end) = '\0';
    }
    const char* c_str() const noexcept { return text_; }

private:
    static constexpr std::size_t kPidRoom = 12;
    static constexpr std::size_t kFileRoom = 16;
    char text_[kPidRoom + kFileRoom + 2];
};

ssize_t readRestarting(int file, std::span<char> buffer) noexcept {
    ssize_t count = 0;
    do {
        count = ::read(file, buffer.data(), buffer.size());
    } while (count < 0 && errno == EINTR);
    return count;
}

int pidOf(std::string_view name) noexcept {
    if (name.empty() || name.front() < '1' || name.front() > '9') return 0;
    return decimalIn<int>(name).value_or(0);
}

}  // namespace

ProcFolder::ProcFolder(const std::string& path) noexcept : folder_(opendir(path.c_str())) {}

std::size_t ProcFolder::countHint() const noexcept {
    // The kernel counts a process as a link of the folder, as file systems do for sub-folders.
    struct stat attributes {};
    if (fstat(dirfd(folder_.get()), &attributes) != 0 || attributes.st_nlink <= 2) return 0;
    return attributes.st_nlink;
}

int ProcFolder::nextPid() noexcept {
    errno = 0;
    while (const auto* entry = readdir(folder_.get())) {
        if (const int pid = pidOf(entry->d_name); pid != 0) return pid;
    }
    return 0;
}

std::optional<std::string_view> ProcFolder::read(int pid, std::string_view file,
                                                 std::span<char> buffer) const noexcept {
    const RelativePath path(pid, file);
    const int opened =
        openat(dirfd(folder_.get()), path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (opened < 0) return std::nullopt;
    const auto count = readRestarting(opened, buffer);
    const int error = errno;
    close(opened);
    errno = error;
    if (count < 0) return std::nullopt;
    return std::string_view(buffer.data(), static_cast<std::size_t>(count));
}

std::optional<std::string_view> ProcFolder::readLink(int pid, std::string_view file,
                                                     std::span<char> buffer) const noexcept {
    const RelativePath path(pid, file);
    const auto count = readlinkat(dirfd(folder_.get()), path.c_str(), buffer.data(), buffer.size());
    if (count < 0) return std::nullopt;
    if (static_cast<std::size_t>(count) == buffer.size()) {
        errno = ENAMETOOLONG;
        return std::nullopt;
    }
    return std::string_view(buffer.data(), static_cast<std::size_t>(count));
}

}  // namespace okv
