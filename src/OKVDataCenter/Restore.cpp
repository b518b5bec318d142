#include "Restore.h"

#include <OKVPlatform/values/ErrorText.h>

#include "DurableFile.h"
#include "Store.h"
#include "StoreGuard.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace datacenter {

namespace {

/// The backup's copy beside the store. Whatever was not put in the store's place is gone in the
/// end, as what an earlier attempt left that was killed.
class Copy {
public:
    explicit Copy(const std::string& storeFile) : file_(storeFile + ".restoring") { remove(); }
    ~Copy() { remove(); }
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;
    const std::string& file() const noexcept { return file_; }

    /// Fills it, and reads through all of it as a server would.
    Restored take(const Backup& backup) const {
        copyDurably(backup.file, file_);
        Restored restored{backup, {}, 0, {}};
        {
            Store store(file_, Limits(), Store::Damaged::refuseFresh);
            store.checkThoroughly();
            store.renewEpoch();
            restored.epoch = store.epoch();
            restored.revision = store.revision();
        }
        // Closing takes the log into the file, unless that fails.
        if (access((file_ + "-wal").c_str(), F_OK) == 0)
            throw StoreError("cannot write the whole of " + file_);
        flushFile(file_);
        return restored;
    }

private:
    void remove() noexcept {
        for (const char* end : {"", "-wal", "-shm", "-journal", ".guard"})
            unlink((file_ + end).c_str());
    }

    const std::string file_;
};

// Told of the copy, meant of the backup.
std::string reasonOf(const StoreError& error, const Copy& copy) {
    std::string text = error.what();
    for (const char* what : {"the store ", "the file "}) {
        const auto name = what + copy.file();
        if (text.rfind(name, 0) == 0) return text.replace(0, name.size(), "it");
    }
    return text;
}

Restored newestGood(const std::string& storeFile, const std::vector<Backup>& backups,
                    const Copy& copy, const LogLine& skipped) {
    for (const auto& backup : backups) {
        const auto skip = [&](const StoreError& error) {
            skipped("the backup " + backup.file + " is skipped: " + reasonOf(error, copy));
        };
        try {
            return copy.take(backup);
        } catch (const StoreDamaged& error) {
            skip(error);
        } catch (const StoreForeign& error) {
            skip(error);
        }
    }
    throw StoreError("no backup of the store " + storeFile + " is good; nothing was changed");
}

// An administrator's file would be closed to the account that the server runs under.
void giveToOwner(const std::string& storeFile, const std::string& copy) {
    const auto owner = ownerOf(storeFile);
    if (!owner) return;
    for (const auto& file : {copy, storeFile + ".guard"}) {
        if (lchown(file.c_str(), owner->user, owner->group) != 0)
            throw StoreError("cannot give " + file +
                             " to the store's owner: " + okv::errorText(errno));
    }
}

// Answers where the former store is now; where that fails, it is where it was.
std::string replace(const std::string& storeFile, const std::string& copy) {
    const auto former = moveAside(storeFile, ".replaced-");
    try {
        renameDurably(copy, storeFile);
    } catch (const StoreError&) {
        if (!former.empty()) moveStore(former, storeFile);
        throw;
    }
    return former;
}

std::string readable(std::int64_t time) {
    const auto seconds = static_cast<std::time_t>(time);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text;
}

void tell(const std::string& storeFile, const Restored& restored) {
    std::printf("the store %s is now the backup of %s, %s: revision %lld, new epoch %s\n",
                storeFile.c_str(), readable(restored.backup.time).c_str(),
                restored.backup.file.c_str(), static_cast<long long>(restored.revision),
                restored.epoch.c_str());
    if (restored.former.empty()) {
        std::puts("there was no store before");
    } else {
        std::printf("the former store is now %s\n", restored.former.c_str());
    }
}

}  // namespace

Restored restoreStore(const std::string& storeFile, const LogLine& skipped) {
    const auto backups = backupsOf(storeFile);
    if (backups.empty())
        throw StoreError("there is no backup of the store in " + backupFolder(storeFile) +
                         "; nothing was changed");
    Store::Guard guard(storeFile);
    const Copy copy(storeFile);
    auto restored = newestGood(storeFile, backups, copy, skipped);
    giveToOwner(storeFile, copy.file());
    // A store that is gone keeps a server from starting: what is killed in between can be done
    // again.
    const auto mark = guard.mark();
    guard.setMark(restored.epoch, restored.revision);
    try {
        restored.former = replace(storeFile, copy.file());
    } catch (const StoreError&) {
        guard.setMark(mark.epoch, mark.revision);
        throw;
    }
    return restored;
}

int restore(const Options& options) {
    const auto complain = [](const std::string& line) {
        std::fprintf(stderr, "OKVDataCenter: %s\n", line.c_str());
    };
    try {
        tell(options.store, restoreStore(options.store, complain));
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        complain(error.what());
        return EXIT_FAILURE;
    }
}

}  // namespace datacenter
