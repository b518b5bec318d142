#include <OKVPlatform/ipc/RuntimeFolder.h>
#include <OKVPlatform/values/ErrorText.h>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

namespace okv {

namespace {

const char* overriddenFolder() {
    const char* folder = secure_getenv("OKV_RUNTIME_DIR");
    return folder != nullptr && *folder != '\0' ? folder : nullptr;
}

std::optional<uid_t> serviceUser() {
    char buffer[4096];
    passwd entry{};
    passwd* found = nullptr;
    if (getpwnam_r(OKV_SERVICE_USER, &entry, buffer, sizeof buffer, &found) != 0 ||
        found == nullptr)
        return std::nullopt;
    return entry.pw_uid;
}

// Empty when the folder may be used.
std::string objectionTo(const struct stat& status, bool sharedWhenSticky) {
    const bool shared = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    const bool sticky = (status.st_mode & S_ISVTX) != 0;
    if (shared && !(sticky && sharedWhenSticky)) return ": others may write it";
    if (!isTrustedOwner(status.st_uid)) return ": owned by uid " + std::to_string(status.st_uid);
    return {};
}

}  // namespace

std::string runtimeDirectory() {
    const char* folder = overriddenFolder();
    return folder != nullptr ? folder : OKV_RUNTIME_DIR;
}

bool isServiceUser(uid_t uid) {
    return overriddenFolder() == nullptr && serviceUser() == uid;
}

bool isTrustedOwner(uid_t uid) {
    return uid == 0 || uid == geteuid() || isServiceUser(uid);
}

PrivateDescriptor openRuntimeFolder(const std::string& path, bool sharedWhenSticky,
                                    std::string& why) {
    auto folder = PrivateDescriptor::opened(
        [&] { return open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); });
    struct stat status {};
    if (!folder.isValid() || fstat(folder.get(), &status) != 0) {
        why = "the runtime folder " + path + ": " + errorText(errno);
        return {};
    }
    const auto objection = objectionTo(status, sharedWhenSticky);
    if (objection.empty()) return folder;
    why = "the runtime folder " + path + objection;
    return {};
}

}  // namespace okv
