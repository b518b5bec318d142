#pragma once

#include "Require.h"
#include "Same.h"

#include "Server.h"
#include "Store.h"
#include "Transfer.h"

#include "support/Files.h"

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A data server on a store of its own, and who asks it.
namespace fuzz {

inline constexpr uid_t kServerUid = 4000;
inline constexpr gid_t kAdminGroup = 4001;
inline constexpr uid_t kAccount = 1000;
inline constexpr double kNow = 1000000;

// Small ones, so that a few requests reach them.
inline datacenter::Limits narrowLimits() {
    datacenter::Limits limits;
    limits.requestBytes = 4096;
    limits.importBytes = 8192;
    limits.replyBytes = 4096;
    limits.keyBytes = 30;
    limits.valueBytes = 200;
    limits.listBytes = 300;
    limits.scopeKeys = 5;
    limits.scopeBytes = 1000;
    limits.users = 4;
    limits.accounts = 4;
    limits.locks = 3;
    limits.processes = 3;
    limits.processBytes = 300;
    limits.changesKept = 8;
    limits.keysTold = 2;
    limits.keyBytesTold = 60;
    return limits;
}

/// Keeps what the server sends.
class Port final : public okv::MessagePort {
public:
    explicit Port(okv::PeerIdentity peer) : peer_(std::move(peer)) {}

    void callAndRead(std::string&, okv::ReplyReader&) override { std::abort(); }
    void post(std::string) override {}
    void sendAnswer(std::string frame) override { answers.push_back(std::move(frame)); }
    const okv::PeerIdentity& peer() const noexcept override { return peer_; }
    void lend(std::uint64_t) override {}

    std::vector<std::string> answers;

private:
    const okv::PeerIdentity peer_;
};

/// Looks at the notices: each tells of a later state than the one before.
class Poster final : public datacenter::NoticePoster {
public:
    void post(datacenter::Told told) override {
        const auto notice = datacenter::noticeFor(told);
        const auto revision = notice["revision"].longLongValue();
        require(notice.contains("osuserid") && notice.contains("session_userid"));
        require(revision >= last_.exchange(revision));
    }

private:
    std::atomic<std::int64_t> last_{0};
};

/// The server and its store, made once; every input begins with an empty store.
class Center {
public:
    Center() { start(); }
    Center(const Center&) = delete;
    Center& operator=(const Center&) = delete;
    ~Center() { stop(); }

    void restart() {
        const auto before = datacenter::exportOf(view());
        stop();
        start();
        require(same(before, datacenter::exportOf(view())));
    }
    const datacenter::View& view() const { return server_->view(); }
    void handle(okv::IncomingRequest& request) { server_->handle(request); }
    void awaitAnswers(const Port& port, std::size_t count) const {
        while (port.answers.size() < count) {
            pollfd entry{loop_->fd(), POLLIN, 0};
            const int ready = poll(&entry, 1, 10000);
            require(ready > 0 || (ready < 0 && errno == EINTR));
            loop_->dispatch();
        }
    }
    /// Only while nothing is waiting for an answer: the store is the writer's then.
    std::shared_ptr<datacenter::View> stored() { return store_->load(); }

private:
    void start() {
        store_.emplace(folder_ / "store", narrowLimits());
        server_.emplace(*store_, datacenter::Rights({true, kServerUid, kAdminGroup}),
                        datacenter::Server::Surroundings{poster_, [](const std::string&) {},
                                                         [] { return kNow; }});
    }
    void stop() {
        server_->end();
        server_->run();
        server_.reset();
        store_.reset();
    }

    const okv::Ref<okv::RunLoop> loop_ = okv::RunLoop::current();
    const support::TempFolder folder_{"/dev/shm"};
    Poster poster_;
    std::optional<datacenter::Store> store_;
    std::optional<datacenter::Server> server_;
};

inline okv::PeerIdentity peerFrom(std::size_t choice) {
    switch (choice % 5) {
        case 0:
            return {1, 0, 0, {}};
        case 1:
            return {1, kServerUid, kServerUid, {}};
        case 2:
            return {1, kAccount, kAccount, {kAdminGroup}};
        case 3:
            return {1, kAccount, kAccount, {}};
        default:
            return {1, okv::kOverflowUid, okv::kOverflowUid, {kAdminGroup}};
    }
}

}  // namespace fuzz
