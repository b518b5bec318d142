#include "SystemPoster.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/RuntimeFolder.h>

#include <iterator>
#include <new>
#include <utility>

namespace datacenter {

namespace {

// Another poster that was stopped while it held the lock must not hold all notices up for long.
constexpr std::chrono::milliseconds kLockWait{200};
constexpr std::chrono::seconds kEndWithin{5};
constexpr std::chrono::seconds kSettleWithin{1};

}  // namespace

SystemPoster::SystemPoster(LogLine log, Clock::duration quietAfterFailure)
    : log_(std::move(log)),
      quietAfterFailure_(quietAfterFailure),
      center_(okv::runtimeDirectory(), {.lockWait = kLockWait}),
      thread_([this] { run(); }) {}

SystemPoster::~SystemPoster() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        endBy_ = Clock::now() + kEndWithin;
        changed_.notify_all();
    }
    thread_.join();
}

// What was missed is posted before anything that is told later.
void SystemPoster::post(Told told) {
    const std::lock_guard lock(mutex_);
    if (missed_.isEmpty() && waiting_.size() < kWaiting)
        waiting_.push_back(std::move(told));
    else
        missed_.add(std::move(told));
    changed_.notify_all();
}

void SystemPoster::settle() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kSettleWithin, [this] { return waiting_.empty() && !posting_; });
}

void SystemPoster::run() {
    while (!hasEnded()) {
    }
}

// Without memory the notice at hand is lost, and what comes next is tried anew: revisions tell that
// there was one.
bool SystemPoster::hasEnded() {
    try {
        Told told;
        if (!next(told)) return true;
        if (!tryPost(told)) miss(std::move(told));
    } catch (const std::bad_alloc&) {
        noteFailure("no memory");
    }
    return false;
}

// False once it is time to end.
bool SystemPoster::next(Told& told) {
    std::unique_lock lock(mutex_);
    posting_ = false;
    changed_.notify_all();
    changed_.wait(lock, [this] { return ending_ || !waiting_.empty() || !missed_.isEmpty(); });
    if (ending_ && Clock::now() >= endBy_) return false;
    if (waiting_.empty()) {
        auto missed = missed_.take();
        waiting_.assign(std::make_move_iterator(missed.begin()),
                        std::make_move_iterator(missed.end()));
    }
    if (waiting_.empty()) return false;
    told = std::move(waiting_.front());
    waiting_.pop_front();
    posting_ = true;
    return true;
}

bool SystemPoster::tryPost(const Told& told) {
    try {
        center_.post(kOKVSettingNotification, {}, noticeFor(told));
    } catch (const std::exception& error) {
        noteFailure(error.what());
        return false;
    }
    if (std::exchange(failing_, false)) log_("notices are posted again");
    return true;
}

void SystemPoster::noteFailure(const char* reason) {
    if (std::exchange(failing_, true)) return;
    log_(std::string("a notice could not be posted, and those that follow are held back: ") +
         reason);
}

// With all that waits, which would fail as well; then nothing is tried for a while.
void SystemPoster::miss(Told told) {
    std::unique_lock lock(mutex_);
    posting_ = false;
    changed_.notify_all();
    missed_.add(std::move(told));
    for (auto& later : std::exchange(waiting_, {})) missed_.add(std::move(later));
    if (ending_)
        endBy_ = Clock::now();
    else
        changed_.wait_for(lock, quietAfterFailure_, [this] { return ending_; });
}

}  // namespace datacenter
