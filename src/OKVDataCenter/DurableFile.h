#pragma once

#include <string>

namespace datacenter {

/// Files that must be there, whole, after a power cut. All throw StoreError with the system's
/// reason.

/// An empty file for its owner alone, in the place of whatever was there.
void makeEmptyFile(const std::string& file);
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
