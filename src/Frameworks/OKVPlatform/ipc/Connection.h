#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/Message.h>
#include <OKVPlatform/ipc/PrivateDescriptor.h>
#include <OKVPlatform/ipc/RunLoop.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace okv {

/// A connection to whoever serves a registered name: the calling end.
///
///     auto connection = okv::Connection::connectionWithRegisteredName("jp.example.service");
///     if (!connection) return;                          // nobody serves the name
///     auto root = connection->rootProxy();              // null when the server vends no object
///     auto text = okv::send<&Greeter::greeting_to>(*root, 81, "world");
///
/// Life. It is connected when it is made. It ends once: because the peer hung up or sent what is no
/// protocol, because a write failed, or by `invalidate()`. Whoever notices marks it invalid, fails
/// every pending call at once, and posts NSConnectionDidDieNotification exactly once, on its own
/// thread; only where requests of the peer still wait for the run loop, they are served first and
/// the run loop posts. Nothing is sent again behind the caller's back. Releasing the last reference
/// closes silently. In a forked child it is invalid.
///
/// Threads. Any number of threads may call at once; one of the waiting callers reads for all, so
/// that a connected process needs no thread for it. Requests that the peer sends wait for the run
/// loop of the thread that made the connection. No time-out is set unless asked for.
///
/// Locks, in this order: `writeMutex_` around writes, `mutex_` (pending calls, leadership, queue,
/// end), the run loop's own. No callback runs under any of them, and one may drop the last
/// reference to its connection.
class OKV_EXPORT Connection final : public MessagePort {
public:
    /// Null when nobody serves the name or nobody that this process trusts, or for want of
    /// descriptors; `why`, where given, then tells the reason. `host` must be none: other machines
    /// are not looked at.
    static Ref<Connection> connectionWithRegisteredName(
        std::string_view name, std::optional<std::string_view> host = std::nullopt,
        std::string* why = nullptr);
    /// Takes over a connected socket and greets its peer. Null when the system has no room to watch
    /// it.
    static Ref<Connection> connectionWithSocket(PrivateDescriptor socket, PeerIdentity peer);

    /// The server's root object; null when it vends none. Waits for the server's greeting at the
    /// first call. Throws ConnectionError.
    Ref<RemoteObject> rootProxy();

    /// Whether the connection can still be used. Only looks: it sees a peer that hung up without
    /// any run loop, but ends and posts nothing.
    bool isValid() const noexcept;
    /// Ends the connection from this side; what the peer asked and nobody served yet is dropped.
    void invalidate();

    /// Seconds that sending a request may take from now on; no limit when not above 0. Any thread.
    void setRequestTimeout(double seconds) noexcept { requestTimeout_ = seconds; }
    /// As above, for waiting for a reply.
    void setReplyTimeout(double seconds) noexcept { replyTimeout_ = seconds; }

    /// Sends a request and waits until the reader has taken its reply. Throws ConnectionError. Any
    /// thread; on the run loop's own, requests of the peer are not served meanwhile.
    void callAndRead(std::string& frame, ReplyReader& reader) override;
    /// Sends a request whose reply is dropped. Throws ConnectionError when it was not sent.
    void post(std::string frame) override;
    /// Sends the answer to a request of the peer's; dropped when the connection has ended.
    void sendAnswer(std::string frame) override;
    /// The server, as the kernel recorded it.
    const PeerIdentity& peer() const noexcept override { return peer_; }
    /// Lets the peer address an exported object for as long as this connection lives.
    void lend(std::uint64_t object) override;

protected:
    void dealloc() override;

private:
    friend struct ConnectionInspector;  // the tests' view of the fields
    friend Ref<Connection> make<Connection>(PrivateDescriptor&&, PeerIdentity&&);
    using Deadline = std::optional<RunLoop::Clock::time_point>;
    using Lock = std::unique_lock<std::mutex>;
    struct PendingCall;
    struct Leading;
    struct Linked;
    struct Served;
    struct QueuedRequest {
        std::uint32_t serial;
        std::string payload;
    };
    struct End {
        ConnectionError::Kind kind;
        std::string why;
    };
    enum class Written { all, nothing, timedOut };

    Connection(PrivateDescriptor socket, PeerIdentity peer);
    bool start();

    // Calls
    void throwIfEnded() const;
    void link(PendingCall& pending, bool numbered);
    Written write(std::string_view bytes, Deadline deadline);
    bool awaitRoom(Deadline deadline);
    void await(PendingCall& pending, Deadline deadline);
    static void sleep(PendingCall& pending, Lock& lock, Deadline deadline);
    void unlink(PendingCall& pending);
    void forget(PendingCall& pending);
    [[noreturn]] void throwFailed(Written written);
    void conclude(PendingCall& pending, Written written);

    // Reading; lock held on entry and exit
    void lead(PendingCall& pending);
    void passLead();
    void setArmed(bool armed);
    void readOnce(Lock& lock, bool wait, Deadline deadline);
    void takeFrames();
    void takeFrame(const Frame& frame);
    void takeHello(const Frame& frame);
    void settle(const Frame& frame);
    void queue(const Frame& frame);
    void end(ConnectionError::Kind kind, std::string why, bool byPeer);

    // On the run loop's thread
    void serve();
    void armForLoop();
    void serveQueued();
    bool serveNext();
    void handle(QueuedRequest queued);
    void postNoticeIfDue();

    PrivateDescriptor socket_;
    const PeerIdentity peer_;
    const Ref<RunLoop> loop_;
    RunLoop::Id source_ = 0;
    std::atomic<double> requestTimeout_{0};
    std::atomic<double> replyTimeout_{0};
    std::atomic<bool> ended_{false};

    mutable std::mutex mutex_;
    std::vector<PendingCall*> pending_;
    std::uint32_t lastSerial_ = 0;
    bool leading_ = false;  // somebody reads: a pending call or, for a moment, the run loop
    bool reading_ = false;  // and is at the socket right now; or a writer that has to wait
    bool armed_ = false;    // the run loop waits on the socket
    bool greeted_ = false;
    bool hasRoot_ = false;
    bool noticeOwed_ = false;
    int serving_ = 0;
    std::optional<End> reason_;
    std::string farewell_;
    std::deque<QueuedRequest> queue_;
    std::size_t queuedBytes_ = 0;
    std::set<std::uint64_t> lent_;
    FrameBuffer bytes_;  // touched only by who set reading_

    std::mutex writeMutex_;
};

}  // namespace okv
