#include "Peer.h"

#ifdef OKV_BENCH_SDBUSCPP
#include <sdbus-c++/sdbus-c++.h>
#endif

namespace bench {

namespace {

constexpr char kTitle[] = "sdbus-c++ over dbus-daemon";

}  // namespace

#ifdef OKV_BENCH_SDBUSCPP

namespace {

constexpr char kName[] = "org.example.BenchCpp";
constexpr char kPath[] = "/bench";

void serve(const std::string& address, const std::function<void()>& ready) {
    const auto bus = sdbus::createSessionBusConnectionWithAddress(address);
    bus->requestName(kName);
    const auto object = sdbus::createObject(*bus, kPath);
    object->registerMethod("LookUp").onInterface(kName).implementedAs(
        [](const std::string& key, const std::int32_t&) { return lookUp(key); });
    object->finishRegistration();
    ready();
    bus->enterEventLoop();
}

Call connectOverBus(const std::string& address) {
    const std::shared_ptr<sdbus::IConnection> bus =
        sdbus::createSessionBusConnectionWithAddress(address);
    // Without a thread that runs its loop: calls are answered faster.
    const std::shared_ptr<sdbus::IProxy> proxy = sdbus::createProxy(*bus, kName, kPath);
    return [bus, proxy] {
        std::string text;
        proxy->callMethod("LookUp").onInterface(kName).withArguments(kKey, 1).storeResultsTo(text);
    };
}

}  // namespace

Peer sdbusCpp(const std::string& folder) {
    const auto address = "unix:path=" + folder + "/sdbus-cpp";
    try {
        auto bus = std::make_shared<ServerProcess>(
            std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--nopidfile",
                                     "--print-address=1", "--address=" + address});
        auto server =
            std::make_shared<ServerProcess>([&](const auto& ready) { serve(address, ready); });
        return {kTitle, {bus, server}, [address] { return connectOverBus(address); }, {}};
    } catch (const std::exception& error) {
        return absentPeer(kTitle, error.what());
    }
}

#else

Peer sdbusCpp(const std::string&) {
    return absentPeer(kTitle, "libsdbus-c++-dev is not installed");
}

#endif

}  // namespace bench
