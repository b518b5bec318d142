#include "BackupKeeper.h"

#include <algorithm>
#include <ctime>
#include <exception>

namespace datacenter {

using std::chrono::seconds;

namespace {

constexpr seconds kTryAgain{600};
// The run loop's timers stand still while the machine sleeps, what is due does not.
constexpr seconds kLookAgain{900};

seconds sinceSystemStart() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return seconds(now.tv_sec);
}

okv::Value dateOf(std::int64_t time) {
    return okv::Date{static_cast<double>(time)};
}

}  // namespace

seconds untilFirstBackup(const std::vector<Backup>& backups, std::int64_t now, seconds interval) {
    if (backups.empty()) return seconds(0);
    const seconds age(now - backups.front().time);
    return age < seconds(0) || age >= interval ? seconds(0) : interval - age;
}

BackupKeeper::BackupKeeper(std::string storeFile, seconds interval, LogLine log)
    : storeFile_(std::move(storeFile)), interval_(interval), log_(std::move(log)) {}

void BackupKeeper::dealloc() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    loop_->forget(this);
}

void BackupKeeper::start() {
    removeUnfinishedBackup(storeFile_);
    std::vector<Backup> backups;
    try {
        backups = backupsOf(storeFile_);
    } catch (const std::exception& error) {
        note(error.what());
    }
    kept_ = backups.size();
    if (!backups.empty()) newest_ = backups.front();
    if (interval_ > seconds(0)) waitFor(untilFirstBackup(backups, std::time(nullptr), interval_));
}

void BackupKeeper::waitFor(seconds duration) {
    due_ = sinceSystemStart() + duration;
    look();
}

void BackupKeeper::look() {
    const auto left = due_ - sinceSystemStart();
    if (left <= seconds(0)) return begin();
    loop_->performAfter(
        std::min(left, kLookAgain), [this] { look(); }, this);
}

void BackupKeeper::begin() {
    try {
        thread_ = std::thread([this] { work(); });
    } catch (const std::exception& error) {
        take({std::nullopt, kept_, error.what()});
    }
}

void BackupKeeper::work() {
    const auto outcome = attempt();
    loop_->perform([this, outcome] { take(outcome); }, this);
}

BackupKeeper::Outcome BackupKeeper::attempt() {
    Outcome outcome;
    try {
        outcome.made = makeBackup(storeFile_, std::time(nullptr), stop_);
        removeOldBackups(storeFile_, kKept);
    } catch (const std::exception& error) {
        outcome.failure = error.what();
    }
    try {
        outcome.kept = backupsOf(storeFile_).size();
    } catch (const std::exception&) {
        // None that could be read.
    }
    return outcome;
}

void BackupKeeper::take(const Outcome& outcome) {
    if (thread_.joinable()) thread_.join();
    kept_ = outcome.kept;
    if (outcome.made) newest_ = outcome.made;
    if (!outcome.failure.empty()) {
        note(outcome.failure);
    } else if (failure_) {
        log_("backups of the store are made again");
        failure_.reset();
    }
    waitFor(outcome.made ? interval_ : untilNextTry());
}

seconds BackupKeeper::untilNextTry() const {
    return std::min(interval_, kTryAgain);
}

// A disk that is full for long fills the log with one line.
void BackupKeeper::note(const std::string& failure) {
    if (!failure_ || failure_->reason != failure)
        log_("the backup of the store failed, and is tried again: " + failure);
    failure_ = Failure{failure, std::time(nullptr)};
}

okv::Dictionary BackupKeeper::state() const {
    okv::Dictionary state{{"interval", interval_.count()},
                          {"kept", static_cast<std::int64_t>(kept_)},
                          {"time", newest_ ? dateOf(newest_->time) : okv::Value(okv::Null{})}};
    if (failure_) {
        state.set("failure", failure_->reason);
        state.set("failed", dateOf(failure_->time));
    }
    return state;
}

}  // namespace datacenter
