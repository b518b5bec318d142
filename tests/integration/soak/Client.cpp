#include "Client.h"

#include <thread>

namespace soak {

namespace {

constexpr std::chrono::milliseconds kRest{10};
// Without a server.
constexpr std::chrono::milliseconds kRestAfterFailure{50};

}  // namespace

void Client::run(long steps) {
    while (!board_.stop && steps-- != 0) {
        std::this_thread::sleep_for(board_.pause);
        if (stepAndTell()) {
            rest();
        } else {
            std::this_thread::sleep_for(kRestAfterFailure);
        }
    }
}

bool Client::stepAndTell() {
    const auto begun = now();
    try {
        step();
        slot_.succeeded();
        return true;
    } catch (const WrongAnswer& wrong) {
        slot_.failed(failureOf(begun, now(), true, wrong.what()));
    } catch (const std::exception& error) {
        slot_.failed(failureOf(blamedFrom(begun), now(), false, error.what()));
    }
    return false;
}

void Client::rest() {
    std::this_thread::sleep_for(kRest);
}

Register& Client::own() {
    return board_
        .registers[slot_.firstRegister() + kept_.value_or(turn_++) % slot_.registerCount()];
}

Register& Client::anyRegister() {
    return board_.registers[below(board_.registersUsed)];
}

std::size_t Client::below(std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
}

okv::RemoteObject& ConnectedClient::root() {
    if (!connection_ || !connection_->isValid()) {
        root_ = nullptr;
        connection_ = faults::connection();
        root_ = connection_->rootProxy();
        connected();
    }
    return *root_;
}

const std::vector<LastingClient>& lastingClients() {
    static const std::vector<LastingClient> clients{
        {"reader1", makeReader},
        {"reader2", makeReader},
        {"writer1", makeWriter, Place::user, 60},
        {"writer2", makeWriter, Place::everybody, 60},
        {"several", makeWriter, Place::several, 10},
        {"lists", makeWriter, Place::list, 1},
        {"switcher", makeSwitcher},
        {"admin", makeAdministrator},
        {"follower", makeFollower},
        {"manager1", makeManager, Place::user, 20},
        {"manager2", makeManager, Place::user, 20},
        {"tool", makeTool, Place::everybody, 10},
        {"observer1", makeObserver},
        {"observer2", makeObserver},
        {"poster", makePoster},
    };
    return clients;
}

namespace {

/// Reads and writes a little, as one that is started for one thing does.
class Visitor final : public ConnectedClient {
public:
    using ConnectedClient::ConnectedClient;

protected:
    void step() override {
        auto& place = own();
        raise(root(), place);
        check(root(), place);
        check(root(), anyRegister());
    }
    void rest() override { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }
};

std::unique_ptr<Client> passingKind(Board& board, Slot& slot, std::size_t number) {
    if (number % 8 == 3) return makeManager(board, slot, Fault::none);
    if (number % 8 == 5) return makePoster(board, slot, Fault::none);
    if (number % 8 == 7) return makeObserver(board, slot, Fault::none);
    return std::make_unique<Visitor>(board, slot);
}

}  // namespace

std::unique_ptr<Client> passingClient(Board& board, Slot& slot, std::size_t number) {
    auto client = passingKind(board, slot, number);
    client->keepTo(number);
    return client;
}

}  // namespace soak
