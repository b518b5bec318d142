#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/Message.h>
#include <OKVPlatform/ipc/Protocol.h>
#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVPlatform/ipc/RunLoop.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace okv {

class ServedConnection;

/// What a publication vends. `owner`, where given, is retained while it is vended.
struct RootObject {
    RequestHandler handler =
        nullptr;  ///< none: the publication has no root object, and clients see nil
    void* target = nullptr;
    Ref<Object> owner;
};

/// A root object that answers protocol P; it is retained where it is counted.
template <class P, class T>
RootObject rootObject(T& object) {
    RootObject root;
    if constexpr (std::is_base_of_v<Object, T>) root.owner = Ref<Object>::retaining(&object);
    root.handler = [](void* target, IncomingRequest& request) {
        dispatch<P>(*static_cast<P*>(target), request);
    };
    root.target = static_cast<P*>(&object);
    return root;
}

/// Who is asked about what happens to a publication.
class OKV_EXPORT PublicationDelegate {
public:
    virtual ~PublicationDelegate() = default;
    /// Whether the peer may connect; called on the publication's thread.
    virtual bool shouldMakeNewConnection(const PeerIdentity&) { return true; }
};

/// How much the outside may take of a publishing process.
struct PublicationOptions {
    PublishedName::Options name{};
    std::size_t maxConnections = 1024;
    std::size_t maxConnectionsPerUid = 128;  ///< uid 0 and this process's own uid are not counted
    std::size_t keptForOwn =
        0;  ///< of all connections, those only for uid 0 and this process's own uid
    std::size_t maxUngreeted = 32;  ///< beyond, the one that kept silent longest is dropped
    std::chrono::milliseconds greetWithin{2000};
    std::size_t maxRequestBytes = kMaxFramePayload;
    /// Who may send requests of another size than that, where given.
    std::function<std::size_t(const PeerIdentity&)> maxRequestBytesOf = {};
    std::size_t maxQueuedOutput =
        4U << 20;  ///< a client that does not read is not read either; one reply may exceed it
    std::size_t maxPendingRequests =
        64;  ///< of one client, kept and not yet answered; more are not read
    /// Called on the publication's thread for every peer that has connected, one that is then
    /// refused included.
    std::function<void(MessagePort&)> connected{};
    /// Called on the publication's thread once such a connection has ended.
    std::function<void(MessagePort&)> disconnected{};
};

/// How much of it is taken at the moment.
struct PublicationUse {
    std::size_t connections = 0;
    std::size_t ofOneUid = 0;  ///< the most that one counted uid holds
    std::size_t ungreeted = 0;
    std::size_t queuedOutput = 0;     ///< bytes, of the client that leaves most unread
    std::size_t pendingRequests = 0;  ///< of the client that has most waiting
};

/// A root object published under a registered name: the called end.
///
/// It lives on the run loop of the thread that published it: requests come to the root's handler
/// there, never on two threads at once, and may be kept and answered later from any thread. No
/// client can make it wait: what cannot be written is queued, what is too much is not read.
/// Destroying it withdraws the name and closes every connection. In a forked child it is nothing.
class OKV_EXPORT Publication final : public Object {
public:
    /// Null when the name cannot be had, or not be served for want of descriptors; `why` then says
    /// what stands in the way, and no name is left behind.
    static Ref<Publication> publish(std::string_view name, RootObject root,
                                    PublicationOptions options, std::string& why);
    /// Serves the name's listening socket that a service manager handed over.
    static Ref<Publication> adopt(std::string_view name, int listener, RootObject root,
                                  PublicationOptions options, std::string& why);

    /// Whether the name is held and new connections are taken.
    bool isValid() const noexcept { return name_ != nullptr && name_->listener() >= 0; }
    /// Withdraws the name; who is connected stays so.
    void stopAccepting();
    /// Closes every connection; the name stays published.
    void closeConnections();
    /// Withdraws the name and closes every connection.
    void invalidate();
    /// Of peers that are connected now, greeted or not.
    std::size_t connectionCount() const noexcept { return connections_.size(); }
    /// How much is taken at this moment; walks over all connections.
    PublicationUse use() const;
    /// Whether everything that was sent has left this process.
    bool isFlushed() const noexcept;

    /// Seconds; kept for who asks. A publication waits for no client, so that nothing is bounded by
    /// them yet.
    void setRequestTimeout(double seconds) noexcept { requestTimeout_ = seconds; }
    /// As `setRequestTimeout`.
    void setReplyTimeout(double seconds) noexcept { replyTimeout_ = seconds; }
    /// Not retained; null ends it.
    void setDelegate(PublicationDelegate* delegate) noexcept { delegate_ = delegate; }
    /// Seconds; 0 when none was set.
    double requestTimeout() const noexcept { return requestTimeout_; }
    /// Seconds; 0 when none was set.
    double replyTimeout() const noexcept { return replyTimeout_; }

protected:
    void dealloc() override { invalidate(); }

private:
    friend class ServedConnection;
    friend Ref<Publication> make<Publication>(std::unique_ptr<PublishedName>&&, RootObject&&,
                                              PublicationOptions&&);

    Publication(std::unique_ptr<PublishedName> name, RootObject root, PublicationOptions options);
    static Ref<Publication> serving(std::unique_ptr<PublishedName> name, RootObject root,
                                    PublicationOptions options);

    void acceptOne();
    void pauseAccepting();
    void resumeLater();
    void resumeAccepting();
    std::string refusalFor(const PeerIdentity& peer) const;
    bool isCounted(uid_t uid) const;
    void greeted(ServedConnection& connection);
    void dropSilent();
    void remove(ServedConnection& connection);

    std::unique_ptr<PublishedName> name_;
    const RootObject root_;
    const PublicationOptions options_;
    const Ref<RunLoop> loop_;
    RunLoop::Id source_ = 0;
    PublicationDelegate* delegate_ = nullptr;
    const std::uint32_t generation_ = forkGeneration();
    double requestTimeout_ = 0;
    double replyTimeout_ = 0;
    std::unordered_map<ServedConnection*, Ref<ServedConnection>> connections_;
    std::list<ServedConnection*> ungreeted_;  // the longest waiting first
    std::unordered_map<uid_t, std::size_t> perUid_;
};

}  // namespace okv
