#pragma once

#include "Processes.h"

#include "../ServerProcess.h"

namespace soak {

/// Runs the soak: the server with its restarts, the clients, the samples, the verdict.
class Director {
public:
    Director(const Schedule& schedule, Fault fault);

    /// Prints what happens and what it comes to.
    Verdict run();

private:
    void fillChanges();
    bool waitUntil(double at);
    void restart();
    void startServer();
    void sample();
    void collectFailures();
    void report() const;
    Verdict judge();
    void judgeGrowth();
    bool judgeFailures();
    void verifyAll(const char* when);
    void verifyNobodyIsLeft();
    void loseAWrite();
    void complain(const std::string& what) { complaints_.push_back(what); }
    double elapsed() const { return now() - start_; }

    const Schedule schedule_;
    const Fault fault_;
    Board& board_;
    ServerProcess server_;
    Processes processes_;
    double start_ = 0;
    std::vector<Outage> outages_;
    std::vector<Series> lives_;
    Series files_{"files", {}};
    struct Told {
        std::string client;
        Failure failure;
    };
    std::vector<Told> failures_;
    std::vector<std::string> complaints_, unjudged_;
    std::int64_t idleDescriptors_ = 0;
};

}  // namespace soak
