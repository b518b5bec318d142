#include "Peer.h"

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <stdexcept>

namespace bench {

namespace {

constexpr char kName[] = "org.example.Bench";
constexpr char kPath[] = "/bench";

int checked(int result) {
    if (result < 0) throw std::runtime_error("sd-bus failed");
    return result;
}

int answerLookUp(sd_bus_message* message, void*, sd_bus_error*) {
    const char* key = nullptr;
    int user = 0;
    checked(sd_bus_message_read(message, "si", &key, &user));
    return sd_bus_reply_method_return(message, "s", lookUp(key).c_str());
}

const sd_bus_vtable kTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("LookUp", "si", "s", answerLookUp, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

void serveUntilGone(sd_bus* bus) {
    for (;;) {
        const int done = sd_bus_process(bus, nullptr);
        if (done < 0) return;
        if (done == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) return;
    }
}

// ---- Peer to peer ----

void servePeer(int end) {
    sd_bus* bus = nullptr;
    sd_id128_t id;
    checked(sd_id128_randomize(&id));
    checked(sd_bus_new(&bus));
    checked(sd_bus_set_fd(bus, end, end));
    checked(sd_bus_set_server(bus, 1, id));
    checked(sd_bus_set_anonymous(bus, 1));
    checked(sd_bus_start(bus));
    checked(sd_bus_add_object_vtable(bus, nullptr, kPath, kName, kTable, nullptr));
    serveUntilGone(bus);
    sd_bus_flush_close_unref(bus);
}

Call callOver(sd_bus* bus, const char* destination) {
    const std::shared_ptr<sd_bus> held(bus, sd_bus_flush_close_unref);
    return [held, destination] {
        sd_bus_message* reply = nullptr;
        checked(sd_bus_call_method(held.get(), destination, kPath, kName, "LookUp", nullptr, &reply,
                                   "si", kKey, 1));
        const char* text = nullptr;
        checked(sd_bus_message_read(reply, "s", &text));
        sd_bus_message_unref(reply);
    };
}

Call connectToPeer(const std::string& path) {
    const int end = connectTo(path);
    sd_bus* bus = nullptr;
    checked(sd_bus_new(&bus));
    checked(sd_bus_set_fd(bus, end, end));
    checked(sd_bus_start(bus));
    return callOver(bus, nullptr);
}

// ---- Over a bus ----

sd_bus* busAt(const std::string& address) {
    sd_bus* bus = nullptr;
    checked(sd_bus_new(&bus));
    checked(sd_bus_set_address(bus, address.c_str()));
    checked(sd_bus_set_bus_client(bus, 1));
    checked(sd_bus_start(bus));
    return bus;
}

void serveOnBus(const std::string& address, const std::function<void()>& ready) {
    auto* bus = busAt(address);
    checked(sd_bus_add_object_vtable(bus, nullptr, kPath, kName, kTable, nullptr));
    checked(sd_bus_request_name(bus, kName, 0));
    ready();
    serveUntilGone(bus);
}

Peer overBus(const std::string& name, const std::string& address,
             std::shared_ptr<ServerProcess> bus) {
    auto server =
        std::make_shared<ServerProcess>([&](const auto& ready) { serveOnBus(address, ready); });
    return {name,
            {std::move(bus), std::move(server)},
            [address] { return callOver(busAt(address), kName); },
            {}};
}

}  // namespace

Peer sdBusPeerToPeer(const std::string& folder) {
    const auto path = folder + "/sd-bus";
    auto server = std::make_shared<ServerProcess>([&](const auto& ready) {
        const int listener = listenAt(path);
        ready();
        serveEach(listener, servePeer);
    });
    return {"sd-bus, peer to peer", {server}, [path] { return connectToPeer(path); }, {}};
}

Peer sdBusOverDaemon(const std::string& folder) {
    const std::string name = "sd-bus over dbus-daemon";
    const auto address = "unix:path=" + folder + "/dbus-daemon";
    try {
        return overBus(name, address,
                       std::make_shared<ServerProcess>(std::vector<std::string>{
                           "dbus-daemon", "--session", "--nofork", "--nopidfile",
                           "--print-address=1", "--address=" + address}));
    } catch (const std::runtime_error& error) {
        return absentPeer(name, error.what());
    }
}

// The broker's launcher takes its socket as a service manager hands it over.
Peer sdBusOverBroker(const std::string& folder) {
    const std::string name = "sd-bus over dbus-broker";
    const auto path = folder + "/dbus-broker";
    try {
        auto bus = std::make_shared<ServerProcess>([&](const auto& ready) {
            const int listener = listenAt(path);
            if (dup2(listener, 3) < 0) _exit(1);
            setenv("LISTEN_FDS", "1", 1);
            setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
            ready();
            execlp("dbus-broker-launch", "dbus-broker-launch", "--scope", "user", nullptr);
            _exit(127);
        });
        return overBus(name, "unix:path=" + path, std::move(bus));
    } catch (const std::runtime_error& error) {
        return absentPeer(name, error.what());
    }
}

}  // namespace bench
