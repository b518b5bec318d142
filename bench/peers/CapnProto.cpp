#include "Peer.h"

#ifdef OKV_BENCH_CAPNP
#include "bench.capnp.h"

#include <capnp/ez-rpc.h>
#endif

namespace bench {

#ifdef OKV_BENCH_CAPNP

namespace {

class Server final : public ::Bench::Server {
    kj::Promise<void> lookUp(LookUpContext context) override {
        const auto key = context.getParams().getKey();
        context.getResults().setValue(bench::lookUp({key.cStr(), key.size()}));
        return kj::READY_NOW;
    }
};

void serve(const std::string& address, const std::function<void()>& ready) {
    capnp::EzRpcServer server(kj::heap<Server>(), address);
    auto& scope = server.getWaitScope();
    server.getPort().wait(scope);
    ready();
    kj::NEVER_DONE.wait(scope);
}

Call connectRpc(const std::string& address) {
    const auto client = std::make_shared<capnp::EzRpcClient>(address);
    const auto server = std::make_shared<::Bench::Client>(client->getMain<::Bench>());
    return [client, server] {
        auto request = server->lookUpRequest();
        request.setKey(kKey);
        request.setUser(1);
        request.send().wait(client->getWaitScope());
    };
}

}  // namespace

Peer capnProto(const std::string& folder) {
    const auto address = "unix:" + folder + "/capnp";
    auto server =
        std::make_shared<ServerProcess>([&](const auto& ready) { serve(address, ready); });
    return {"Cap'n Proto RPC", {server}, [address] { return connectRpc(address); }, {}};
}

#else

Peer capnProto(const std::string&) {
    return absentPeer("Cap'n Proto RPC", "libcapnp-dev and capnproto are not installed");
}

#endif

}  // namespace bench
