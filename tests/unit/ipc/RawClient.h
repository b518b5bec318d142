#pragma once

#include <OKVPlatform/ipc/Message.h>
#include <OKVPlatform/ipc/RegisteredName.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

namespace ipctest {

/// A client that writes whatever bytes a test wants and reads only when it is told to; never waits.
class RawClient {
public:
    explicit RawClient(std::string_view name)
        : socket_(std::move(okv::connectToName(name).socket)) {}

    bool isConnected() const { return socket_.isValid(); }
    void hangUp() { socket_.close(); }
    void endSending() { ::shutdown(socket_.get(), SHUT_WR); }
    /// Answers how many of the bytes went out.
    std::size_t send(std::string_view bytes) {
        const auto count =
            ::send(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    void greet() { send(okv::encodeHello()); }
    /// A request to the root object with one object as its argument.
    static std::string request(std::uint32_t serial, std::string_view selector,
                               const okv::Value& argument) {
        std::string frame;
        okv::beginRequest(frame, okv::kRootObject, selector, "@");
        okv::CborWriter(frame).value(argument);
        okv::finishRequest(frame);
        okv::setFrameSerial(frame, serial);
        return frame;
    }

    struct Received {
        okv::FrameKind kind;
        std::uint32_t serial;
        std::string payload;
    };
    /// The next frame, if it is there.
    std::optional<Received> next() {
        for (;;) {
            if (const auto frame = bytes_.next())
                return Received{frame->kind, frame->serial, std::string(frame->payload)};
            if (!readSome()) return std::nullopt;
        }
    }
    /// Takes up to so many bytes, whatever they are, and forgets them; `next` is of no use then.
    void drop(std::size_t atMost) {
        char bytes[16384];
        const auto count = recv(socket_.get(), bytes, std::min(atMost, sizeof bytes), MSG_DONTWAIT);
        if (count == 0) closed_ = true;
    }
    /// Whether `next` has met the end.
    bool isClosed() const { return closed_; }

private:
    bool readSome() {
        const auto room = bytes_.room();
        const auto count = recv(socket_.get(), room.data(), room.size(), MSG_DONTWAIT);
        if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) closed_ = true;
        if (count <= 0) return false;
        bytes_.added(static_cast<std::size_t>(count));
        return true;
    }

    okv::PrivateDescriptor socket_;
    okv::FrameBuffer bytes_;
    bool closed_ = false;
};

}  // namespace ipctest
