#include <OKVPlatform/system/FileAttributes.h>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <array>
#include <string>

namespace okv {

namespace {

// Longest entry of the accounts' database that is read; a longer one leaves the name out.
constexpr std::size_t kAccountBuffer = 16384;

std::optional<struct statx> statusOf(std::string_view path, bool traverseLink) {
    if (path.find('\0') != std::string_view::npos) return std::nullopt;
    struct statx status {};
    const int flags = traverseLink ? 0 : AT_SYMLINK_NOFOLLOW;
    const unsigned wanted = STATX_BASIC_STATS | STATX_BTIME;
    if (statx(AT_FDCWD, std::string(path).c_str(), flags, wanted, &status) != 0)
        return std::nullopt;
    return status;
}

const char* typeName(unsigned mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return "NSFileTypeRegular";
        case S_IFDIR:
            return "NSFileTypeDirectory";
        case S_IFLNK:
            return "NSFileTypeSymbolicLink";
        case S_IFSOCK:
            return "NSFileTypeSocket";
        case S_IFCHR:
            return "NSFileTypeCharacterSpecial";
        case S_IFBLK:
            return "NSFileTypeBlockSpecial";
        default:
            return "NSFileTypeUnknown";
    }
}

Date dateOf(const statx_timestamp& time) {
    return {static_cast<double>(time.tv_sec) + time.tv_nsec / 1e9};
}

Value userName(uid_t uid) {
    std::array<char, kAccountBuffer> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    return found == nullptr ? Value() : Value(found->pw_name);
}

Value groupName(gid_t gid) {
    std::array<char, kAccountBuffer> buffer{};
    group entry{};
    group* found = nullptr;
    getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found);
    return found == nullptr ? Value() : Value(found->gr_name);
}

void setUnlessNil(Dictionary& attributes, const char* key, Value value) {
    if (!value.isNil()) attributes.set(key, std::move(value));
}

void setOwners(Dictionary& attributes, const struct statx& status) {
    attributes.set("NSFileOwnerAccountID", status.stx_uid);
    attributes.set("NSFileGroupOwnerAccountID", status.stx_gid);
    setUnlessNil(attributes, "NSFileOwnerAccountName", userName(status.stx_uid));
    setUnlessNil(attributes, "NSFileGroupOwnerAccountName", groupName(status.stx_gid));
}

// Device and inode numbers are 64 unsigned bits; they are identities, so the sign does not matter.
void setIdentity(Dictionary& attributes, const struct statx& status) {
    const dev_t device = makedev(status.stx_dev_major, status.stx_dev_minor);
    attributes.set("NSFileSystemNumber", static_cast<std::int64_t>(device));
    attributes.set("NSFileSystemFileNumber", static_cast<std::int64_t>(status.stx_ino));
}

Dictionary attributesOf(const struct statx& status) {
    Dictionary attributes;
    attributes.set("NSFileType", typeName(status.stx_mode));
    attributes.set("NSFileSize", static_cast<std::int64_t>(status.stx_size));
    attributes.set("NSFileModificationDate", dateOf(status.stx_mtime));
    if ((status.stx_mask & STATX_BTIME) != 0)
        attributes.set("NSFileCreationDate", dateOf(status.stx_btime));
    attributes.set("NSFileReferenceCount", status.stx_nlink);
    attributes.set("NSFilePosixPermissions", status.stx_mode & 07777);
    setOwners(attributes, status);
    setIdentity(attributes, status);
    return attributes;
}

}  // namespace

bool fileExistsAtPath(std::string_view path) {
    return statusOf(path, true).has_value();
}

bool directoryExistsAtPath(std::string_view path) {
    const auto status = statusOf(path, true);
    return status && S_ISDIR(status->stx_mode);
}

std::optional<Dictionary> fileAttributesAtPath(std::string_view path, bool traverseLink) {
    const auto status = statusOf(path, traverseLink);
    if (!status) return std::nullopt;
    return attributesOf(*status);
}

}  // namespace okv
