#include "Peer.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Publication.h>

#include <cstdlib>

namespace bench {

namespace {

constexpr char kBareName[] = "bench.bare";

void answerFixed(void*, okv::IncomingRequest& request) {
    static const okv::Value text(std::string(kAnswerSize, 'v'));
    std::string frame;
    okv::beginFrame(frame, okv::FrameKind::reply);
    okv::CborWriter(frame).value(text);
    okv::finishFrame(frame, 0, 0);
    request.answer(std::move(frame));
}

void serveBare(const std::function<void()>& ready) {
    std::string why;
    const auto publication =
        okv::Publication::publish(kBareName, {&answerFixed, nullptr, nullptr}, {}, why);
    if (!publication) std::abort();
    ready();
    okv::RunLoop::current()->run();
}

okv::Ref<okv::RemoteObject> rootOf(const char* name) {
    const auto connection = okv::Connection::connectionWithRegisteredName(name);
    if (!connection) std::abort();
    return connection->rootProxy();
}

Call readThroughOwnConnection(const char* name) {
    return [root = rootOf(name)] {
        okv::send<&OKVDataMng_protocol::okvDataPT_appUid>(*root, kKey, 1);
    };
}

okv::Ref<okvDataManager> manager() {
    auto shared = okvDataManager::sharedDataManager();
    if (!shared) std::abort();
    return shared;
}

// The methods of the data manager that send one okvDataPT: are those of the service endpoints.
Call readThroughManager() {
    return [shared = manager()] {
        if (shared->arsEncodekey().size() != kAnswerSize) std::abort();
    };
}

Call readForSessionUser() {
    return [shared = manager()] { shared->okvData(kKey); };
}

void storeTheValue() {
    const auto root = rootOf(kOKVDataServerName);
    const std::string text(kAnswerSize, 'v');
    if (!okv::send<&OKVDataMng_protocol::setOKVDataPT_value_appUid>(*root, kKey, text, 1) ||
        !okv::send<&OKVDataMng_protocol::setOKVDataPT_value_appUid>(
            *root, "dc-syscmnf-ars2_encodekey", text, 1))
        std::abort();
}

}  // namespace

Peer okvTransport() {
    return {"okv transport, a server that looks nothing up",
            {std::make_shared<ServerProcess>(serveBare)},
            [] { return readThroughOwnConnection(kBareName); },
            {}};
}

std::vector<Peer> dataServer(const std::string& folder) {
    const std::vector<std::shared_ptr<ServerProcess>> servers{
        std::make_shared<ServerProcess>(std::vector<std::string>{OKV_BENCH_SERVER, "--foreground",
                                                                 "--store", folder + "/store.db"})};
    const auto own = [] { return readThroughOwnConnection(kOKVDataServerName); };
    const ServerProcess filling([](const auto& ready) {
        storeTheValue();
        ready();
    });
    return {{"OKVDataCenter, okvDataPT:appUid: over a connection", servers, own, {}},
            {"OKVDataCenter, okvDataPT: by okvDataManager", servers, readThroughManager, {}},
            {"OKVDataCenter, okvData: (two calls by rule)", servers, readForSessionUser, {}}};
}

}  // namespace bench
