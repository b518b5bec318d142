#pragma once

#include "BackupFolder.h"
#include "LogLine.h"
#include "Options.h"

#include <cstdint>
#include <string>

namespace datacenter {

/// What was brought back, and where the files are that stood in its place.
struct Restored {
    Backup backup;
    std::string epoch;
    std::int64_t revision = 0;
    std::string former;  ///< empty: there was no store
};

/// Puts the newest good backup in the place of the store, under an epoch of its own: what clients
/// remember of the former store's revisions does not hold for it. The former files are renamed to
/// `FILE.replaced-TIME`. `skipped` hears of each backup that cannot be used. Throws StoreError,
/// with everything as it was, while a server has the store open, when no backup is good, and when
/// the copy cannot be written.
Restored restoreStore(const std::string& storeFile, const LogLine& skipped);

/// The program when it was asked to restore: tells what was done; answers the exit code.
int restore(const Options& options);

}  // namespace datacenter
