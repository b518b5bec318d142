#include <OKVPlatform/ipc/FolderWatch.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string_view>

namespace okv {

namespace {

constexpr std::uint32_t kWatched = IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                   IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t kLost = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
constexpr std::size_t kEventsAtOnce = 4096;  // bytes

}  // namespace

// Through a descriptor of the folder, so that what is watched and what is remembered are one.
bool FolderWatch::open() {
    close();
    const auto folder = PrivateDescriptor::opened(
        [&] { return ::open(folder_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); });
    struct stat status {};
    if (!folder.isValid() || fstat(folder.get(), &status) != 0) return false;
    auto inotify =
        PrivateDescriptor::opened([] { return inotify_init1(IN_NONBLOCK | IN_CLOEXEC); });
    const auto path = "/proc/self/fd/" + std::to_string(folder.get());
    if (!inotify.isValid() || inotify_add_watch(inotify.get(), path.c_str(), kWatched) < 0)
        return false;
    inotify_ = std::move(inotify);
    identity_ = FileIdentity(status);
    return true;
}

bool FolderWatch::isAtPath() const {
    struct stat status {};
    return isOpen() && stat(folder_.c_str(), &status) == 0 && FileIdentity(status) == identity_;
}

FolderWatch::Seen FolderWatch::read() {
    alignas(inotify_event) char events[kEventsAtOnce];
    Seen seen;
    for (;;) {
        const auto size = ::read(inotify_.get(), events, sizeof events);
        if (size <= 0) return seen;
        const auto more = seenIn(events, static_cast<std::size_t>(size));
        seen.path |= more.path;
        seen.lost |= more.lost;
        // Less than the buffer: nothing is left, which saves the usual reading a second look.
        if (static_cast<std::size_t>(size) < sizeof events / 2) return seen;
    }
}

FolderWatch::Seen FolderWatch::seenIn(const char* events, std::size_t size) const {
    Seen seen;
    for (std::size_t at = 0; at + sizeof(inotify_event) <= size;) {
        inotify_event event{};
        std::memcpy(&event, events + at, sizeof event);
        at += sizeof event;
        const std::string_view name(events + at, strnlen(events + at, event.len));
        at += event.len;
        seen.lost |= (event.mask & kLost) != 0;
        // Events that the system had no room to keep may have been any.
        seen.path |= (event.mask & IN_Q_OVERFLOW) != 0;
        seen.path |= name == file_ && (event.mask & IN_MODIFY) == 0;
    }
    return seen;
}

}  // namespace okv
