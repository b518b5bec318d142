#include "Server.h"

#include <sys/resource.h>
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

// Kept from the clients, for the store, the notices and what else the server opens.
constexpr std::size_t kOwnDescriptors = 32;

std::size_t descriptorsForClients() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
    return limit.rlim_cur > kOwnDescriptors ? limit.rlim_cur - kOwnDescriptors : 1;
}

double secondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

}  // namespace

Server::Server(Store& store, Rights rights, Surroundings surroundings)
    : loop_(okv::RunLoop::current()),
      limits_(store.limits()),
      rights_(rights),
      poster_(surroundings.poster),
      log_(std::move(surroundings.log)),
      refusals_(log_),
      view_(std::move(*store.load())),
      writer_(store, rights_, surroundings.now, surroundings.poster, handlers()) {
    state_.now = std::move(surroundings.now);
    state_.end = [this] { loop_->perform([this] { end(); }); };
    state_.status = [this] { return status(); };
}

Server::~Server() {
    if (publication_) publication_->invalidate();
}

Writer::Handlers Server::handlers() {
    return {[this](std::shared_ptr<Batch> batch) {
                loop_->perform([this, held = std::move(batch)] { take(held); });
            },
            [this] { loop_->perform([this] { closeWhenFlushed(); }); }, log_};
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
    options.maxConnections = std::min(options.maxConnections, descriptorsForClients());
    options.maxConnectionsPerUid = limits_.connectionsPerUid;
    options.keptForOwn = std::min(limits_.keptConnections, options.maxConnections / 2);
    options.disconnected = [this](okv::MessagePort& port) { state_.clients.remove(port); };
    return options;
}

bool Server::publish(std::string& why) {
    return started(okv::Publication::publish(kOKVDataServerName, root(), options(), why));
}

bool Server::adopt(int listener, std::string& why) {
    return started(okv::Publication::adopt(listener, root(), options(), why));
}

bool Server::started(okv::Ref<okv::Publication> publication) {
    publication_ = std::move(publication);
    if (!publication_) return false;
    // Before anything is served: the writer has nothing to post yet.
    Change nothing;
    nothing.revision = view_.revision();
    poster_.post(kSettingsNotice, noticeFor(nothing, view_.epoch()));
    return true;
}

void Server::handle(okv::IncomingRequest& request) {
    const auto method = findMethod(request.selector());
    if (!method) return request.fail("unknown selector");
    if (!rights_.allows(request.caller(), *method)) {
        refusals_.note(request.caller(), request.selector(), secondsSince(start_));
        return refuse(request, *method, {Kind::notAllowed, "the caller has no right to do this"});
    }
    const auto grant = grantFor(*method);
    if (request.size() > (grant.isImport ? limits_.importBytes : limits_.requestBytes))
        return refuse(request, *method, {Kind::tooLarge, "the request is too large"});
    if (grant.where == Grant::Where::here)
        return request.answer(Speaker{data_, admin_}.carryOut(request, *method));
    if (!writer_.queue(okv::Ref<okv::IncomingRequest>::retaining(&request), *method))
        refuse(request, *method, {Kind::failed, "too many changes are waiting"});
}

void Server::refuse(okv::IncomingRequest& request, Method method, okv::Refusal refusal) {
    request.answer(refusalReply(method, refusal));
}

// The view first: whoever is answered reads what he wrote.
void Server::take(const std::shared_ptr<Batch>& batch) {
    for (const auto& step : batch->steps) view_.apply(step);
    for (auto& answer : batch->answers) {
        if (answer.request) answer.request->answer(std::move(answer.frame));
        answer.request = nullptr;
    }
    writer_.acknowledge(batch);
}

void Server::run() {
    loop_->run();
}

void Server::end() {
    if (ending_) return;
    ending_ = true;
    state_.ending = true;
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

okv::Dictionary Server::status() const {
    return {{"version", OKV_VERSION},         {"pid", getpid()},
            {"uptime", secondsSince(start_)}, {"waiting", writer_.waiting()},
            {"refused", refusals_.count()},   {"self_service", rights_.hasSelfService()}};
}

}  // namespace datacenter
