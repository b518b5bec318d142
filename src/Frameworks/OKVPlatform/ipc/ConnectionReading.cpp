#include <OKVPlatform/ipc/ConnectionParts.h>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

// Reading for all who wait, and the one place where a connection ends. The lock is held on entry
// and exit.
namespace okv {

namespace {

using Kind = ConnectionError::Kind;

// What a peer may ask of this process before its run loop serves it.
constexpr std::size_t kQueuedRequests = 1024;
constexpr std::size_t kQueuedBytes = 4U << 20;
// A rest of a frame that is worth waiting for as a whole.
constexpr std::size_t kSmallPiece = 16U << 10;
constexpr char kNoMemory[] = "no memory for what the peer sends";

}  // namespace

bool waitFor(int socket, short events, RunLoop::Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - RunLoop::Clock::now()).count();
        if (left <= 0) return false;
        pollfd entry{socket, events, 0};
        const int ready = poll(&entry, 1, static_cast<int>(std::min<std::int64_t>(left, 3600000)));
        if (ready > 0 || (ready < 0 && errno != EINTR)) return true;
    }
}

void Connection::lead(PendingCall& pending) {
    leading_ = true;
    pending.leads = true;
    // Another thread may sleep in the run loop: it must not wake up for bytes that this one reads.
    // Nor is it worth a change while the loop's own thread calls.
    if (!pending.onLoopThread) setArmed(false);
}

void Connection::setArmed(bool armed) {
    if (armed_ == armed) return;
    armed_ = armed;
    if (loop_->rewatch(source_, armed ? std::uint32_t{EPOLLIN} : 0U)) return;
    armed_ = false;
    end(Kind::outcomeUnknown, kUnwatched, true);
}

void Connection::passLead() {
    leading_ = false;
    if (ended_) return;
    if (pending_.empty()) return setArmed(loop_->isEngaged());
    auto& next = *pending_.front();
    lead(next);
    next.wake();
}

void Connection::readOnce(Lock& lock, bool wait, Deadline deadline) {
    reading_ = true;
    lock.unlock();
    std::span<char> room;
    try {
        room = bytes_.room();
    } catch (const std::bad_alloc&) {
        lock.lock();
        reading_ = false;
        return end(Kind::outcomeUnknown, kNoMemory, true);
    }
    // All of a large frame's rest at once, instead of waking up for every piece of it.
    const bool isWithin = wait && !deadline && bytes_.missing() >= kSmallPiece;
    if (isWithin) room = room.first(std::min(room.size(), bytes_.missing()));
    const int flags = isWithin ? MSG_WAITALL : wait ? 0 : MSG_DONTWAIT;
    const bool ready = !wait || !deadline || waitFor(socket_.get(), POLLIN, *deadline);
    const auto count = ready ? recv(socket_.get(), room.data(), room.size(), flags) : 0;
    const int error = errno;
    lock.lock();
    reading_ = false;
    if (reason_) return;  // invalidated meanwhile: what came is dropped like the rest
    if (!ready || (count < 0 && (error == EINTR || error == EAGAIN))) return;
    if (count <= 0) return end(Kind::outcomeUnknown, "the peer hung up", true);
    bytes_.added(static_cast<std::size_t>(count));
    takeFrames();
}

void Connection::takeFrames() {
    try {
        while (const auto frame = bytes_.next()) takeFrame(*frame);
    } catch (const std::bad_alloc&) {
        end(Kind::outcomeUnknown, kNoMemory, true);
    } catch (const std::exception& error) {
        end(Kind::badData, error.what(), true);
    }
}

void Connection::takeFrame(const Frame& frame) {
    if (frame.kind == FrameKind::farewell) {
        farewell_ = readReason(frame.payload);
    } else if (frame.kind == FrameKind::hello) {
        takeHello(frame);
    } else if (!greeted_) {
        throw FrameError("a peer that does not greet first");
    } else if (frame.kind == FrameKind::request) {
        queue(frame);
    } else {
        settle(frame);
    }
}

void Connection::takeHello(const Frame& frame) {
    if (greeted_) throw FrameError("a peer that greets again");
    CborReader reader(frame.payload);
    const auto version = reader.integer();
    if (version != kWireVersion)
        throw FrameError("a peer that speaks version " + std::to_string(version) + " of the wire");
    const bool hasRoot = reader.boolean();
    reader.expectEnd();
    hasRoot_ = hasRoot;
    greeted_ = true;
    for (auto* waiting : pending_) {
        if (waiting->serial != 0) continue;
        waiting->state = PendingCall::State::read;
        waiting->wake();
    }
}

// An answer that nobody waits for any more belongs to a call that timed out, or to a message that
// was posted.
void Connection::settle(const Frame& frame) {
    const auto at = std::find_if(pending_.begin(), pending_.end(), [&](const PendingCall* waiting) {
        return waiting->serial == frame.serial;
    });
    if (at == pending_.end() || frame.serial == 0) return;
    auto& settled = **at;
    if (frame.kind == FrameKind::reply && settled.leads) {
        settled.readInPlace(frame.payload);
    } else {  // others read their replies themselves, and do not hold the lock meanwhile
        settled.payload = frame.payload;
        settled.state = frame.kind == FrameKind::reply ? PendingCall::State::answered
                                                       : PendingCall::State::notUnderstood;
    }
    pending_.erase(at);
    settled.wake();
}

void Connection::PendingCall::readInPlace(std::string_view reply) noexcept {
    state = State::read;
    try {
        reader->read(reply);
    } catch (...) {
        unreadable = std::current_exception();
        state = State::unreadable;
    }
}

void Connection::queue(const Frame& frame) {
    queuedBytes_ += frame.payload.size();
    if (queue_.size() >= kQueuedRequests || queuedBytes_ > kQueuedBytes)
        throw FrameError("more requests than this process serves");
    queue_.push_back({frame.serial, std::string(frame.payload)});
    if (queue_.size() == 1) loop_->perform([this] { serveQueued(); }, this);
}

// The one place where a connection ends. Lock held; the caller posts the notice once it has given
// the lock back.
void Connection::end(Kind kind, std::string why, bool byPeer) {
    if (!byPeer) queue_.clear();  // also what the peer had asked before it hung up
    if (reason_) return;
    reason_ = End{kind, std::move(why)};
    ended_.store(true, std::memory_order_release);
    ::shutdown(socket_.get(), SHUT_RDWR);
    setArmed(false);
    for (auto* waiting : pending_) {
        waiting->state = PendingCall::State::failed;
        waiting->wake();
    }
    pending_.clear();
    noticeOwed_ = true;
}

}  // namespace okv
