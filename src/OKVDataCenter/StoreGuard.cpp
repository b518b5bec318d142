#include "StoreGuard.h"

#include <OKVPlatform/values/ErrorText.h>

#include "DurableFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <vector>

namespace datacenter {

namespace {

// One that is there already is nobody's to give away.
okv::PrivateDescriptor openGuard(const std::string& storeFile) {
    const auto file = storeFile + ".guard";
    constexpr int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
    okv::PrivateDescriptor made(::open(file.c_str(), flags | O_EXCL, 0600));
    if (!made.isValid()) return okv::PrivateDescriptor(::open(file.c_str(), flags, 0600));
    giveTo(ownerOf(storeFile), made.get(), file);
    return made;
}

}  // namespace

Store::Guard::Guard(const std::string& storeFile) : file_(openGuard(storeFile)) {
    if (file_.get() < 0)
        throw StoreError("cannot open " + storeFile + ".guard: " + okv::errorText(errno));
    if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0)
        throw StoreError(errno == EWOULDBLOCK
                             ? "the store " + storeFile + " is open in another server"
                             : "cannot lock " + storeFile + ".guard: " + okv::errorText(errno));
}

// "EPOCH REVISION\n"; anything else is no mark.
Store::Guard::Mark Store::Guard::mark() const {
    char text[128];
    const auto size = pread(file_.get(), text, sizeof text, 0);
    if (size < 0)
        throw StoreError(std::string("the mark beside the store cannot be read: ") +
                         okv::errorText(errno));
    const std::string_view line(text, static_cast<std::size_t>(size));
    const auto blank = line.find(' ');
    if (blank == std::string_view::npos) return {};
    Mark mark{std::string(line.substr(0, blank)), 0};
    std::from_chars(line.data() + blank + 1, line.data() + line.size(), mark.revision);
    return mark;
}

void Store::Guard::setMark(const std::string& epoch, std::int64_t revision) noexcept {
    // A mark that cannot be written leaves an older one, which only makes the test weaker.
    char line[128];
    const int size = std::snprintf(line, sizeof line, "%s %lld\n", epoch.c_str(),
                                   static_cast<long long>(revision));
    if (pwrite(file_.get(), line, static_cast<std::size_t>(size), 0) != size) return;
    // Revisions grow: mostly nothing of an older mark is left behind it.
    if (size != markSize_ && ftruncate(file_.get(), size) == 0) markSize_ = size;
}

namespace {

std::string timeNow() {
    char text[32];
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    return {text, std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts)};
}

bool isThere(const std::string& file) {
    struct stat status {};
    return lstat(file.c_str(), &status) == 0;
}

}  // namespace

// A store without its log lacks what was committed last.
void moveStore(const std::string& from, const std::string& to) {
    std::vector<const char*> moved;
    for (const char* beside : {"", "-wal", "-shm"}) {
        if (rename((from + beside).c_str(), (to + beside).c_str()) == 0) {
            moved.push_back(beside);
        } else if (errno != ENOENT) {
            const StoreError error("cannot set " + from + beside +
                                   " aside: " + okv::errorText(errno));
            for (const char* one : moved) rename((to + one).c_str(), (from + one).c_str());
            throw error;
        }
    }
}

// Nobody else makes names there: the caller holds the guard.
std::string moveAside(const std::string& storeFile, const char* ending) {
    if (!isThere(storeFile) && !isThere(storeFile + "-wal")) return {};
    const auto base = storeFile + ending + timeNow();
    auto target = base;
    for (int i = 2; isThere(target) || isThere(target + "-wal"); ++i)
        target = base + "-" + std::to_string(i);
    moveStore(storeFile, target);
    return target;
}

}  // namespace datacenter
