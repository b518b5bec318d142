#pragma once

#include "Ground.h"

#include "../ServerProcess.h"
#include "../faults/Support.h"

#include <sys/types.h>

#include <random>

namespace killing {

/// Kills and restarts the server so often while writers write and watchers watch, and records it.
class Rounds {
public:
    Rounds(const std::string& historyFile, Seed seed);
    Rounds(const Rounds&) = delete;
    Rounds& operator=(const Rounds&) = delete;
    ~Rounds();

    /// Throws std::runtime_error when something other than the server's data goes wrong.
    void run(int rounds);
    /// One line of figures.
    std::string summary() const;

private:
    void startClients();
    void round(int number);
    void waitForWriters();
    void killServer();
    void killWhileItStarts();
    void seedFault();
    void readAll();
    void finish();
    void waitForEnd(std::vector<pid_t>& clients, const char* who);
    long acknowledged() const;

    Ground& ground_;
    const Seed seed_;
    Record record_;
    ServerProcess server_;
    std::vector<pid_t> writers_, watchers_;
    std::mt19937 random_{20260501};
    int rounds_ = 0, earlyKills_ = 0;
};

}  // namespace killing
