#include <OKVPlatform/ipc/ServedConnection.h>

#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace okv {

namespace {

// A connection of which the kernel tells nothing would never be served.
constexpr char kNoRoomInServer[] = "the server has no room to watch one more connection";
// What a connection without anything to be sent waits for. Edge-triggered: level-triggered, the
// kernel looks at the socket once more for every request, to see that there is nothing left.
constexpr std::uint32_t kCalm = EPOLLIN | EPOLLRDHUP | EPOLLET;
// Asked of the system for what a peer has not read yet: an answer of some hundred kilobytes goes
// out at once then, instead of in two pieces with a wait between them.
constexpr int kSendBuffer = 384 * 1024;
constexpr std::uint32_t kGone = EPOLLHUP | EPOLLRDHUP | EPOLLERR;

std::string encodeServerHello(bool hasRoot) {
    std::string frame;
    beginFrame(frame, FrameKind::hello);
    CborWriter writer(frame);
    writer.integer(kWireVersion);
    writer.boolean(hasRoot);
    finishFrame(frame, 0, 0);
    return frame;
}

}  // namespace

ServedConnection::ServedConnection(Publication& publication, PrivateDescriptor socket,
                                   PeerIdentity peer)
    : publication_(&publication),
      loop_(publication.loop_),
      socket_(std::move(socket)),
      peer_(std::move(peer)),
      bytes_(publication.options_.maxRequestBytesOf ? publication.options_.maxRequestBytesOf(peer_)
                                                    : publication.options_.maxRequestBytes) {}

const PublicationOptions& ServedConnection::options() const noexcept {
    return publication_->options_;
}

// The greeting has mostly come along with the connection: reading at once spares the timer and
// keeps those who greet apart from those who do not.
void ServedConnection::start() {
    if (publication_ == nullptr) return;  // who was told of it has closed it
    (void)setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    events_ = kCalm;
    source_ = loop_->watch(
        socket_.get(), kCalm, [this](std::uint32_t events) { serve(events); }, this);
    if (source_ == 0) return end(kNoRoomInServer);
    if (readOnce() && publication_ != nullptr) rearm();
    if (publication_ == nullptr || greeted_) return;
    greeting_ = loop_->performAfter(
        options().greetWithin, [this] { end("no greeting in time"); }, this);
}

void ServedConnection::serve(std::uint32_t events) {
    if (publication_ != nullptr && (events & EPOLLOUT) != 0) flush();
    if (publication_ == nullptr) return;
    if (taking_ == Taking::nextTurn) return;  // first what was read already
    if ((events & EPOLLIN) != 0 && mayRead()) {
        const bool mayHaveMore = readOnce();
        if (publication_ != nullptr && (mayHaveMore || (events & kGone) != 0)) rearm();
        return;
    }
    // Gone, and nothing left to read: answers that wait for it are in vain.
    if ((events & kGone) != 0) end();
}

// Once a turn: a client that sends without pause does not keep the others waiting. Answers whether
// there may be more to read.
bool ServedConnection::readOnce() {
    std::span<char> room;
    try {
        room = bytes_.room();
    } catch (const std::bad_alloc&) {
        end("no memory for so large a request");
        return false;
    }
    const auto count = recv(socket_.get(), room.data(), room.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return errno == EINTR;
    if (count <= 0) {
        end();
        return false;
    }
    bytes_.added(static_cast<std::size_t>(count));
    const bool isFull = static_cast<std::size_t>(count) == room.size();
    takeFrames();
    return isFull || !bytes_.empty();  // the rest of a frame may be there already
}

// Whoever comes here holds a reference to the connection: the run loop, who accepts it, or a
// request.
void ServedConnection::takeFrames() {
    // A request that is answered at once may make room and come here again: the loop below goes on
    // by itself, and a burst of requests must not nest.
    if (taking_ != Taking::no) return;
    taking_ = Taking::now;
    bool goesOn = false;
    try {
        goesOn = takeNextFrame();
    } catch (const std::exception& error) {
        end(error.what());
    }
    taking_ = Taking::no;
    if (publication_ == nullptr) return;
    if (goesOn) return takeMoreNextTurn();
    bytes_.trim();
    updateEvents();
}

// One in a turn: a client with many requests at once keeps the others waiting for one of them.
// Answers whether there may be more.
bool ServedConnection::takeNextFrame() {
    if (!mayRead()) return false;
    const auto frame = bytes_.next();
    if (!frame) return false;
    takeFrame(*frame);
    return mayRead() && !bytes_.empty();
}

// A client that always has more to ask keeps this thread busy for good. Who waits for its core, the
// server's other threads and the clients that it answered, has his turn first.
void ServedConnection::takeMoreNextTurn() {
    taking_ = Taking::nextTurn;
    loop_->perform(
        [this] {
            sched_yield();
            taking_ = Taking::no;
            takeFrames();
            // What came meanwhile was told of, and passed over.
            if (publication_ != nullptr && taking_ == Taking::no) rearm();
        },
        this);
}

void ServedConnection::takeFrame(const Frame& frame) {
    if (frame.kind == FrameKind::hello && !greeted_) return takeHello(frame);
    if (!greeted_) return end("greet first");
    if (frame.kind == FrameKind::request) return handle(frame);
    // Replies to what was posted, without waiting for them, are dropped.
    if (frame.kind != FrameKind::reply && frame.kind != FrameKind::failure)
        end("a frame that has no place here");
}

void ServedConnection::takeHello(const Frame& frame) {
    CborReader reader(frame.payload);
    const auto version = reader.integer();
    // What stands behind its version is that version's matter.
    if (version == kWireVersion) reader.expectEnd();
    sendNow(encodeServerHello(publication_->root_.handler != nullptr));
    if (version != kWireVersion)
        return end("this server speaks version " + std::to_string(kWireVersion) + " of the wire");
    if (publication_ == nullptr) return;
    greeted_ = true;
    loop_->cancel(greeting_);
    publication_->greeted(*this);
}

void ServedConnection::handle(const Frame& frame) {
    ++pending_;
    auto request = take(frame);
    const auto root = publication_->root_;  // held: the method may end the publication
    if (request->object() == kRootObject && root.handler != nullptr)
        root.handler(root.target, *request);
    else
        request->fail("no such object");
    // One that somebody keeps, to answer it later, is his alone from now on.
    if (request->clear()) over_ = std::move(request);
}

// Most requests are over when their handler returns: the next one is made of what they were.
Ref<IncomingRequest> ServedConnection::take(const Frame& frame) {
    auto port = Ref<MessagePort>::retaining(this);
    if (!over_) return make<IncomingRequest>(std::move(port), frame.serial, frame.payload);
    auto request = std::move(over_);
    request->renew(std::move(port), frame.serial, frame.payload);
    return request;
}

void ServedConnection::callAndRead(std::string&, ReplyReader&) {
    throw ConnectionError(ConnectionError::Kind::notSent,
                          "a server posts to its clients and waits for none");
}

void ServedConnection::post(std::string frame) {
    if (loop_->isCurrent()) {
        setFrameSerial(frame, ++lastSerial_);
        return sendNow(frame);
    }
    // What waits for a loop that does not run any more would keep itself: it is the connection's,
    // and goes with its end.
    const auto self = Ref<ServedConnection>::retaining(this);
    if (ended_.load(std::memory_order_acquire)) return;
    loop_->perform([self, held = std::move(frame)]() mutable { self->post(std::move(held)); },
                   this);
}

void ServedConnection::sendAnswer(std::string frame) {
    sendAnswerFrom(frame, {});
}

void ServedConnection::sendAnswerFrom(std::string& frame, std::string_view rest) {
    if (loop_->isCurrent()) return answerNow(frame, rest);
    const auto self = Ref<ServedConnection>::retaining(this);
    if (ended_.load(std::memory_order_acquire)) return;
    frame.append(rest);
    loop_->perform([self, held = std::move(frame)] { self->answerNow(held, {}); }, this);
}

void ServedConnection::answerNow(std::string_view frame, std::string_view rest) {
    const bool wasFull = !mayRead();
    --pending_;
    sendNow(frame, rest);
    // Requests that had already been read wait in the buffer, and no descriptor will tell of them.
    if (wasFull && publication_ != nullptr && mayRead()) takeFrames();
}

namespace {

ssize_t sendBoth(int socket, std::string_view frame, std::string_view rest) {
    constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
    if (rest.empty()) return ::send(socket, frame.data(), frame.size(), flags);
    iovec pieces[] = {{const_cast<char*>(frame.data()), frame.size()},
                      {const_cast<char*>(rest.data()), rest.size()}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = std::size(pieces);
    return sendmsg(socket, &message, flags);
}

}  // namespace

void ServedConnection::sendNow(std::string_view frame, std::string_view rest) {
    if (publication_ == nullptr) return;
    if (out_.empty()) {
        const auto count = sendBoth(socket_.get(), frame, rest);
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            // The frame is lost, and whoever waits for it must not do so for ever: the end is seen
            // by reading.
            shutdown(socket_.get(), SHUT_RDWR);
            return;
        }
        const auto sent = count > 0 ? static_cast<std::size_t>(count) : 0;
        if (sent == frame.size() + rest.size()) return;
        rest.remove_prefix(sent - std::min(sent, frame.size()));
        frame.remove_prefix(std::min(sent, frame.size()));
    }
    out_.append(frame).append(rest);
    updateEvents();
}

void ServedConnection::flush() {
    const bool wasFull = !mayRead();
    const auto count = ::send(socket_.get(), &out_[outFront_], out_.size() - outFront_,
                              MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN && errno != EINTR) return end();
    if (count > 0) outFront_ += static_cast<std::size_t>(count);
    giveUpSent();
    if (wasFull && mayRead()) return takeFrames();
    updateEvents();
}

// What has gone out is given up as soon as it is the larger part, and its memory once it is most of
// it: a client that always leaves a little unread must not make the queue remember everything that
// it was ever sent, nor keep the room of the largest answer.
void ServedConnection::giveUpSent() {
    if (outFront_ < out_.size() - outFront_) return;
    out_.erase(0, outFront_);
    outFront_ = 0;
    if (out_.size() < out_.capacity() / 4) out_.shrink_to_fit();
}

bool ServedConnection::mayRead() const noexcept {
    return publication_ != nullptr && pending_ < options().maxPendingRequests &&
           queuedOutput() <= options().maxQueuedOutput;
}

void ServedConnection::rearm() {
    if (!loop_->rearm(source_)) end(kNoRoomInServer);
}

void ServedConnection::updateEvents() {
    const bool isCalm = mayRead() && out_.empty();
    const auto busy = (mayRead() ? std::uint32_t{EPOLLIN} : std::uint32_t{EPOLLRDHUP}) |
                      (out_.empty() ? 0U : std::uint32_t{EPOLLOUT});
    const auto wanted = isCalm ? kCalm : busy;
    if (publication_ == nullptr || wanted == events_) return;
    events_ = wanted;
    // Half an answer may be out already, so there is nothing more to say.
    if (!loop_->rewatch(source_, wanted)) end();
}

void ServedConnection::end(const std::string& farewell) {
    if (publication_ == nullptr) return;
    const auto self = Ref<ServedConnection>::retaining(this);
    if (!farewell.empty()) sendNow(encodeReason(FrameKind::farewell, 0, farewell));
    if (publication_ == nullptr) return;  // that it could not be sent has ended it
    const auto publication = Ref<Publication>::retaining(publication_);
    publication_ = nullptr;
    ended_.store(true, std::memory_order_release);
    loop_->forget(this);
    publication->remove(*this);
    socket_.close();
}

}  // namespace okv
