#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace datacenter {

/// A copy of the whole store, one file that needs no log beside it. Its name tells all of this.
struct Backup {
    std::int64_t number = 0;  ///< counts up from one backup to the next, whatever the clock does
    std::int64_t time = 0;    ///< when it was made, seconds since 1970
    std::string file;
};

/// "000042-20260601T030000Z.db".
std::string backupName(std::int64_t number, std::int64_t time);
/// Number and time from such a name; nothing for any other.
std::optional<Backup> backupNamed(std::string_view name);

/// `FILE.backups`.
std::string backupFolder(const std::string& storeFile);
/// The newest first, which is the one with the highest number. None where there is no folder yet;
/// throws StoreError where it cannot be read.
std::vector<Backup> backupsOf(const std::string& storeFile);

/// Makes a backup of the store, which may be in use, and answers it once it is on the disk. Reads
/// through a connection of its own: writers go on meanwhile. Its folder is made for the owner
/// alone, as the file is. Throws StoreError or SqlError, with nothing left behind; once `stop` is
/// set it gives up. Any thread, one at a time.
Backup makeBackup(const std::string& storeFile, std::int64_t now, const std::atomic<bool>& stop);
/// Takes away all but the newest. Throws StoreError.
void removeOldBackups(const std::string& storeFile, std::size_t kept);
/// Takes away what a server left that was killed over its backup.
void removeUnfinishedBackup(const std::string& storeFile) noexcept;

}  // namespace datacenter
