#pragma once

#include "ChangingSide.h"
#include "Ledger.h"
#include "Notices.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace datacenter {

/// What one transaction came to, for the thread that answers: first the steps for the view, then
/// the answers, then the batch goes back to the writer, which tells everybody.
struct Batch {
    struct Answer {
        okv::Ref<okv::IncomingRequest> request;  ///< none for what the server asked of itself
        std::string frame;
    };
    std::vector<Answer> answers;
    std::vector<Step> steps;
    std::vector<Change> told;
};

/// The one thread that writes to the store. It takes what has queued up meanwhile into one
/// transaction, each request in a savepoint with an outcome of its own, commits, and hands the
/// batch over. Nothing is answered before it is committed; where the commit fails, every request of
/// the group is refused with the reason. Nothing waits for a group to fill.
///
/// Notices are posted once their batch has come back by `acknowledge`: who hears one and reads,
/// reads the new value.
class Writer {
public:
    /// Called on the writer's thread.
    struct Handlers {
        std::function<void(std::shared_ptr<Batch>)> handOver;
        std::function<void()> finished;  ///< after `finish`, when everything is done
    };

    Writer(Store& store, const Rights& rights, Ledger::Now now, NoticePoster& poster,
           Handlers handlers);
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    /// Answers false, and takes nothing, when too much is waiting already.
    bool queue(okv::Ref<okv::IncomingRequest> request, Method method);
    /// Reads the store again, as `reloadDataPT` does, without anybody asking.
    void queueReload();
    void acknowledge(std::shared_ptr<Batch> batch);
    /// Takes nothing more; what was taken is carried out, answered and told.
    void finish();

    /// Requests not yet carried out.
    std::size_t waiting() const;

private:
    struct Queued {
        okv::Ref<okv::IncomingRequest> request;
        Method method;
    };
    struct Work {
        std::vector<Queued> requests;
        std::vector<std::shared_ptr<Batch>> acknowledged;
    };

    void run();
    bool next(Work& work);
    bool hasWork() const;
    void takeRequests(Work& work);
    void carryOut(const std::vector<Queued>& group);
    void carryOutAll(const std::vector<Queued>& group, Batch& batch);
    std::string carryOutOne(const Queued& queued, Batch& batch);
    std::string send(const Queued& queued);
    void post(const Change& change);

    Store& store_;
    Ledger ledger_;
    ChangingSide data_{ledger_};
    AdminChangingSide admin_{ledger_};
    NoticePoster& poster_;
    const Handlers handlers_;

    mutable std::mutex mutex_;  // guards all down to the thread
    std::condition_variable wake_;
    std::vector<Queued> queue_;
    std::size_t queuedBytes_ = 0;
    std::vector<std::shared_ptr<Batch>> acknowledged_;
    std::size_t unacknowledged_ = 0;
    bool finishing_ = false;
    bool abandoned_ = false;  ///< nobody is left to acknowledge a batch
    std::thread thread_;
};

}  // namespace datacenter
