#include "Server.h"

#include <OKVLog/OKVLog.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace datacenter {

using Kind = okv::Refusal::Kind;
using SteadyClock = okv::RunLoop::Clock;

namespace {

// A client that does not read its last answers is not waited for longer than this.
constexpr std::chrono::seconds kFlushWithin{2};
constexpr std::chrono::milliseconds kFlushAgain{5};

// Memory of an answer that is kept for the next one. There is one for all clients; the system's
// giving and clearing it anew costs more than half of what a large answer does.
constexpr std::size_t kKeptAnswer = 1024 * 1024;

// All that is stored is read when the store is opened; it need not be read again.
std::shared_ptr<View> openedView(Store& store) {
    auto view = store.takeOpened();
    return view ? view : store.load();
}

// Whether what the view gave up for it may take long to be given back.
bool leavesMuch(const Step& step) {
    if (const auto* const set = std::get_if<step::Setting>(&step))
        return set->value.is<okv::Array>() || set->value.is<okv::Dictionary>();
    return !std::holds_alternative<step::Record>(step);
}

// Why a request is refused before anything is read from it; empty where it is not. What is answered
// here is also taken apart here, and everybody else waits meanwhile.
std::string whyTooLarge(const okv::IncomingRequest& request, const Grant& grant,
                        const Limits& limits) {
    constexpr std::size_t kBesideTheKeys = 2;  // the array that holds them, and whose they are
    if (request.size() > (grant.isImport ? limits.importBytes : limits.requestBytes))
        return "the request is too large";
    if (grant.where == Grant::Where::here &&
        request.arguments().holdsMoreThan(limits.readKeys + kBesideTheKeys))
        return "the request is too large: one read names at most " +
               std::to_string(limits.readKeys) + " keys";
    return {};
}

double secondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

}  // namespace

Server::Server(Store& store, Rights rights, Surroundings surroundings)
    : loop_(okv::RunLoop::current()),
      limits_(affordable(store.limits())),
      rights_(rights),
      surroundings_(std::move(surroundings)),
      poster_(surroundings_.poster),
      log_(surroundings_.log),
      refusals_(log_),
      view_(std::move(*openedView(store))),
      writer_(store, rights_, surroundings_.now, handlers()) {
    state_.now = surroundings_.now;
    state_.end = [this] { loop_->perform([this] { end(); }); };
    state_.status = [this] { return status(); };
}

Server::~Server() {
    if (publication_) publication_->invalidate();
    refusals_.tellLeftOut();
}

Writer::Handlers Server::handlers() {
    return {[this](std::shared_ptr<Batch> batch) {
                loop_->perform([this, held = std::move(batch)] { take(held); });
            },
            [this] { loop_->perform([this] { closeWhenFlushed(); }); }, log_,
            [this] {
                if (surroundings_.lookAround) surroundings_.lookAround(rights_);
            }};
}

okv::RootObject Server::root() {
    okv::RootObject root;
    root.handler = [](void* self, okv::IncomingRequest& request) {
        static_cast<Server*>(self)->handle(request);
    };
    root.target = this;
    return root;
}

okv::PublicationOptions Server::options() {
    okv::PublicationOptions options;
    options.maxRequestBytes = limits_.importBytes;
    // A little more than is allowed comes in and is refused with the reason; much more ends the
    // connection.
    options.maxRequestBytesOf = [this](const okv::PeerIdentity& peer) {
        return rights_.isAdministrator(peer) ? limits_.importBytes : 2 * limits_.requestBytes;
    };
    options.maxConnections = limits_.connections;
    options.maxConnectionsPerUid = limits_.connectionsPerUid;
    options.keptForOwn = limits_.keptConnections;
    options.maxUngreeted = limits_.ungreeted;
    options.greetWithin = std::chrono::milliseconds(limits_.greetMilliseconds);
    options.maxQueuedOutput = limits_.outputBytes;
    options.maxPendingRequests = limits_.pendingRequests;
    options.disconnected = [this](okv::MessagePort& port) { state_.clients.remove(port); };
    return options;
}

bool Server::publish(std::string& why) {
    return started(okv::Publication::publish(kOKVDataServerName, root(), options(), why));
}

bool Server::adopt(int listener, std::string& why) {
    return started(okv::Publication::adopt(kOKVDataServerName, listener, root(), options(), why));
}

bool Server::started(okv::Ref<okv::Publication> publication) {
    publication_ = std::move(publication);
    if (!publication_) return false;
    Change nothing;
    nothing.revision = view_.revision();
    poster_.post({std::move(nothing), view_.epoch()});
    return true;
}

void Server::handle(okv::IncomingRequest& request) {
    const auto method = findMethod(request.selector());
    if (!method) return request.fail("unknown selector");
    const auto& grant = grantFor(*method);
    if (!rights_.allows(request.caller(), grant.grantedTo)) {
        noteRefusal(request);
        return refuse(request, *method, {Kind::notAllowed, "the caller has no right to do this"});
    }
    if (auto why = whyTooLarge(request, grant, limits_); !why.empty())
        return refuse(request, *method, {Kind::tooLarge, std::move(why)});
    if (grant.where == Grant::Where::here) return answerHere(request, *method);
    // Certainly not done, which a connection that closes could not tell.
    if (ending_) return refuse(request, *method, {Kind::failed, "the data server is ending"});
    if (!writer_.queue(okv::Ref<okv::IncomingRequest>::retaining(&request), *method))
        refuse(request, *method, {Kind::failed, "too many changes are waiting"});
}

// In the last answer's memory, unless that was a large one. No method runs the loop; one that did
// would come here again, and must not write over the answer that is being made.
void Server::answerHere(okv::IncomingRequest& request, Method method) {
    const Speaker speaker{data_, admin_};
    if (std::exchange(isAnswering_, true)) return request.answer(speaker.carryOut(request, method));
    const auto rest = speaker.carryOut(request, method, answer_);
    request.answerFrom(answer_, rest);
    if (answer_.capacity() > kKeptAnswer) answer_ = std::string();
    isAnswering_ = false;
}

// Of those that are left out the number is told, also when no more follow.
void Server::noteRefusal(const okv::IncomingRequest& request) {
    const bool hadLeftOut = refusals_.hasLeftOut();
    refusals_.note(request.caller(), request.selector(), secondsSince(start_));
    if (hadLeftOut || !refusals_.hasLeftOut()) return;
    const auto delay = std::chrono::duration<double>(RefusalLog::kWindow);
    loop_->performAfter(std::chrono::duration_cast<SteadyClock::duration>(delay),
                        [this] { refusals_.tellLeftOut(); });
}

void Server::refuse(okv::IncomingRequest& request, Method method, okv::Refusal refusal) {
    request.answer(refusalReply(method, refusal));
}

// The view first: whoever is answered reads what he wrote.
void Server::take(const std::shared_ptr<Batch>& batch) {
    for (auto& step : batch->steps) view_.apply(step);
    for (auto& answer : batch->answers) {
        if (answer.isDenied) noteRefusal(*answer.request);
        if (answer.request)
            answer.request->answer(std::move(answer.frame));
        else
            reloaded(answer.frame);
        answer.request = nullptr;
    }
    for (auto& change : batch->told) poster_.post({std::move(change), view_.epoch()});
    if (std::any_of(batch->steps.begin(), batch->steps.end(), leavesMuch)) writer_.takeApart(batch);
}

void Server::reloaded(const std::string& failure) {
    if (!failure.empty())
        log_("the store could not be read again, what was read before is kept: " + failure);
    if (surroundings_.reloaded) surroundings_.reloaded(failure);
}

bool Server::isWell() {
    const bool stuck = writer_.busyFor() > limits_.writerStuckAfter;
    if (stuck && !stuck_) log_("the writer does not get on: this server is not well");
    stuck_ = stuck;
    return !stuck;
}

void Server::run() {
    loop_->run();
}

void Server::end() {
    if (ending_) return;
    ending_ = true;
    state_.ending = true;
    if (surroundings_.ending) surroundings_.ending();
    if (publication_) publication_->stopAccepting();
    writer_.finish();
}

void Server::closeWhenFlushed() {
    if (flushUntil_ == SteadyClock::time_point()) flushUntil_ = SteadyClock::now() + kFlushWithin;
    if (publication_ && !publication_->isFlushed() && SteadyClock::now() < flushUntil_) {
        loop_->performAfter(kFlushAgain, [this] { closeWhenFlushed(); });
        return;
    }
    if (publication_) publication_->invalidate();
    loop_->stop();
}

okv::Dictionary Server::use() const {
    okv::Dictionary use{{"queued_bytes", writer_.waitingBytes()}};
    if (!publication_) return use;
    const auto taken = publication_->use();
    use.set("connections", taken.connections);
    use.set("connections_per_uid", taken.ofOneUid);
    use.set("ungreeted", taken.ungreeted);
    use.set("output_bytes", taken.queuedOutput);
    use.set("pending_requests", taken.pendingRequests);
    return use;
}

okv::Dictionary Server::status() const {
    okv::Dictionary status{
        {"version", OKV_VERSION},         {"pid", getpid()},
        {"uptime", secondsSince(start_)}, {"waiting", writer_.waiting()},
        {"refused", refusals_.count()},   {"self_service", rights_.hasSelfService()},
        {"log_level", okv::logLevel()},   {"use", use()}};
    if (surroundings_.backups) status.set("backup", surroundings_.backups());
    return status;
}

}  // namespace datacenter
