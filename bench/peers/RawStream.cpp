#include "Peer.h"

#include "FrameSizes.h"
#include "Raw.h"

#include <OKVDataManager/okvDataManager.h>

#include <cstdlib>

namespace bench {

namespace {

// As many bytes as a request for the key and its answer are framed into by us.
const std::vector<Exchange>& oneCall() {
    static const std::vector<Exchange> exchanges{
        {requestSize<&OKVDataMng_protocol::okvDataPT_appUid>(kKey, 1),
         replySize(std::string(kAnswerSize, 'v'))}};
    return exchanges;
}

Call connectRaw(const std::string& path) {
    const int connected = connectTo(path);
    if (connected < 0) std::abort();
    return [end = std::make_shared<RawEnd>(connected, oneCall())] { end->call(); };
}

}  // namespace

Peer rawStream(const std::string& folder) {
    const auto path = folder + "/raw";
    auto server = std::make_shared<ServerProcess>([&](const auto& ready) {
        const int listener = listenAt(path);
        ready();
        serveEach(listener, [](int socket) { RawEnd(socket, oneCall()).answerAll(); });
    });
    return {"raw blocking Unix stream", {server}, [path] { return connectRaw(path); }, {}};
}

}  // namespace bench
