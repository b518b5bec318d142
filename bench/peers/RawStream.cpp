#include "Peer.h"

#include "Raw.h"

#include <cstdlib>

namespace bench {

namespace {

const std::vector<Exchange> kCall{{kRequestSize, kReplySize}};

Call connectRaw(const std::string& path) {
    const int connected = connectTo(path);
    if (connected < 0) std::abort();
    return [end = std::make_shared<RawEnd>(connected, kCall)] { end->call(); };
}

}  // namespace

Peer rawStream(const std::string& folder) {
    const auto path = folder + "/raw";
    auto server = std::make_shared<ServerProcess>([&](const auto& ready) {
        const int listener = listenAt(path);
        ready();
        serveEach(listener, [](int socket) { RawEnd(socket, kCall).answerAll(); });
    });
    return {"raw blocking Unix stream", {server}, [path] { return connectRaw(path); }, {}};
}

}  // namespace bench
