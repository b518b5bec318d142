#include "Peer.h"

#include "support/Sockets.h"

#include <map>
#include <stdexcept>
#include <thread>

namespace bench {

Peer absentPeer(const std::string& name, const std::string& why) {
    return {name, {}, nullptr, why};
}

const std::string& lookUp(std::string_view key) {
    static const std::map<std::string, std::string, std::less<>> store{
        {kKey, std::string(kAnswerSize, 'v')}};
    static const std::string none;
    const auto found = store.find(key);
    return found == store.end() ? none : found->second;
}

int listenAt(const std::string& path) {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (!support::bindTo(path, listener) || listen(listener, 64) != 0)
        throw std::runtime_error("cannot listen at " + path);
    return listener;
}

int connectTo(const std::string& path) {
    const int connected = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (support::connectTo(path, connected)) return connected;
    close(connected);
    return -1;
}

void serveEach(int listener, const std::function<void(int socket)>& serve) {
    for (;;) {
        const int accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (accepted >= 0) std::thread(serve, accepted).detach();
    }
}

}  // namespace bench
