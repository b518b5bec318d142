#pragma once

#include "BackupFolder.h"
#include "LogLine.h"

#include <OKVPlatform/ipc/RunLoop.h>
#include <OKVPlatform/values/Object.h>
#include <OKVPlatform/values/Value.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace datacenter {

/// How long after the start the first backup is made: as long as the newest one is younger than the
/// interval, else at once. One that bears a time to come says only that the clock was put back.
std::chrono::seconds untilFirstBackup(const std::vector<Backup>& backups, std::int64_t now,
                                      std::chrono::seconds interval);

/// Makes a backup of the store when one is due, and keeps the newest of them. What is due while the
/// server runs is told by how long it has been running, not by the clock, which may be put back or
/// ahead. The work is done on a thread of its own; all else belongs to the run loop's. A backup
/// that fails is logged with its reason and tried again later.
class BackupKeeper final : public okv::Object {
public:
    static constexpr std::size_t kKept = 7;

    BackupKeeper(std::string storeFile, std::chrono::seconds interval, LogLine log);

    /// Looks at what is there, and waits for what is due. An interval of 0 makes no backups.
    void start();
    /// "interval" (seconds), "kept" (how many there are), "time" (date of the newest, or null), and
    /// after a failure, until a backup was made, "failure" (the reason) and "failed" (date).
    okv::Dictionary state() const;

protected:
    void dealloc() override;

private:
    struct Outcome {
        std::optional<Backup> made;
        std::size_t kept = 0;
        std::string failure;
    };
    struct Failure {
        std::string reason;
        std::int64_t time;
    };

    void waitFor(std::chrono::seconds duration);
    void look();
    void begin();
    void work();
    Outcome attempt();
    void take(const Outcome& outcome);
    void note(const std::string& failure);
    std::chrono::seconds untilNextTry() const;

    const okv::Ref<okv::RunLoop> loop_ = okv::RunLoop::current();
    const std::string storeFile_;
    const std::chrono::seconds interval_;
    const LogLine log_;
    std::chrono::seconds due_{0};  ///< of the clock that counts from the system's start
    std::optional<Backup> newest_;
    std::size_t kept_ = 0;
    std::optional<Failure> failure_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace datacenter
