#pragma once

#include "Client.h"
#include "Verdict.h"

#include <sys/types.h>

#include <list>

namespace soak {

/// Client processes, started and ended by the director. They end with it, however that ends.
class Processes {
public:
    Processes(Board& board, Fault fault);
    Processes(const Processes&) = delete;
    Processes& operator=(const Processes&) = delete;
    ~Processes();

    void startLasting();
    /// Starts passing clients, kills those whose time has come, and collects those that ended.
    void turn();
    /// Waits until all have ended by themselves; what did not is killed and told.
    void endAll();
    /// Looks whether every lasting client lives and gets on.
    void lookAfter();

    /// What went wrong with a process as such.
    const std::vector<std::string>& complaints() const { return complaints_; }
    const std::vector<Series>& lasting() const { return series_; }
    void sample(double at);
    long passed() const { return passed_; }
    long killed() const { return killed_; }

private:
    struct Lasting {
        pid_t pid;
        Slot* slot;
        bool told = false;  ///< that it stands still
    };
    struct Passing {
        pid_t pid;
        Slot* slot;
        double killAt;  ///< 0: it ends by itself
    };

    void startPassing(Slot& slot);
    bool hasEnded(pid_t pid, const Slot& slot, bool killed);
    void complain(const Slot& slot, const std::string& what);

    Board& board_;
    const Fault fault_;
    std::vector<Lasting> lasting_;
    std::vector<Series> series_;
    std::vector<Slot*> freeSlots_;
    std::list<Passing> passing_;
    std::vector<std::string> complaints_;
    std::mt19937 random_{20260501};
    long passed_ = 0, killed_ = 0;
};

}  // namespace soak
