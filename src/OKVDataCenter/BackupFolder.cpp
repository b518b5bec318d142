#include "BackupFolder.h"

#include "DurableFile.h"
#include "Store.h"

#include <OKVPlatform/ipc/PrivateDescriptor.h>
#include <OKVPlatform/values/ErrorText.h>
#include <OKVPlatform/values/NumberText.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>

namespace datacenter {

namespace {

constexpr char kUnfinishedName[] = "/unfinished";
constexpr char kTimeForm[] = "%Y%m%dT%H%M%SZ";
constexpr std::size_t kTimeLength = 16;
// More digits than any number of backups has; fits into 64 bits.
constexpr std::size_t kMostDigits = 15;
// How many steps of the engine pass between two looks whether to stop.
constexpr int kStepsBetweenLooks = 10000;

std::string unfinishedIn(const std::string& storeFile) {
    return backupFolder(storeFile) + kUnfinishedName;
}

/// Whatever happens, no half backup stays.
class Unfinished {
public:
    explicit Unfinished(const std::string& storeFile) : storeFile_(storeFile) {
        removeUnfinishedBackup(storeFile_);
    }
    ~Unfinished() { removeUnfinishedBackup(storeFile_); }
    Unfinished(const Unfinished&) = delete;
    Unfinished& operator=(const Unfinished&) = delete;

private:
    const std::string& storeFile_;
};

void giveFolderTo(const std::optional<Owner>& owner, const std::string& folder) {
    const okv::PrivateDescriptor made(
        ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    giveTo(owner, made.get(), folder);
}

void makeFolder(const std::string& folder, const std::optional<Owner>& owner) {
    if (mkdir(folder.c_str(), 0700) == 0) {
        giveFolderTo(owner, folder);
        return flushFolderOf(folder);
    }
    struct stat status {};
    if (errno == EEXIST && stat(folder.c_str(), &status) == 0 && !S_ISDIR(status.st_mode))
        errno = ENOTDIR;
    else if (errno == EEXIST && chmod(folder.c_str(), 0700) == 0)
        return;
    throw StoreError("cannot make the folder " + folder + ": " + okv::errorText(errno));
}

int shouldStop(void* stop) {
    return static_cast<const std::atomic<bool>*>(stop)->load() ? 1 : 0;
}

/// For reading alone; gives up when told to.
class Source {
public:
    Source(const std::string& file, const std::atomic<bool>& stop)
        : database_(file, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX) {
        sqlite3_progress_handler(database_.handle(), kStepsBetweenLooks, shouldStop,
                                 const_cast<std::atomic<bool>*>(&stop));
        database_.execute("PRAGMA trusted_schema=OFF; PRAGMA cell_size_check=ON;");
    }
    void copyTo(const std::string& file) { database_.run("VACUUM INTO ?", std::string_view(file)); }
    void check() {
        auto rows = database_.query("PRAGMA quick_check(1)");
        if (!rows.next() || rows.bytes(0) != "ok")
            throw StoreError("the copy is damaged: " + std::string(rows.bytes(0)));
    }

private:
    Database database_;
};

std::optional<std::int64_t> timeIn(std::string_view text) {
    std::tm parts{};
    const std::string terminated(text);
    const char* end = strptime(terminated.c_str(), kTimeForm, &parts);
    if (end == nullptr || *end != '\0') return std::nullopt;
    return timegm(&parts);
}

}  // namespace

std::string backupName(std::int64_t number, std::int64_t time) {
    const auto seconds = static_cast<std::time_t>(time);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char moment[64];
    std::strftime(moment, sizeof moment, kTimeForm, &parts);
    char name[96];
    std::snprintf(name, sizeof name, "%06lld-%s.db", static_cast<long long>(number), moment);
    return name;
}

std::optional<Backup> backupNamed(std::string_view name) {
    const auto dash = name.find('-');
    constexpr std::string_view kEnd = ".db";
    if (dash == std::string_view::npos || dash == 0 || dash > kMostDigits ||
        name.size() != dash + 1 + kTimeLength + kEnd.size() || !name.ends_with(kEnd))
        return std::nullopt;
    const auto number = okv::decimalIn<decltype(Backup::number)>(name.substr(0, dash));
    const auto time = timeIn(name.substr(dash + 1, kTimeLength));
    if (!number || *number < 1 || !time) return std::nullopt;
    Backup backup;
    backup.number = *number;
    backup.time = *time;
    return backup;
}

std::string backupFolder(const std::string& storeFile) {
    return storeFile + ".backups";
}

std::vector<Backup> backupsOf(const std::string& storeFile) {
    const auto folder = backupFolder(storeFile);
    std::vector<Backup> backups;
    std::error_code error;
    for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end;
         at.increment(error)) {
        const auto name = at->path().filename().string();
        if (auto backup = backupNamed(name)) {
            backup->file = folder + "/" + name;
            backups.push_back(std::move(*backup));
        }
    }
    if (error && error != std::errc::no_such_file_or_directory)
        throw StoreError("cannot read the folder " + folder + ": " + error.message());
    std::sort(backups.begin(), backups.end(),
              [](const auto& a, const auto& b) { return a.number > b.number; });
    return backups;
}

Backup makeBackup(const std::string& storeFile, std::int64_t now, const std::atomic<bool>& stop) {
    const auto owner = ownerOf(storeFile);
    makeFolder(backupFolder(storeFile), owner);
    const Unfinished unfinished(storeFile);
    const auto file = unfinishedIn(storeFile);
    makeEmptyFile(file, owner);  // the engine would make it readable for others
    Source(storeFile, stop).copyTo(file);
    Source(file, stop).check();  // a bad copy must not push out a good one
    flushFile(file);
    const auto before = backupsOf(storeFile);
    Backup backup{before.empty() ? 1 : before.front().number + 1, now, {}};
    backup.file = backupFolder(storeFile) + "/" + backupName(backup.number, now);
    renameDurably(file, backup.file);
    return backup;
}

void removeOldBackups(const std::string& storeFile, std::size_t kept) {
    const auto backups = backupsOf(storeFile);
    for (auto i = kept; i < backups.size(); ++i) {
        if (unlink(backups[i].file.c_str()) != 0 && errno != ENOENT)
            throw StoreError("cannot remove the old backup " + backups[i].file + ": " +
                             okv::errorText(errno));
    }
}

void removeUnfinishedBackup(const std::string& storeFile) noexcept {
    for (const char* end : {"", "-journal", "-wal", "-shm"})
        unlink((unfinishedIn(storeFile) + end).c_str());
}

}  // namespace datacenter
