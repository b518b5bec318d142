#include "StoreGuard.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace datacenter {

Store::Guard::Guard(const std::string& storeFile)
    : file_(
          ::open((storeFile + ".guard").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    if (file_.get() < 0)
        throw StoreError("cannot open " + storeFile + ".guard: " + std::strerror(errno));
    if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0)
        throw StoreError("the store " + storeFile + " is open in another server");
}

// "EPOCH REVISION\n"; anything else is no mark.
Store::Guard::Mark Store::Guard::mark() const {
    char text[128];
    const auto size = pread(file_.get(), text, sizeof text, 0);
    const std::string_view line(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    const auto blank = line.find(' ');
    if (blank == std::string_view::npos) return {};
    Mark mark{std::string(line.substr(0, blank)), 0};
    std::from_chars(line.data() + blank + 1, line.data() + line.size(), mark.revision);
    return mark;
}

void Store::Guard::setMark(const Mark& mark) noexcept {
    // A mark that cannot be written leaves an older one, which only makes the test weaker.
    const auto line = mark.epoch + ' ' + std::to_string(mark.revision) + '\n';
    if (pwrite(file_.get(), line.data(), line.size(), 0) == static_cast<ssize_t>(line.size()))
        (void)!ftruncate(file_.get(), static_cast<off_t>(line.size()));
}

namespace {

std::string timeNow() {
    char text[32];
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    return {text, std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts)};
}

// Never over something that is there; answers whether it was moved.
bool moved(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno == EEXIST) return false;
    throw StoreError("cannot set " + from + " aside: " + std::strerror(errno));
}

}  // namespace

std::string moveAside(const std::string& storeFile) {
    const auto base = storeFile + ".damaged-" + timeNow();
    auto target = base;
    for (int i = 2; !moved(storeFile, target); ++i) target = base + "-" + std::to_string(i);
    for (const char* beside : {"-wal", "-shm"}) {
        if (access((storeFile + beside).c_str(), F_OK) == 0)
            moved(storeFile + beside, target + beside);
    }
    return target;
}

}  // namespace datacenter
