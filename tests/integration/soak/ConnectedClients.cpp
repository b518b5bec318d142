#include "Client.h"

#include <OKVPlatform/values/Value.h>

#include <fcntl.h>

#include <thread>

namespace soak {

namespace {

// A refusal is told beside the zero value, which for some methods says nothing.
template <auto Method, class... Arguments>
auto ask(okv::RemoteObject& root, const Arguments&... arguments) {
    auto answer = okv::sendForAnswer<Method>(root, arguments...);
    if (answer.refusal) throw std::runtime_error("refused: " + answer.refusal->reason);
    return std::move(answer.value);
}

template <class T, class U>
void expectEqual(const T& found, const U& wanted, const char* what) {
    if (!(found == wanted)) throw WrongAnswer(what);
}

/// Reads whatever is written, and looks whether it can be.
class Reader final : public ConnectedClient {
public:
    Reader(Board& board, Slot& slot, Fault fault) : ConnectedClient(board, slot), fault_(fault) {}

protected:
    void step() override {
        if (Clock::now() >= nextFault_) beFaulty();
        check(root(), anyRegister());
    }

private:
    using Clock = std::chrono::steady_clock;

    void beFaulty() {
        nextFault_ = Clock::now() + std::chrono::seconds(1);
        if (fault_ == Fault::descriptors) (void)open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fault_ == Fault::memory) kept_.emplace_back(1U << 20, 'k');
        if (fault_ == Fault::error) throw std::runtime_error("an error put in on purpose");
    }

    const Fault fault_;
    Clock::time_point nextFault_ = Clock::now();
    std::vector<std::string> kept_;
};

class Writer final : public ConnectedClient {
public:
    using ConnectedClient::ConnectedClient;

protected:
    void step() override { raise(root(), own()); }
};

/// Gives accounts to users, takes users away, and switches this account's user.
class Switcher final : public ConnectedClient {
public:
    using ConnectedClient::ConnectedClient;

protected:
    void step() override {
        ++turn_;
        assign(4001 + turn_ % 3, 2 + turn_ % 4);
        const auto user = 2 + turn_ % 4;
        if (!ask<&Data::setCurrentUserIdForOSPT>(root(), Value(user)))
            throw std::runtime_error("the switch was not made");
        expectEqual(ask<&Data::currentUserIdPT>(root()), user, "not the user switched to");
        if (turn_ % 16 == 0) comeAndGo();
    }

private:
    void assign(std::int32_t account, std::int32_t user) {
        ask<&Data::setUseridPT_applyUid>(root(), account, user);
        expectEqual(ask<&Data::userAppuidPT>(root(), account), user, "not the account's user");
    }
    void comeAndGo() {
        constexpr std::int32_t kAccount = 4010, kGuest = 6, kDefault = 1;
        assign(kAccount, kGuest);
        expectEqual(ask<&Data::removeUserInfoPT>(root(), Value(kGuest)), true, "user not removed");
        expectEqual(ask<&Data::userAppuidPT>(root(), kAccount), kDefault, "a removed user");
    }

    std::int32_t turn_ = 0;
};

/// Calls the administration interface's methods, one after the other.
class Administrator final : public ConnectedClient {
public:
    using ConnectedClient::ConnectedClient;

protected:
    void step() override {
        switch (turn_++ % 8) {
            case 0:
                return lockAndUnlock();
            case 1:
                return listProcesses();
            case 2:
                return setClock();
            case 3:
                ask<&Admin::okvDataListPT>(root(), "soak.");
                return;
            case 4:
                ask<&Admin::okvDataInfoPT_appUid>(root(), board().registers[0].key, 1);
                return;
            case 5:
                ask<&Data::cmnSettingsDataPT>(root());
                return;
            case 6:
                if (turn_ % 64 == 7) exportAll();
                return;
            default:
                ask<&Admin::serverStatusPT>(root());
        }
    }
    void rest() override { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }

private:
    void lockAndUnlock() {
        const Value keys(Array{"soak-locked", "soak-locked-too"});
        ask<&Admin::lockOKVDataPT>(root(), keys);
        const auto locks = ask<&Admin::lockListPT>(root());
        expectEqual(locks.as<Dictionary>().contains("soak-locked"), true, "a lock is not there");
        ask<&Admin::unlockOKVDataPT>(root(), keys);
    }
    void listProcesses() {
        const auto name = "process" + std::to_string(turn_ % 20);
        ask<&Admin::setOkvKillWebProcListPT>(root(), Value(Dictionary{{name, turn_}}));
        const auto list = ask<&Data::okvKillWebProcListPT>(root());
        expectEqual(list.as<Dictionary>()[Value(name)], Value(turn_), "not the process listed");
    }
    void setClock() {
        ask<&Data::setServerTimePT>(root(), Value(okv::Date{1000.0 * turn_}));
        ask<&Data::serverTimePT>(root());
    }
    void exportAll() {
        const auto all = ask<&Admin::exportDataPT>(root());
        expectEqual(all.as<Dictionary>()["format"], Value(1), "no export");
    }

    int turn_ = 0;
};

/// Asks for the changes since the last time: none may be missing, whatever the server went through.
class Follower final : public ConnectedClient {
public:
    using ConnectedClient::ConnectedClient;

protected:
    void step() override {
        if (revision_ < 0) return begin();
        const auto answer = ask<&Admin::changesPT>(root(), Value(revision_));
        const auto& entries = answer.as<Dictionary>();
        expectEqual(entries["epoch"], epoch_, "another store");
        const auto* changes = entries["changes"].getIf<Array>();
        if (changes == nullptr) throw WrongAnswer("the changes are not known any more");
        for (const auto& change : *changes)
            expectEqual(change.as<Dictionary>()["revision"], Value(++revision_), "a gap");
        expectEqual(entries["revision"], Value(revision_), "a revision without its change");
    }
    void rest() override { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }

private:
    void begin() {
        const auto status = ask<&Admin::serverStatusPT>(root());
        epoch_ = status.as<Dictionary>()["epoch"];
        revision_ = status.as<Dictionary>()["revision"].longLongValue();
    }

    Value epoch_;
    std::int64_t revision_ = -1;
};

}  // namespace

std::unique_ptr<Client> makeReader(Board& board, Slot& slot, Fault fault) {
    return std::make_unique<Reader>(board, slot, fault);
}
std::unique_ptr<Client> makeWriter(Board& board, Slot& slot, Fault) {
    return std::make_unique<Writer>(board, slot);
}
std::unique_ptr<Client> makeSwitcher(Board& board, Slot& slot, Fault) {
    return std::make_unique<Switcher>(board, slot);
}
std::unique_ptr<Client> makeAdministrator(Board& board, Slot& slot, Fault) {
    return std::make_unique<Administrator>(board, slot);
}
std::unique_ptr<Client> makeFollower(Board& board, Slot& slot, Fault) {
    return std::make_unique<Follower>(board, slot);
}

}  // namespace soak
