// What one call costs beside the least that a Unix socket costs: a blocking ping-pong of the same
// sizes.

#include "Contest.h"
#include "SdBus.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Publication.h>
#include <OKVTesting/RuntimeFolder.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr char kKey[] = "dc-gui-window_colour";
constexpr std::size_t kAnswerSize = 32;
// A request for the key is framed into this many bytes, and its answer into as many below: raw
// moves the same.
constexpr std::size_t kRequestSize = 60;
constexpr std::size_t kReplySize = 43;

void moveAll(int socket, std::size_t in, std::size_t out) {
    char buffer[256];
    for (;;) {
        if (recv(socket, buffer, in, MSG_WAITALL) != static_cast<ssize_t>(in)) return;
        if (send(socket, buffer, out, MSG_NOSIGNAL) != static_cast<ssize_t>(out)) return;
    }
}

class RawPeer {
public:
    RawPeer() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0) std::abort();
        server_ = std::make_unique<bench::ServerProcess>([&](const auto& ready) {
            close(ends_[0]);
            ready();
            moveAll(ends_[1], kRequestSize, kReplySize);
        });
        close(ends_[1]);
    }
    void call() {
        char buffer[256] = {};
        if (send(ends_[0], buffer, kRequestSize, MSG_NOSIGNAL) < 0 ||
            recv(ends_[0], buffer, kReplySize, MSG_WAITALL) < 0)
            std::abort();
    }

private:
    int ends_[2];
    std::unique_ptr<bench::ServerProcess> server_;
};

void handle(void*, okv::IncomingRequest& request) {
    static const okv::Value answer(std::string(kAnswerSize, 'v'));
    std::string frame;
    okv::beginFrame(frame, okv::FrameKind::reply);
    okv::CborWriter(frame).value(answer);
    okv::finishFrame(frame, 0, 0);
    request.answer(std::move(frame));
}

void serveBare(const std::function<void()>& ready) {
    std::string why;
    const auto publication =
        okv::Publication::publish("bench.bare", {&handle, nullptr, nullptr}, {}, why);
    if (!publication) return;
    ready();
    okv::RunLoop::current()->run();
}

// The real data server, with one value stored.
class DataServer {
public:
    explicit DataServer(const okv::testing::RuntimeFolder& folder)
        : process_({OKV_BENCH_SERVER, "--foreground", "--store",
                    (folder.path() / "store.db").string()}) {
        manager_ = okvDataManager::sharedDataManager();
        if (!manager_ || !manager_->setOKVData_value_appUid(kKey, std::string(kAnswerSize, 'v'), 1))
            std::abort();
        root_ = manager_->proxyObj();
    }
    void readDefaultUser() { manager_->defaultUserId(); }
    void readThroughProxy() { okv::send<&OKVDataMng_protocol::okvDataPT_appUid>(*root_, kKey, 1); }
    void readForSessionUser() { manager_->okvData(kKey); }

private:
    bench::ServerProcess process_;
    okv::Ref<okvDataManager> manager_;
    okv::Ref<okv::RemoteObject> root_;
};

}  // namespace

int main() {
    const okv::testing::RuntimeFolder folder;
    bench::pinTo(0);
    RawPeer raw;
    const bench::ServerProcess bare(serveBare);
    const auto connection = okv::Connection::connectionWithRegisteredName("bench.bare");
    const auto root = connection->rootProxy();
    DataServer server(folder);
    const auto peer = bench::SdBus::peerToPeer();
    const auto bus = bench::SdBus::overBus("dbus-daemon");
    std::vector<bench::Contender> contenders{
        {"raw blocking Unix stream", [&] { raw.call(); }},
        {"okv transport, a server that looks nothing up",
         [&] { okv::send<&OKVDataMng_protocol::okvDataPT_appUid>(*root, kKey, 1); }},
        {"OKVDataCenter: defaultUserId", [&] { server.readDefaultUser(); }},
        {"OKVDataCenter: okvDataPT:appUid:", [&] { server.readThroughProxy(); }},
        {"OKVDataCenter: okvData: (two calls by rule)", [&] { server.readForSessionUser(); }},
        {"sd-bus peer to peer", [&] { peer->call(); }},
    };
    if (bus) {
        contenders.push_back({"sd-bus over dbus-daemon", [&] { bus->call(); }});
    } else {
        std::puts("dbus-daemon does not start here: left out");
    }
    bench::print(bench::contest(contenders, 31, 1000));
}
