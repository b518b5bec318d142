#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

/// Local sockets by their paths, past the library.
namespace support {

/// Throws when the path is longer than an address can be.
inline sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw std::runtime_error("too long: " + path);
    path.copy(address.sun_path, path.size());
    return address;
}

inline bool bindTo(const std::string& path, int socket) {
    const auto address = addressOf(path);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

inline bool connectTo(const std::string& path, int socket) {
    const auto address = addressOf(path);
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// A client that comes and goes, whether it is let in or not.
inline void connectOnly(const std::string& path) {
    const int made = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    (void)connectTo(path, made);
    ::close(made);
}

/// A local socket bound to a path.
class BoundSocket {
public:
    BoundSocket(int type, const std::string& path) : descriptor_(::socket(AF_UNIX, type, 0)) {
        if (!bindTo(path, descriptor_)) throw std::runtime_error("bind " + path);
    }
    BoundSocket(const BoundSocket&) = delete;
    BoundSocket& operator=(const BoundSocket&) = delete;
    ~BoundSocket() { ::close(descriptor_); }
    int get() const noexcept { return descriptor_; }

private:
    int descriptor_;
};

}  // namespace support
