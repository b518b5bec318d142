#include "SdBus.h"

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <stdexcept>

namespace bench {

namespace {

constexpr char kName[] = "org.example.Bench";
constexpr char kPath[] = "/bench";
constexpr char kKey[] = "dc-gui-window_colour";

int checked(int result) {
    if (result < 0) throw std::runtime_error("sd-bus failed");
    return result;
}

int lookUp(sd_bus_message* message, void*, sd_bus_error*) {
    static const std::map<std::string, std::string, std::less<>> store{
        {kKey, std::string(32, 'v')}};
    const char* key = nullptr;
    int user = 0;
    checked(sd_bus_message_read(message, "si", &key, &user));
    const auto found = store.find(std::string_view(key));
    return sd_bus_reply_method_return(message, "s",
                                      found == store.end() ? "" : found->second.c_str());
}

const sd_bus_vtable kTable[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("LookUp", "si", "s", lookUp, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

void serveForEver(sd_bus* bus) {
    for (;;) {
        if (checked(sd_bus_process(bus, nullptr)) == 0) checked(sd_bus_wait(bus, UINT64_MAX));
    }
}

class Client final : public SdBus {
public:
    void call() override {
        sd_bus_message* reply = nullptr;
        checked(sd_bus_call_method(bus, destination, kPath, kName, "LookUp", nullptr, &reply, "si",
                                   kKey, 1));
        const char* text = nullptr;
        checked(sd_bus_message_read(reply, "s", &text));
        sd_bus_message_unref(reply);
    }
    ~Client() override { sd_bus_unref(bus); }

    sd_bus* bus = nullptr;
    const char* destination = nullptr;
    std::unique_ptr<ServerProcess> daemon;
    std::unique_ptr<ServerProcess> server;
};

void servePeer(int end, const std::function<void()>& ready) {
    sd_bus* bus = nullptr;
    sd_id128_t id;
    checked(sd_id128_randomize(&id));
    checked(sd_bus_new(&bus));
    checked(sd_bus_set_fd(bus, end, end));
    checked(sd_bus_set_server(bus, 1, id));
    checked(sd_bus_set_anonymous(bus, 1));
    checked(sd_bus_start(bus));
    checked(sd_bus_add_object_vtable(bus, nullptr, kPath, kName, kTable, nullptr));
    ready();
    serveForEver(bus);
}

sd_bus* busAt(const std::string& address) {
    sd_bus* bus = nullptr;
    checked(sd_bus_new(&bus));
    checked(sd_bus_set_address(bus, address.c_str()));
    checked(sd_bus_set_bus_client(bus, 1));
    checked(sd_bus_start(bus));
    return bus;
}

}  // namespace

std::unique_ptr<SdBus> SdBus::peerToPeer() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("no socket pair");
    auto client = std::make_unique<Client>();
    client->server =
        std::make_unique<ServerProcess>([&](const auto& ready) { servePeer(ends[1], ready); });
    close(ends[1]);
    checked(sd_bus_new(&client->bus));
    checked(sd_bus_set_fd(client->bus, ends[0], ends[0]));
    checked(sd_bus_start(client->bus));
    return client;
}

std::unique_ptr<SdBus> SdBus::overBus(const std::string& program) {
    auto client = std::make_unique<Client>();
    try {
        client->daemon = std::make_unique<ServerProcess>(std::vector<std::string>{
            program, "--session", "--nofork", "--nopidfile", "--print-address=1"});
    } catch (const std::runtime_error&) {
        return nullptr;
    }
    const auto address = client->daemon->firstLine();
    client->server = std::make_unique<ServerProcess>([&](const auto& ready) {
        auto* bus = busAt(address);
        checked(sd_bus_add_object_vtable(bus, nullptr, kPath, kName, kTable, nullptr));
        checked(sd_bus_request_name(bus, kName, 0));
        ready();
        serveForEver(bus);
    });
    client->bus = busAt(address);
    client->destination = kName;
    return client;
}

}  // namespace bench
