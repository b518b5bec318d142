// Bytes as a peer sends them, cut into pieces at any place: through the reader of frames and the
// decoder of messages, and through both real ends of a conversation. The first byte chooses the
// end, the second one how the bytes are cut.
#include "Require.h"

#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Publication.h>

#include <sys/socket.h>
#include <unistd.h>

#include "support/Files.h"
#include "support/Sockets.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

namespace {

using fuzz::require;

class Echo {
public:
    virtual ~Echo() = default;
    virtual okv::Value echo(const okv::Value& value) = 0;
    virtual std::int32_t sum(std::int32_t a, std::int32_t b) = 0;
    virtual bool opposite(bool flag) = 0;
    virtual void take(okv::RemoteObject& object) = 0;
};

}  // namespace

template <>
inline constexpr auto okv::protocol<Echo> =
    okv::protocolTable(okv::row<&Echo::echo>("echo:"), okv::row<&Echo::sum>("sum:and:"),
                       okv::row<&Echo::opposite>("opposite:"), okv::row<&Echo::take>("take:"));

namespace {

class Echoing final : public okv::Object, public Echo {
public:
    okv::Value echo(const okv::Value& value) override { return value; }
    std::int32_t sum(std::int32_t a, std::int32_t b) override { return a / 2 + b / 2; }
    bool opposite(bool flag) override { return !flag; }
    void take(okv::RemoteObject& object) override { require(object.number() <= INT64_MAX); }
};

/// Answers nobody.
class NoPort final : public okv::MessagePort {
public:
    void callAndRead(std::string&, okv::ReplyReader&) override { std::abort(); }
    void post(std::string) override {}
    void sendAnswer(std::string) override {}
    const okv::PeerIdentity& peer() const noexcept override { return peer_; }
    void lend(std::uint64_t) override {}

private:
    okv::PeerIdentity peer_{};
};

/// Takes bytes in pieces: all at once, one by one, or of sizes that the seed chooses.
class Pieces {
public:
    Pieces(std::string_view bytes, std::uint8_t seed) : bytes_(bytes), seed_(seed), random_(seed) {}

    bool atEnd() const { return bytes_.empty(); }
    std::string_view next(std::size_t room) {
        const auto piece = bytes_.substr(0, std::min(room, size()));
        bytes_.remove_prefix(piece.size());
        return piece;
    }

private:
    std::size_t size() {
        if (seed_ < 2) return seed_ == 0 ? bytes_.size() : 1;
        random_ = random_ * 1103515245U + 12345U;
        return 1 + (random_ >> 16) % (seed_ * 2U);
    }

    std::string_view bytes_;
    const std::uint8_t seed_;
    std::uint32_t random_;
};

struct Cut {
    struct Held {
        okv::FrameKind kind;
        std::uint32_t serial;
        std::string payload;
        friend bool operator==(const Held&, const Held&) = default;
    };
    std::vector<Held> frames;
    bool refused = false;
    friend bool operator==(const Cut&, const Cut&) = default;
};

Cut cutIntoFrames(Pieces pieces) {
    Cut cut;
    okv::FrameBuffer buffer;
    try {
        while (!pieces.atEnd()) {
            const auto room = buffer.room();
            require(!room.empty() && room.size() <= okv::kMaxFramePayload * 2);
            const auto piece = pieces.next(room.size());
            std::memcpy(room.data(), piece.data(), piece.size());
            buffer.added(piece.size());
            while (const auto frame = buffer.next())
                cut.frames.push_back({frame->kind, frame->serial, std::string(frame->payload)});
        }
    } catch (const okv::FrameError&) {
        cut.refused = true;
    }
    return cut;
}

void readArguments(const okv::IncomingRequest& request) {
    auto arguments = request.arguments();
    for (const char type : request.types()) {
        if (type == 'i') {
            arguments.integer();
        } else if (type == 'c') {
            arguments.boolean();
        } else {
            arguments.value();
        }
    }
}

void readAsMessage(const Cut::Held& frame) {
    okv::CborReader reader(frame.payload);
    switch (frame.kind) {
        case okv::FrameKind::hello:
            reader.integer();
            reader.boolean();
            break;
        case okv::FrameKind::request:
            readArguments(*okv::make<okv::IncomingRequest>(
                okv::Ref<okv::MessagePort>(okv::make<NoPort>()), frame.serial, frame.payload));
            break;
        case okv::FrameKind::reply:
            reader.value();
            okv::readRefusal(reader);
            break;
        default:
            reader.text();
    }
}

void readAsFrames(std::string_view bytes, std::uint8_t seed) {
    const auto cut = cutIntoFrames({bytes, seed});
    require(cut == cutIntoFrames({bytes, 0}));
    for (const auto& frame : cut.frames) {
        try {
            readAsMessage(frame);
        } catch (const okv::CborError& error) {
            require(error.offset() <= frame.payload.size());
        }
    }
}

/// The peer's end of a conversation; what comes back must be frames.
class Peer {
public:
    explicit Peer(int socket) : socket_(socket) {}

    void send(std::string_view bytes) {
        // Refused once the other end has had enough.
        ::send(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    void receive() {
        for (;;) {
            const auto room = buffer_.room();
            const auto count = recv(socket_.get(), room.data(), room.size(), MSG_DONTWAIT);
            if (count <= 0) return;
            buffer_.added(static_cast<std::size_t>(count));
            while (buffer_.next()) {
            }
        }
    }
    void finish() { shutdown(socket_.get(), SHUT_WR); }

private:
    okv::PrivateDescriptor socket_;
    okv::FrameBuffer buffer_;
};

template <class Serve>
void converse(Peer& peer, Pieces pieces, Serve serve) {
    while (!pieces.atEnd()) {
        peer.send(pieces.next(4096));
        serve();
        peer.receive();
    }
    peer.finish();
}

struct Called {
    okv::Ref<okv::Connection> connection;
    std::optional<Peer> peer;

    Called() {
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
        peer.emplace(ends[1]);
        connection = okv::Connection::connectionWithSocket(okv::PrivateDescriptor(ends[0]),
                                                           okv::PeerIdentity{1, 0, 0, {}});
    }
    ~Called() { connection->invalidate(); }
};

// The calling end, whose run loop serves what the peer asks of an object that was lent to it.
void throughConnection(Pieces pieces) {
    static const auto object = okv::make<Echoing>();
    Called called;
    called.connection->lend(okv::lend<Echo>(*object).number);
    converse(*called.peer, pieces, [] { okv::RunLoop::current()->dispatch(); });
    for (int turns = 0; turns < 4; ++turns) okv::RunLoop::current()->dispatch();
}

// The calling end, with a call that waits for what the peer answers.
void throughCall(std::string_view bytes) {
    Called called;
    converse(*called.peer, {bytes, 0}, [] {});
    try {
        if (const auto root = called.connection->rootProxy()) okv::send<&Echo::echo>(*root, "text");
    } catch (const okv::ConnectionError& error) {
        // The time-out is none, and the peer cannot be refused any more.
        require(error.kind() != okv::ConnectionError::Kind::timedOut &&
                error.kind() != okv::ConnectionError::Kind::refusedPeer);
    }
}

/// The called end, made once.
class Service {
public:
    Service() {
        setenv("OKV_RUNTIME_DIR", folder_.path().c_str(), 1);
        std::string why;
        publication_ = okv::Publication::publish(kName, okv::rootObject<Echo>(*object_), {}, why);
        require(static_cast<bool>(publication_));
    }

    Peer connect() {
        const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        require(support::connectTo(folder_ / kName, made));
        return Peer(made);
    }
    bool isServing() const { return publication_->connectionCount() != 0; }

private:
    static constexpr char kName[] = "fuzz";

    const support::TempFolder folder_{"/dev/shm"};
    okv::Ref<Echoing> object_ = okv::make<Echoing>();
    okv::Ref<okv::Publication> publication_;
};

void throughPublication(Pieces pieces) {
    static Service service;
    const auto loop = okv::RunLoop::current();
    auto peer = service.connect();
    converse(peer, pieces, [&] { loop->dispatch(); });
    loop->dispatch();
    while (service.isServing()) {
        peer.receive();
        loop->dispatch();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
    readAsFrames(bytes, data[1]);
    switch (data[0] % 4) {
        case 1:
            throughConnection({bytes, data[1]});
            break;
        case 2:
            throughCall(bytes);
            break;
        case 3:
            throughPublication({bytes, data[1]});
            break;
        default:
            break;
    }
    return 0;
}
