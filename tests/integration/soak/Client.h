#pragma once

#include "Numbers.h"

#include <chrono>
#include <optional>
#include <random>

namespace soak {

/// A fault that is put in on purpose, to show that it is found.
enum class Fault { none, descriptors, memory, error, lostWrite };

/// A client: does something over and over until the board says stop. A step that throws is told as
/// a failure, and the client goes on.
class Client {
public:
    Client(Board& board, Slot& slot) : board_(board), slot_(slot) {}
    virtual ~Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Until the board says stop, or so many steps.
    void run(long steps = -1);
    /// Uses this one of its registers alone: what a process before it left on the way to the server
    /// must not come after what this one sends.
    void keepTo(std::size_t own) { kept_ = own; }

protected:
    virtual void step() = 0;
    /// The pause between steps.
    virtual void rest();
    /// Since when a step that fails may have met what made it fail.
    virtual double blamedFrom(double begun) const { return begun; }

    Board& board() const { return board_; }
    const Slot& slot() const { return slot_; }
    /// One of this client's registers, each in turn.
    Register& own();
    Register& anyRegister();
    std::size_t below(std::size_t limit);

private:
    bool stepAndTell();

    Board& board_;
    Slot& slot_;
    std::size_t turn_ = 0;
    std::optional<std::size_t> kept_;
    std::mt19937 random_{std::random_device()()};
};

/// A client with a connection of its own, which it looks at before every step.
class ConnectedClient : public Client {
public:
    using Client::Client;

protected:
    okv::RemoteObject& root();
    virtual void connected() {}

private:
    okv::Ref<okv::Connection> connection_;
    okv::Ref<okv::RemoteObject> root_;
};

using MakeClient = std::unique_ptr<Client> (*)(Board&, Slot&, Fault);

/// One that is started once and lives to the end.
struct LastingClient {
    const char* name;
    MakeClient make;
    Place place = Place::user;
    std::size_t registers = 0;
};
const std::vector<LastingClient>& lastingClients();
/// One that comes and goes: which of the kinds of them depends on the number.
std::unique_ptr<Client> passingClient(Board& board, Slot& slot, std::size_t number);

std::unique_ptr<Client> makeReader(Board& board, Slot& slot, Fault fault);
std::unique_ptr<Client> makeWriter(Board& board, Slot& slot, Fault fault);
std::unique_ptr<Client> makeSwitcher(Board& board, Slot& slot, Fault fault);
std::unique_ptr<Client> makeAdministrator(Board& board, Slot& slot, Fault fault);
std::unique_ptr<Client> makeFollower(Board& board, Slot& slot, Fault fault);
std::unique_ptr<Client> makeManager(Board& board, Slot& slot, Fault fault);
std::unique_ptr<Client> makeTool(Board& board, Slot& slot, Fault fault);
std::unique_ptr<Client> makeObserver(Board& board, Slot& slot, Fault fault);
std::unique_ptr<Client> makePoster(Board& board, Slot& slot, Fault fault);

}  // namespace soak
