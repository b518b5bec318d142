#pragma once

#include "ChangingSide.h"
#include "Ledger.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

namespace datacenter {

/// What one transaction came to, for the thread that answers: first the steps for the view, then
/// the answers, then what everybody is told. (Who hears that and reads, reads the new value.)
struct Batch {
    struct Answer {
        okv::Ref<okv::IncomingRequest> request;  ///< none for what the server asked of itself
        std::string frame;      ///< where there is no request: why it failed, empty when it did not
        bool isDenied = false;  ///< the caller had no right to it
    };
    std::vector<Answer> answers;
    std::vector<Step> steps;
    std::vector<Change> told;
};

/// The one thread that writes to the store. It takes what has queued up meanwhile into one
/// transaction, each request with an outcome of its own, commits, and hands the batch over. Nothing
/// is answered before it is committed; where the commit fails, every request of the group is
/// refused with the reason. Nothing waits for a group to fill.
class Writer {
public:
    /// Called on the writer's thread.
    struct Handlers {
        std::function<void(std::shared_ptr<Batch>)> handOver;
        std::function<void()> finished;  ///< after `finish`, when everything is done
        /// A line for the log: when commits begin to fail, and when they work again.
        std::function<void(const std::string&)> log;
        /// Before the store is read again without anybody asking; may wait.
        std::function<void()> lookAround = {};
    };

    Writer(Store& store, const Rights& rights, Ledger::Now now, Handlers handlers);
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    /// Answers false, and takes nothing, when too much is waiting already.
    bool queue(okv::Ref<okv::IncomingRequest> request, Method method);
    /// Reads the store again, as `reloadDataPT` does, without anybody asking.
    void queueReload();
    /// Gives the memory of a batch back that holds much of what a view was: nobody waits for it
    /// here but who writes next.
    void takeApart(std::shared_ptr<Batch> batch);
    /// Takes nothing more; what was taken is carried out.
    void finish();

    /// Requests not yet carried out.
    std::size_t waiting() const;
    std::size_t waitingBytes() const;
    /// For how long the thread has been at the same piece of work; zero when it waits for some.
    std::chrono::nanoseconds busyFor() const noexcept;

private:
    struct Queued {
        okv::Ref<okv::IncomingRequest> request;
        Method method;
    };
    using Group = std::span<const Queued>;
    struct Work {
        std::vector<Queued> requests;
        std::vector<std::shared_ptr<Batch>> remains;
    };

    static constexpr std::chrono::steady_clock::rep kIdle = 0;

    void run();
    bool next(Work& work);
    bool hasWork() const;
    void takeRequests(Work& work);
    Group carryOut(Group group);
    std::optional<okv::Refusal> carryOutSome(Group group, Batch& batch);
    std::string carryOutOne(const Queued& queued, Batch& batch);
    std::string send(const Queued& queued);
    static std::string failed(const Queued& queued, const okv::Refusal& failure);
    void noteFailure(const okv::Refusal& failure);
    void noteSuccess();

    Store& store_;
    Ledger ledger_;
    ChangingSide data_{ledger_};
    AdminChangingSide admin_{ledger_};
    const Handlers handlers_;
    bool failing_ = false;
    std::atomic<std::chrono::steady_clock::rep> busySince_{kIdle};

    mutable std::mutex mutex_;  // guards all down to the thread
    std::condition_variable wake_;
    std::vector<Queued> queue_;
    std::size_t queuedBytes_ = 0;
    std::vector<std::shared_ptr<Batch>> remains_;
    bool finishing_ = false;
    std::thread thread_;
};

}  // namespace datacenter
