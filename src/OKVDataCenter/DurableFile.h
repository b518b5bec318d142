#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace datacenter {

/// An account that files are given to.
struct Owner {
    uid_t user = 0;
    gid_t group = 0;
};
/// Who must be able to use what root makes beside a store: the store's owner, else its folder's.
/// None where this process is not root's, whose files are its own.
std::optional<Owner> ownerOf(const std::string& storeFile);
/// Throws StoreError. Nothing happens where there is no owner.
void giveTo(const std::optional<Owner>& owner, int descriptor, const std::string& file);

/// Files that must be there, whole, after a power cut. All throw StoreError with the system's
/// reason.

/// An empty file for its owner alone, in the place of whatever was there.
void makeEmptyFile(const std::string& file, const std::optional<Owner>& owner);
/// Brings the file's bytes to the disk.
void flushFile(const std::string& file);
/// Brings to the disk which files a folder holds.
void flushFolder(const std::string& folder);
void flushFolderOf(const std::string& file);
/// Renames within one folder; afterwards the name stands on the disk, too.
void renameDurably(const std::string& from, const std::string& to);
/// A flushed copy for its owner alone. Throws StoreDamaged where it is `from` that cannot be read.
void copyDurably(const std::string& from, const std::string& to);

}  // namespace datacenter
