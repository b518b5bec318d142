#include "Writer.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace datacenter {

namespace {

template <class T>
void append(std::vector<T>& all, std::vector<T>&& more) {
    if (all.empty()) return all.swap(more);
    all.insert(all.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
}

}  // namespace

Writer::Writer(Store& store, const Rights& rights, Ledger::Now now, Handlers handlers)
    : store_(store),
      ledger_(store, rights, std::move(now)),
      handlers_(std::move(handlers)),
      thread_([this] { run(); }) {}

Writer::~Writer() {
    finish();
    thread_.join();
}

bool Writer::queue(okv::Ref<okv::IncomingRequest> request, Method method) {
    const std::lock_guard lock(mutex_);
    const auto size = request->size();
    if (finishing_ || (queuedBytes_ > 0 && queuedBytes_ + size > store_.limits().queuedBytes))
        return false;
    queuedBytes_ += size;
    queue_.push_back({std::move(request), method});
    wake_.notify_one();
    return true;
}

void Writer::queueReload() {
    const std::lock_guard lock(mutex_);
    if (finishing_) return;
    queue_.push_back({nullptr, methodOf<&OKVDataMng_protocol::reloadDataPT>()});
    wake_.notify_one();
}

void Writer::takeApart(std::shared_ptr<Batch> batch) {
    const std::lock_guard lock(mutex_);
    remains_.push_back(std::move(batch));
    wake_.notify_one();
}

void Writer::finish() {
    const std::lock_guard lock(mutex_);
    finishing_ = true;
    wake_.notify_one();
}

std::size_t Writer::waiting() const {
    const std::lock_guard lock(mutex_);
    return queue_.size();
}

std::size_t Writer::waitingBytes() const {
    const std::lock_guard lock(mutex_);
    return queuedBytes_;
}

// Lock held.
bool Writer::hasWork() const {
    return !queue_.empty() || !remains_.empty();
}

// Lock held.
void Writer::takeRequests(Work& work) {
    const auto count = std::min(queue_.size(), store_.limits().groupedRequests);
    const auto end = queue_.begin() + static_cast<std::ptrdiff_t>(count);
    work.requests.assign(std::make_move_iterator(queue_.begin()), std::make_move_iterator(end));
    queue_.erase(queue_.begin(), end);
    for (const auto& queued : work.requests)
        queuedBytes_ -= queued.request ? queued.request->size() : 0;
}

bool Writer::next(Work& work) {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [this] { return hasWork() || finishing_; });
    if (!hasWork()) return false;
    work.remains.swap(remains_);
    takeRequests(work);
    return true;
}

void Writer::run() {
    for (Work work; next(work);) {
        busySince_ = std::chrono::steady_clock::now().time_since_epoch().count();
        for (Group group = work.requests; !group.empty();) group = carryOut(group);
        work = Work();  // under no lock: what remains may be a whole former view
        busySince_ = kIdle;
    }
    handlers_.finished();
}

std::chrono::nanoseconds Writer::busyFor() const noexcept {
    using Steady = std::chrono::steady_clock;
    const auto since = busySince_.load();
    if (since == kIdle) return {};
    return Steady::now() - Steady::time_point(Steady::duration(since));
}

// Answers those that were not carried out yet.
Writer::Group Writer::carryOut(Group group) {
    auto batch = std::make_shared<Batch>();
    if (const auto failure = carryOutSome(group, *batch)) {
        store_.rollback();
        noteFailure(*failure);
        *batch = Batch();
        for (const auto& queued : group)
            batch->answers.push_back({queued.request, failed(queued, *failure), false});
    } else {
        noteSuccess();
    }
    const auto rest = group.subspan(batch->answers.size());
    handlers_.handOver(std::move(batch));
    return rest;
}

// A disk that fails for long fills the log with one line.
void Writer::noteFailure(const okv::Refusal& failure) {
    if (!failing_) handlers_.log("changes are refused, the store fails: " + failure.reason);
    failing_ = true;
}

void Writer::noteSuccess() {
    if (failing_) handlers_.log("the store works again");
    failing_ = false;
}

// Why none of it was committed; nothing when its beginning was, mostly all: a view that took over
// very many steps at once would keep reads waiting.
std::optional<okv::Refusal> Writer::carryOutSome(Group group, Batch& batch) {
    try {
        store_.begin(group.size() == 1 ? Store::Holds::oneRequest : Store::Holds::requests);
        for (const auto& queued : group) {
            auto frame = carryOutOne(queued, batch);
            batch.answers.push_back(
                {queued.request, std::move(frame), queued.request && ledger_.isDenied()});
            if (batch.steps.size() >= store_.limits().groupedSteps) break;
        }
        store_.commit();
        return std::nullopt;
    } catch (const SqlError& error) {
        return refusalFor(error);
    } catch (const std::bad_alloc&) {
        return okv::Refusal{okv::Refusal::Kind::failed, "no memory"};
    }
}

std::string Writer::send(const Queued& queued) {
    if (queued.request) return Speaker{data_, admin_}.carryOut(*queued.request, queued.method);
    if (handlers_.lookAround) handlers_.lookAround();
    return data_.reloadDataPT() ? std::string() : ledger_.reason();
}

std::string Writer::failed(const Queued& queued, const okv::Refusal& failure) {
    return queued.request ? refusalReply(queued.method, failure) : failure.reason;
}

// An error that leaves the transaction standing concerns this request alone.
std::string Writer::carryOutOne(const Queued& queued, Batch& batch) {
    store_.beginRequest();
    ledger_.open();
    try {
        auto frame = send(queued);
        if (store_.isTransactionLost() && ledger_.failure()) throw SqlError(*ledger_.failure());
        auto outcome = ledger_.close();
        outcome.told ? store_.keepRequest() : store_.dropRequest();
        append(batch.steps, std::move(outcome.steps));
        if (outcome.told) batch.told.push_back(std::move(*outcome.told));
        return frame;
    } catch (const SqlError& error) {
        if (store_.isTransactionLost()) throw;
        store_.dropRequest();
        return failed(queued, refusalFor(error));
    }
}

}  // namespace datacenter
