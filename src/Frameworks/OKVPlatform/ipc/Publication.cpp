#include <OKVPlatform/ipc/Publication.h>

#include <OKVPlatform/ipc/ServedConnection.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace okv {

namespace {

// Without descriptors the next try comes when a connection ends, and in any case after this time.
constexpr std::chrono::milliseconds kAcceptAgain{100};
constexpr char kNoRoomForName[] = "the system has no room to watch the name's socket";

// Whoever only connects and goes away costs a fraction of a connection then: those that are served
// feel it less.
bool hasHungUp(int socket) {
    char byte = 0;
    return recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

bool hasRunLoop(std::string& why) {
    if (RunLoop::currentIfPossible()) return true;
    why = "the system has no room for this thread's run loop";
    return false;
}

}  // namespace

Publication::Publication(std::unique_ptr<PublishedName> name, RootObject root,
                         PublicationOptions options)
    : name_(std::move(name)),
      root_(std::move(root)),
      options_(std::move(options)),
      loop_(RunLoop::current()) {}

Ref<Publication> Publication::serving(std::unique_ptr<PublishedName> name, RootObject root,
                                      PublicationOptions options) {
    if (!name) return nullptr;
    auto publication = make<Publication>(std::move(name), std::move(root), std::move(options));
    auto* self = publication.get();
    publication->source_ = self->loop_->watch(
        self->name_->listener(), EPOLLIN, [self](std::uint32_t) { self->acceptOne(); }, self);
    return publication->source_ != 0 ? publication : nullptr;
}

Ref<Publication> Publication::publish(std::string_view name, RootObject root,
                                      PublicationOptions options, std::string& why) {
    // First: a name that cannot be served is not to be seen for a moment, nor to put another's file
    // away.
    if (!hasRunLoop(why)) return nullptr;
    auto published = PublishedName::publish(name, options.name, why);
    const bool isNamed = published != nullptr;
    auto publication = serving(std::move(published), std::move(root), std::move(options));
    if (isNamed && !publication) why = kNoRoomForName;
    return publication;
}

Ref<Publication> Publication::adopt(std::string_view name, int listener, RootObject root,
                                    PublicationOptions options, std::string& why) {
    auto adopted = PublishedName::adopt(name, listener, why);
    const bool isNamed = adopted != nullptr;
    if (isNamed && !hasRunLoop(why)) return nullptr;
    auto publication = serving(std::move(adopted), std::move(root), std::move(options));
    if (isNamed && !publication) why = kNoRoomForName;
    return publication;
}

// One in a turn, so that a storm of connections does not keep the connected waiting.
void Publication::acceptOne() {
    auto socket = PrivateDescriptor::opened(
        [&] { return accept4(name_->listener(), nullptr, nullptr, SOCK_CLOEXEC); });
    if (!socket.isValid()) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)
            pauseAccepting();
        return;
    }
    if (hasHungUp(socket.get())) return;
    auto peer = PeerIdentity::ofSocket(socket.get());
    if (!peer || (delegate_ != nullptr && !delegate_->shouldMakeNewConnection(*peer))) return;
    const auto uid = peer->uid;
    const auto refusal = refusalFor(*peer);
    const auto connection = make<ServedConnection>(*this, std::move(socket), std::move(*peer));
    connections_.emplace(connection.get(), connection);
    ++perUid_[uid];
    ungreeted_.push_back(connection.get());
    if (options_.connected) options_.connected(*connection);
    refusal.empty() ? connection->start() : connection->refuse(refusal);
    dropSilent();
}

bool Publication::isCounted(uid_t uid) const {
    return uid != 0 && uid != geteuid();
}

std::string Publication::refusalFor(const PeerIdentity& peer) const {
    const auto kept = isCounted(peer.uid) ? options_.keptForOwn : 0;
    if (connections_.size() + kept >= options_.maxConnections)
        return "too many connections: " + std::to_string(options_.maxConnections);
    const auto held = perUid_.find(peer.uid);
    if (!isCounted(peer.uid) || held == perUid_.end() ||
        held->second < options_.maxConnectionsPerUid)
        return {};
    return "too many connections of uid " + std::to_string(peer.uid) + ": " +
           std::to_string(options_.maxConnectionsPerUid);
}

void Publication::pauseAccepting() {
    loop_->rewatch(source_, 0);
    resumeLater();
}

void Publication::resumeLater() {
    loop_->performAfter(
        kAcceptAgain, [this] { resumeAccepting(); }, this);
}

void Publication::resumeAccepting() {
    if (isValid() && !loop_->rewatch(source_, EPOLLIN)) resumeLater();
}

void Publication::greeted(ServedConnection& connection) {
    ungreeted_.remove(&connection);
}

void Publication::dropSilent() {
    while (ungreeted_.size() > options_.maxUngreeted) ungreeted_.front()->close();
}

void Publication::remove(ServedConnection& connection) {
    ungreeted_.remove(&connection);
    const auto held = perUid_.find(connection.peer().uid);
    if (held != perUid_.end() && --held->second == 0) perUid_.erase(held);
    connections_.erase(&connection);  // first: the callback may close all that is left
    if (options_.disconnected) options_.disconnected(connection);
    resumeAccepting();
}

PublicationUse Publication::use() const {
    PublicationUse use{connections_.size(), 0, ungreeted_.size(), 0, 0};
    for (const auto& [uid, count] : perUid_) {
        if (isCounted(uid)) use.ofOneUid = std::max(use.ofOneUid, count);
    }
    for (const auto& [connection, held] : connections_) {
        use.queuedOutput = std::max(use.queuedOutput, connection->queuedOutput());
        use.pendingRequests = std::max(use.pendingRequests, connection->pendingRequests());
    }
    return use;
}

bool Publication::isFlushed() const noexcept {
    return std::all_of(connections_.begin(), connections_.end(),
                       [](const auto& held) { return held.second->isFlushed(); });
}

void Publication::stopAccepting() {
    if (!isValid()) return;  // in a forked child, too: what is there belongs to the parent
    loop_->unwatch(source_);
    name_->withdraw();
}

void Publication::invalidate() {
    if (generation_ != forkGeneration()) return;
    stopAccepting();
    loop_->forget(this);
    closeConnections();
}

void Publication::closeConnections() {
    while (!connections_.empty()) {
        const auto connection = connections_.begin()->second;
        connection->close();
        connections_.erase(connection.get());
    }
}

}  // namespace okv
