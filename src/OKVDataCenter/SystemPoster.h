#pragma once

#include "LogLine.h"
#include "Notices.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace datacenter {

/// Posts to every process of the machine, in the order in which it was told, on a thread of its
/// own: posting waits for a lock that every poster of the machine takes, and neither a change nor
/// an answer waits for that. When posting fails, that is logged once, and nothing is tried for a
/// while; then, and when more is told than can be posted, few notices stand for all that were
/// missed (see MissedChanges).
class SystemPoster final : public NoticePoster {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::seconds kQuietAfterFailure{2};
    /// Changes that wait to be posted one by one.
    static constexpr std::size_t kWaiting = 1024;

    explicit SystemPoster(LogLine log, Clock::duration quietAfterFailure = kQuietAfterFailure);
    /// Posts what waits, for a few seconds at the most; what fails then is not tried again: whoever
    /// starts next tells everybody to look anew.
    ~SystemPoster() override;
    SystemPoster(const SystemPoster&) = delete;
    SystemPoster& operator=(const SystemPoster&) = delete;

    void post(Told told) override;
    /// Waits until what was told is posted, or cannot be; a second at the most.
    void settle();

private:
    void run();
    bool hasEnded();
    bool next(Told& told);
    bool tryPost(const Told& told);
    void noteFailure(const char* reason);
    void miss(Told told);

    const LogLine log_;
    const Clock::duration quietAfterFailure_;
    okv::DistributedNotificationCenter center_;
    bool failing_ = false;  ///< the thread's alone

    std::mutex mutex_;  // guards all down to the thread
    std::condition_variable changed_;
    std::deque<Told> waiting_;
    MissedChanges missed_;  ///< later than all that waits
    bool posting_ = false;
    bool ending_ = false;
    Clock::time_point endBy_;
    std::thread thread_;
};

}  // namespace datacenter
