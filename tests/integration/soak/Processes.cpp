#include "Processes.h"

#include "Measure.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <thread>

namespace soak {

namespace {

constexpr std::size_t kPassingAtOnce = 4;
constexpr std::size_t kRegistersOfPassing = 16;
constexpr long kStepsOfPassing = 20;
// A client that has had no success for so long stands still.
constexpr double kGetsOnWithin = 20.0 * faults::kSlowness;
constexpr double kEndsWithin = 20.0 * faults::kSlowness;

// A group of its own: who interrupts the soak does not interrupt the clients' calls, whose failing
// would be a finding.
pid_t startClient(const std::function<void()>& work) {
    return support::startChild([&] {
        setpgid(0, 0);
        work();
    });
}

}  // namespace

Processes::Processes(Board& board, Fault fault) : board_(board), fault_(fault) {
    for (std::size_t i = 0; i < kPassingAtOnce; ++i)
        freeSlots_.push_back(
            &board_.add("passing" + std::to_string(i + 1), Place::user, kRegistersOfPassing));
}

Processes::~Processes() {
    for (const auto& client : lasting_) kill(client.pid, SIGKILL);
    for (const auto& client : passing_) kill(client.pid, SIGKILL);
    for (const auto& client : lasting_) waitpid(client.pid, nullptr, 0);
    for (const auto& client : passing_) waitpid(client.pid, nullptr, 0);
}

void Processes::startLasting() {
    for (const auto& kind : lastingClients()) {
        auto& slot = board_.add(kind.name, kind.place, kind.registers);
        const auto fault = slot.name() == std::string("reader1") ? fault_ : Fault::none;
        const auto pid = startClient([&] { kind.make(board_, slot, fault)->run(); });
        lasting_.push_back({pid, &slot});
        series_.push_back({kind.name, {}});
    }
}

// Some end by themselves after a few steps, and some are killed in the middle of one.
void Processes::startPassing(Slot& slot) {
    const auto number = static_cast<std::size_t>(passed_++);
    const bool isToBeKilled = random_() % 2 == 0;
    slot.begin(slot.name(), slot.firstRegister(), slot.registerCount());
    const auto pid = startClient(
        [&] { passingClient(board_, slot, number)->run(isToBeKilled ? -1 : kStepsOfPassing); });
    passing_.push_back(
        {pid, &slot, isToBeKilled ? now() + static_cast<double>(random_() % 1500) / 1000 : 0});
}

bool Processes::hasEnded(pid_t pid, const Slot& slot, bool killed) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) != pid) return false;
    const bool asMeant =
        WIFEXITED(status) ? WEXITSTATUS(status) == 0 : killed && WTERMSIG(status) == SIGKILL;
    if (!asMeant) complain(slot, "ended with wait status " + std::to_string(status));
    return true;
}

void Processes::turn() {
    for (auto at = passing_.begin(); at != passing_.end();) {
        const bool kills = at->killAt > 0 && now() >= at->killAt;
        if (kills) kill(at->pid, SIGKILL);
        if (hasEnded(at->pid, *at->slot, kills)) {
            killed_ += kills;
            freeSlots_.push_back(at->slot);
            at = passing_.erase(at);
        } else {
            ++at;
        }
    }
    if (freeSlots_.empty() || board_.stop || random_() % 16 != 0) return;
    startPassing(*freeSlots_.front());
    freeSlots_.erase(freeSlots_.begin());
}

void Processes::lookAfter() {
    for (auto& client : lasting_) {
        if (client.pid > 0 && hasEnded(client.pid, *client.slot, false)) {
            complain(*client.slot, "ended too early");
            client.pid = -1;
        }
        if (client.told || now() - client.slot->lastSuccess() < kGetsOnWithin) continue;
        client.told = true;
        complain(*client.slot, "stands still");
    }
}

void Processes::sample(double at) {
    for (std::size_t i = 0; i < lasting_.size(); ++i) {
        if (lasting_[i].pid > 0) series_[i].samples.push_back(measure(lasting_[i].pid, at));
    }
}

void Processes::endAll() {
    const auto until = now() + kEndsWithin;
    const auto isGone = [this](pid_t& pid, const Slot& slot, bool killed) {
        if (pid > 0 && hasEnded(pid, slot, killed)) pid = -1;
        return pid < 0;
    };
    for (bool gone = false; !gone && now() < until;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        turn();
        gone = passing_.empty();
        for (auto& client : lasting_) gone = isGone(client.pid, *client.slot, false) && gone;
    }
    for (const auto& client : passing_) complain(*client.slot, "does not end");
    for (const auto& client : lasting_) {
        if (client.pid > 0) complain(*client.slot, "does not end");
    }
    std::erase_if(lasting_, [](const Lasting& client) { return client.pid < 0; });
}

void Processes::complain(const Slot& slot, const std::string& what) {
    complaints_.push_back(std::string(slot.name()) + ": " + what);
}

}  // namespace soak
