#pragma once

#include "Server.h"
#include "Store.h"

#include "support/Files.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// The server's end of a connection that is none: says who asks, keeps what is sent.
class RecordingPort final : public okv::MessagePort {
public:
    explicit RecordingPort(okv::PeerIdentity peer) : peer_(std::move(peer)) {}

    void callAndRead(std::string&, okv::ReplyReader&) override {
        throw std::logic_error("nobody is called here");
    }
    void post(std::string frame) override { posted.push_back(std::move(frame)); }
    void sendAnswer(std::string frame) override { answers.push_back(std::move(frame)); }
    const okv::PeerIdentity& peer() const noexcept override { return peer_; }
    void lend(std::uint64_t) override {}

    std::vector<std::string> posted;
    std::vector<std::string> answers;

private:
    okv::PeerIdentity peer_;
};

/// Keeps the notices.
class RecordingPoster final : public datacenter::NoticePoster {
public:
    void post(datacenter::Told told) override;

    /// Waits until there were so many; fails the test when they do not come.
    std::vector<okv::Dictionary> take(std::size_t count);

    std::function<void()> posting;  ///< called before each, on the server's thread

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<okv::Dictionary> notices_;
};

/// Keeps a thread where it passes, once it was told to hold.
class Turnstile {
public:
    void hold();
    /// Waits until a thread is held; fails the test when none comes.
    void awaitHeld();
    void letGo();

    /// Stays until `letGo` when it is to be held.
    void pass();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool holding_ = false;
    bool held_ = false;
};

inline okv::PeerIdentity account(uid_t uid, std::vector<gid_t> groups = {}) {
    return {1234, uid, static_cast<gid_t>(uid), std::move(groups)};
}

/// The request that a client's `send` would make.
template <auto Method, class... Arguments>
okv::Ref<okv::IncomingRequest> requestFor(const okv::Ref<RecordingPort>& port,
                                          const Arguments&... arguments) {
    const auto remote = okv::make<okv::RemoteObject>(port, okv::kRootObject);
    std::string frame;
    okv::detail::encode<Method>(frame, *remote, arguments...);
    return okv::make<okv::IncomingRequest>(port, 1U, frame.substr(okv::kFrameHeaderSize));
}

/// What stands in a reply frame. Throws when it is none.
template <auto Method>
auto answerIn(const std::string& frame) {
    using R = typename okv::detail::MethodTraits<Method>::Result;
    using Held = std::conditional_t<std::is_void_v<R>, okv::Value, R>;
    if (frame.at(4) != static_cast<char>(okv::FrameKind::reply))
        throw std::runtime_error("no reply: " + frame.substr(okv::kFrameHeaderSize));
    okv::CborReader reader(std::string_view(frame).substr(okv::kFrameHeaderSize));
    auto value = okv::detail::readResult<Held>(reader);
    return okv::Answer<Held>{std::move(value), okv::readRefusal(reader)};
}

/// A whole server without a socket: requests go straight to its handler, from whatever account.
class Harness {
public:
    static constexpr uid_t kServerUid = 4000;
    static constexpr gid_t kAdminGroup = 4001;

    struct Options {
        datacenter::Limits limits;
        bool selfService = false;
    };
    Harness() : Harness(Options()) {}
    explicit Harness(Options options);
    ~Harness();

    /// Ends the server as a signal does, and starts one on the same store.
    void restart();
    void restart(const datacenter::Limits& limits);
    void stop();
    void start();

    /// Sends as root.
    template <auto Method, class... Arguments>
    auto ask(const Arguments&... arguments) {
        return askAs<Method>(account(0), arguments...).value;
    }
    template <auto Method, class... Arguments>
    auto askAs(const okv::PeerIdentity& who, const Arguments&... arguments) {
        const auto port = okv::make<RecordingPort>(who);
        send<Method>(port, arguments...);
        return answerIn<Method>(awaitAnswer(*port));
    }
    template <auto Method, class... Arguments>
    void send(const okv::Ref<RecordingPort>& port, const Arguments&... arguments) {
        server->handle(*requestFor<Method>(port, arguments...));
    }
    /// Serves until the port was answered so often; gives the last answer.
    std::string awaitAnswer(RecordingPort& port, std::size_t count = 1);

    std::string storeFile() const { return folder_ / "store.db"; }

    /// Has the writer at work, on a reload, until `letWriterGo`.
    void holdWriter();
    void letWriterGo() { turnstile_.letGo(); }

    RecordingPoster poster;
    std::atomic<double> now = 1000000;
    std::vector<std::string> log;                       ///< lines of the server's own thread
    std::optional<gid_t> administrators = kAdminGroup;  ///< as a reload finds them
    std::function<void(const std::string& failure)> reloaded;
    std::optional<datacenter::Store> store;
    std::optional<datacenter::Server> server;

private:
    const okv::Ref<okv::RunLoop> loop_ = okv::RunLoop::current();
    Options options_;
    Turnstile turnstile_;
    support::TempFolder folder_;
};

inline const okv::Value kNull = okv::Null{};

using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;
