#include "DurableFile.h"

#include "Store.h"

#include <OKVPlatform/ipc/PrivateDescriptor.h>
#include <OKVPlatform/values/ErrorText.h>
#include <OKVPlatform/values/WriteAll.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace datacenter {

namespace {

std::string reason(const char* what, const std::string& file) {
    const int error = errno;
    return std::string("cannot ") + what + " " + file + ": " + okv::errorText(error);
}

okv::PrivateDescriptor opened(const std::string& file, int flags) {
    okv::PrivateDescriptor descriptor(::open(file.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (descriptor.get() < 0) throw StoreError(reason("open", file));
    return descriptor;
}

okv::PrivateDescriptor openedAnew(const std::string& file) {
    if (unlink(file.c_str()) != 0 && errno != ENOENT) throw StoreError(reason("replace", file));
    return opened(file, O_WRONLY | O_CREAT | O_EXCL);
}

void flush(const okv::PrivateDescriptor& descriptor, const std::string& name) {
    if (fsync(descriptor.get()) != 0) throw StoreError(reason("flush", name));
}

}  // namespace

std::optional<Owner> ownerOf(const std::string& storeFile) {
    if (geteuid() != 0) return std::nullopt;
    struct stat status {};
    const auto folder = storeFile.substr(0, storeFile.rfind('/') + 1);
    if (stat(storeFile.c_str(), &status) != 0 &&
        stat(folder.empty() ? "." : folder.c_str(), &status) != 0)
        return std::nullopt;
    return Owner{status.st_uid, status.st_gid};
}

void giveTo(const std::optional<Owner>& owner, int descriptor, const std::string& file) {
    if (owner && fchown(descriptor, owner->user, owner->group) != 0)
        throw StoreError(reason("give away", file));
}

void makeEmptyFile(const std::string& file, const std::optional<Owner>& owner) {
    giveTo(owner, openedAnew(file).get(), file);
}

void flushFile(const std::string& file) {
    flush(opened(file, O_RDONLY), file);
}

// A link to a folder on another disk is followed.
void flushFolder(const std::string& folder) {
    const okv::PrivateDescriptor descriptor(
        ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor.get() < 0) throw StoreError(reason("open", folder));
    flush(descriptor, folder);
}

void flushFolderOf(const std::string& file) {
    const auto slash = file.rfind('/');
    if (slash == std::string::npos) return flushFolder(".");
    flushFolder(file.substr(0, slash + 1));
}

void renameDurably(const std::string& from, const std::string& to) {
    if (rename(from.c_str(), to.c_str()) != 0) throw StoreError(reason("rename", from));
    flushFolderOf(to);
}

void copyDurably(const std::string& from, const std::string& to) {
    const okv::PrivateDescriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (source.get() < 0) throw StoreDamaged(reason("open", from));
    const auto target = openedAnew(to);
    std::array<char, 1 << 16> bytes;
    for (;;) {
        const auto count = read(source.get(), bytes.data(), bytes.size());
        if (count == 0) break;
        if (count < 0 && errno != EINTR) throw StoreDamaged(reason("read", from));
        if (count > 0 &&
            !okv::writeAll(target.get(), {bytes.data(), static_cast<std::size_t>(count)}))
            throw StoreError(reason("write", to));
    }
    flush(target, to);
}

}  // namespace datacenter
