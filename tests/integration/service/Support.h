#pragma once

#include "../faults/Support.h"

#include "support/Sockets.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <filesystem>
#include <string>

namespace service {

using namespace faults;
using support::BoundSocket;

/// Makes the sockets that a service manager hands over.
class Listener {
public:
    Listener(const ServerProcess& server, const std::string& name)
        : socket_(SOCK_STREAM, folder(server) + "/" + name) {
        if (listen(socket_.get(), 64) != 0) throw std::runtime_error("listen");
    }
    int get() const noexcept { return socket_.get(); }

private:
    static std::string folder(const ServerProcess& server) {
        std::filesystem::create_directory(server.runtimeFolder());
        return server.runtimeFolder();
    }
    BoundSocket socket_;
};

/// Is told, in a service manager's place, what the servers that are started meanwhile are about.
class Manager {
public:
    explicit Manager(const ServerProcess& server)
        : socket_(SOCK_DGRAM, server.file("notify")),
          path_("NOTIFY_SOCKET", server.file("notify")) {
        const timeval patience{30, 0};
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    /// The next message; empty when none comes.
    std::string next() const {
        char text[512];
        const auto size = recv(socket_.get(), text, sizeof text, 0);
        return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
    }

private:
    BoundSocket socket_;
    Environment path_;
};

}  // namespace service
