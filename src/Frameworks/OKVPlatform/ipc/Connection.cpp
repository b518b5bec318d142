#include <OKVPlatform/ipc/ConnectionParts.h>

#include <OKVPlatform/ipc/NotificationCenter.h>
#include <OKVPlatform/ipc/RegisteredName.h>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <thread>
#include <utility>

namespace okv {

namespace {

using Kind = ConnectionError::Kind;

// How long a writer that has to wait may overlook that nobody reads any more.
constexpr int kLookAgainMilliseconds = 10;
constexpr char kInherited[] = "the connection belongs to the parent process";

std::optional<RunLoop::Clock::time_point> deadlineAfter(double seconds) {
    constexpr double longest = 1e9;  // beyond that, and for a NaN, there is none
    if (!(seconds > 0) || seconds > longest) return std::nullopt;
    return RunLoop::Clock::now() + std::chrono::duration_cast<RunLoop::Clock::duration>(
                                       std::chrono::duration<double>(seconds));
}

}  // namespace

Connection::Connection(PrivateDescriptor socket, PeerIdentity peer)
    : socket_(std::move(socket)), peer_(std::move(peer)), loop_(RunLoop::current()) {}

Ref<Connection> Connection::connectionWithRegisteredName(std::string_view name,
                                                         std::optional<std::string_view> host,
                                                         std::string* why) {
    if (host) {
        if (why != nullptr) *why = "only this machine's names can be looked up";
        return nullptr;
    }
    auto connected = connectToName(name);
    if (why != nullptr) *why = connected.why;
    if (!connected.socket.isValid()) return nullptr;
    auto connection = connectionWithSocket(std::move(connected.socket), std::move(connected.peer));
    if (!connection && why != nullptr) *why = kUnwatched;
    return connection;
}

Ref<Connection> Connection::connectionWithSocket(PrivateDescriptor socket, PeerIdentity peer) {
    if (!RunLoop::currentIfPossible()) return nullptr;
    auto connection = make<Connection>(std::move(socket), std::move(peer));
    return connection->start() ? connection : nullptr;
}

bool Connection::start() {
    armed_ = loop_->isEngaged();
    source_ = loop_->watch(
        socket_.get(), armed_ ? std::uint32_t{EPOLLIN} : 0U, [this](std::uint32_t) { serve(); },
        this);
    if (source_ == 0) return false;
    // Before the loop is first run nobody waits on it, and what nobody waits for costs every call a
    // wake-up in the kernel.
    if (!armed_) loop_->perform([this] { armForLoop(); }, this);
    bytes_.keepForLikeFrames();
    write(encodeHello(), std::nullopt);
    return true;
}

void Connection::dealloc() {
    if (socket_.isValid()) loop_->forget(this);
    socket_.close();
}

bool Connection::isValid() const noexcept {
    if (!socket_.isValid() || ended_.load(std::memory_order_acquire)) return false;
    pollfd entry{socket_.get(), POLLRDHUP, 0};
    return poll(&entry, 1, 0) <= 0 ||
           (entry.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) == 0;
}

void Connection::invalidate() {
    if (!socket_.isValid()) return;
    const auto self = Ref<Connection>::retaining(this);
    {
        const Lock lock(mutex_);
        end(Kind::outcomeUnknown, "the connection was invalidated", false);
    }
    postNoticeIfDue();
}

// ---- Calls ----

void Connection::throwIfEnded() const {
    if (reason_)
        throw ConnectionError(reason_->kind == Kind::badData ? Kind::badData : Kind::notSent,
                              reason_->why);
}

void Connection::link(PendingCall& pending, bool numbered) {
    if (!socket_.isValid()) throw ConnectionError(Kind::notSent, kInherited);
    pending.onLoopThread = loop_->isCurrent();
    const Lock lock(mutex_);
    throwIfEnded();
    if (numbered && ++lastSerial_ == 0) ++lastSerial_;
    if (numbered) pending.serial = lastSerial_;
    pending_.push_back(&pending);
    pending.isLinked = true;
    if (!leading_) lead(pending);
}

// A call that is linked only as long as it lasts, however it ends: without memory, too.
struct Connection::Linked {
    Linked(Connection& to, PendingCall& call, bool numbered) : connection(to), pending(call) {
        connection.link(pending, numbered);
    }
    Linked(const Linked&) = delete;
    Linked& operator=(const Linked&) = delete;
    ~Linked() {
        if (pending.isLinked) connection.unlink(pending);
    }
    Connection& connection;
    PendingCall& pending;
};

void Connection::callAndRead(std::string& frame, ReplyReader& reader) {
    const auto self =
        Ref<Connection>::retaining(this);  // an observer of the end may drop the last reference
    PendingCall pending;
    pending.reader = &reader;
    const Linked linked(*this, pending, true);
    setFrameSerial(frame, pending.serial);
    const auto written = write(frame, deadlineAfter(requestTimeout_));
    if (written == Written::timedOut) {
        unlink(pending);
        postNoticeIfDue();
        throw ConnectionError(Kind::timedOut, "the peer took no request in the time that was set");
    }
    await(pending, deadlineAfter(replyTimeout_));
    conclude(pending, written);
}

void Connection::conclude(PendingCall& pending, Written written) {
    if (ended_.load(std::memory_order_acquire)) postNoticeIfDue();
    switch (pending.state) {
        case PendingCall::State::read:
            return;
        case PendingCall::State::answered:
            return pending.reader->read(pending.payload);
        case PendingCall::State::unreadable:
            std::rethrow_exception(pending.unreadable);
        case PendingCall::State::waiting:
            throw ConnectionError(Kind::timedOut, "no answer in the time that was set");
        case PendingCall::State::failed:
            throwFailed(written);
        case PendingCall::State::notUnderstood:
            break;
    }
    try {
        throw ConnectionError(Kind::notUnderstood,
                              "the peer does not understand: " + readReason(pending.payload));
    } catch (const CborError& error) {
        throw ConnectionError(Kind::badData, error.what());
    }
}

void Connection::throwFailed(Written written) {
    const Lock lock(mutex_);
    if (reason_->kind == Kind::badData) throw ConnectionError(Kind::badData, reason_->why);
    const auto kind = written == Written::all ? Kind::outcomeUnknown : Kind::notSent;
    throw ConnectionError(kind, farewell_.empty() ? reason_->why : farewell_);
}

// A frame that went out in part cannot be taken back: the connection is done for then.
Connection::Written Connection::write(std::string_view bytes, Deadline deadline) {
    const std::lock_guard lock(writeMutex_);
    bool begun = false;
    while (!bytes.empty()) {
        const auto count =
            ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            begun = true;
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            if (awaitRoom(deadline)) continue;
            if (begun) ::shutdown(socket_.get(), SHUT_RDWR);
            return Written::timedOut;
        } else if (errno != EINTR) {
            // Who reads now meets the end, behind all that the peer had sent.
            ::shutdown(socket_.get(), SHUT_RDWR);
            return Written::nothing;
        }
    }
    return Written::all;
}

// Waits until the socket takes more; answers whether it does. Where nobody reads meanwhile, this
// does: a peer whose answers are not taken may take no requests either, and both would wait for
// ever.
bool Connection::awaitRoom(Deadline deadline) {
    while (!deadline || RunLoop::Clock::now() < *deadline) {
        bool mayRead = false;
        {
            const Lock lock(mutex_);
            mayRead = !reading_ && !ended_;
        }
        pollfd entry{socket_.get(), static_cast<short>(POLLOUT | (mayRead ? POLLIN : 0)), 0};
        poll(&entry, 1, kLookAgainMilliseconds);  // who reads now may stop
        if ((entry.revents & ~POLLIN) != 0) return true;
        Lock lock(mutex_);
        if ((entry.revents & POLLIN) != 0 && !reading_ && !ended_)
            readOnce(lock, false, std::nullopt);
    }
    return false;
}

void Connection::await(PendingCall& pending, Deadline deadline) {
    Lock lock(mutex_);
    while (pending.state == PendingCall::State::waiting) {
        if (deadline && RunLoop::Clock::now() >= *deadline) break;
        if (pending.leads && reading_) {  // a writer, for a moment
            lock.unlock();
            std::this_thread::yield();
            lock.lock();
        } else if (pending.leads) {
            readOnce(lock, true, deadline);
        } else {
            sleep(pending, lock, deadline);
        }
    }
    forget(pending);
}

// Until the answer is there, or the lead falls to this call, or nothing of it.
void Connection::sleep(PendingCall& pending, Lock& lock, Deadline deadline) {
    std::condition_variable turn;
    pending.turn = &turn;
    if (deadline)
        turn.wait_until(lock, *deadline);
    else
        turn.wait(lock);
    pending.turn = nullptr;
}

void Connection::unlink(PendingCall& pending) {
    const Lock lock(mutex_);
    forget(pending);
}

// Lock held.
void Connection::forget(PendingCall& pending) {
    pending.isLinked = false;
    std::erase(pending_, &pending);
    if (std::exchange(pending.leads, false)) passLead();
}

void Connection::post(std::string frame) {
    if (!socket_.isValid()) throw ConnectionError(Kind::notSent, kInherited);
    const auto self = Ref<Connection>::retaining(this);
    {
        const Lock lock(mutex_);
        throwIfEnded();
        if (++lastSerial_ == 0) ++lastSerial_;
        setFrameSerial(frame, lastSerial_);
    }
    const auto written = write(frame, deadlineAfter(requestTimeout_));
    if (ended_.load(std::memory_order_acquire)) postNoticeIfDue();
    if (written != Written::all)
        throw ConnectionError(Kind::notSent, "the message could not be sent");
}

void Connection::sendAnswer(std::string frame) {
    if (!socket_.isValid()) return;
    const auto self = Ref<Connection>::retaining(this);
    write(frame, std::nullopt);
    if (ended_.load(std::memory_order_acquire)) postNoticeIfDue();
}

void Connection::lend(std::uint64_t object) {
    if (!socket_.isValid()) return;
    const Lock lock(mutex_);
    lent_.insert(object);
}

Ref<RemoteObject> Connection::rootProxy() {
    const auto self = Ref<Connection>::retaining(this);
    PendingCall pending;
    const Linked linked(*this, pending, false);
    {
        const Lock lock(mutex_);
        if (greeted_) pending.state = PendingCall::State::read;
    }
    await(pending, deadlineAfter(replyTimeout_));
    conclude(pending, Written::nothing);
    const Lock lock(mutex_);
    return hasRoot_ ? make<RemoteObject>(Ref<MessagePort>::retaining(this), kRootObject) : nullptr;
}

// ---- On the run loop's thread ----

// Passes the lead on however its reading ends. Lock held.
struct Connection::Leading {
    explicit Leading(Connection& led) : connection(led) {}
    Leading(const Leading&) = delete;
    Leading& operator=(const Leading&) = delete;
    ~Leading() { connection.passLead(); }
    Connection& connection;
};

void Connection::serve() {
    {
        Lock lock(mutex_);
        if (!leading_ && !reading_ && !ended_) {
            leading_ = true;
            const Leading self(*this);
            readOnce(lock, false, std::nullopt);
        }
    }
    serveQueued();
}

void Connection::armForLoop() {
    {
        const Lock lock(mutex_);
        if (!leading_ && !ended_) setArmed(true);
    }
    serveQueued();
}

void Connection::serveQueued() {
    while (serveNext()) {
    }
    postNoticeIfDue();
}

// Counts a request as served however its handler ends.
struct Connection::Served {
    explicit Served(Connection& served) : connection(served) {}
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;
    ~Served() {
        const Lock lock(connection.mutex_);
        --connection.serving_;
    }
    Connection& connection;
};

bool Connection::serveNext() {
    QueuedRequest next;
    {
        const Lock lock(mutex_);
        if (queue_.empty()) return false;
        next = std::move(queue_.front());
        queue_.pop_front();
        queuedBytes_ -= next.payload.size();
        ++serving_;
    }
    const Served served(*this);
    handle(std::move(next));
    return true;
}

void Connection::handle(QueuedRequest queued) {
    const auto serial = queued.serial;
    try {
        const auto request = make<IncomingRequest>(Ref<MessagePort>::retaining(this), queued.serial,
                                                   std::move(queued.payload));
        bool known = false;
        {
            const Lock lock(mutex_);
            known = lent_.contains(request->object());
        }
        const auto found = known ? ExportedObjects::find(request->object()) : std::nullopt;
        found ? found->handler(found->target, *request) : request->fail("no such object");
    } catch (const CborError& error) {
        sendAnswer(encodeReason(FrameKind::failure, serial, error.what()));
    }
}

// What the peer asked before it hung up comes first: while that waits or is being served, the run
// loop posts after it.
void Connection::postNoticeIfDue() {
    {
        const Lock lock(mutex_);
        if (!noticeOwed_ || !queue_.empty() || serving_ > 0) return;
        noticeOwed_ = false;
    }
    NotificationCenter::defaultCenter().post({NSConnectionDidDieNotification, this});
}

}  // namespace okv
