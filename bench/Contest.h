#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Contenders that do the same work, measured against one another in one run: rounds in which each
/// has its turn, both sides of each pinned to one core, medians over the rounds, ratios to the
/// first.
namespace bench {

struct Contender {
    std::string name;
    std::function<void()> call;  ///< one request and its answer
};

struct Result {
    std::string name;
    double medianNs = 0;  ///< of the rounds' medians
    double p99Ns = 0;     ///< median of the rounds' 99th percentiles
    double ratio = 0;     ///< median of the rounds' ratios to the first contender
};

std::vector<Result> contest(const std::vector<Contender>& contenders, int rounds,
                            int callsPerRound);
void print(const std::vector<Result>& results);

/// Pins the calling process to one core.
void pinTo(int core);

/// A process of its own that runs `serve` until the benchmark ends; it calls its argument once it
/// can be used.
class ServerProcess {
public:
    explicit ServerProcess(const std::function<void(const std::function<void()>& ready)>& serve);
    /// Runs a program; it can be used once it has written something to its standard output.
    explicit ServerProcess(const std::vector<std::string>& command);
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess();
    int pid() const { return pid_; }
    /// The first line that the process wrote.
    const std::string& firstLine() const { return firstLine_; }

private:
    void waitUntilReady(int end);

    int pid_ = -1;
    std::string firstLine_;
};

}  // namespace bench
