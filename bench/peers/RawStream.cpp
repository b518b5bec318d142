#include "Peer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace bench {

namespace {

void moveAll(int socket) {
    char buffer[256] = {};
    while (recv(socket, buffer, kRequestSize, MSG_WAITALL) == kRequestSize &&
           send(socket, buffer, kReplySize, MSG_NOSIGNAL) == kReplySize) {
    }
    close(socket);
}

Call connectRaw(const std::string& path) {
    const int connected = connectTo(path);
    if (connected < 0) std::abort();
    const std::shared_ptr<void> closer(nullptr, [connected](void*) { close(connected); });
    return [connected, closer] {
        char buffer[256] = {};
        if (send(connected, buffer, kRequestSize, MSG_NOSIGNAL) != kRequestSize ||
            recv(connected, buffer, kReplySize, MSG_WAITALL) != kReplySize)
            std::abort();
    };
}

}  // namespace

Peer rawStream(const std::string& folder) {
    const auto path = folder + "/raw";
    auto server = std::make_shared<ServerProcess>([&](const auto& ready) {
        const int listener = listenAt(path);
        ready();
        serveEach(listener, moveAll);
    });
    return {"raw blocking Unix stream", {server}, [path] { return connectRaw(path); }, {}};
}

}  // namespace bench
