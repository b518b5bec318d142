#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// Contenders that do the same work, measured against one another in one run: rounds in which each
/// has its turn, both sides of each pinned to one core, medians over the rounds, ratios to the
/// first.
namespace bench {

struct Contender {
    std::string name;
    std::function<void()> call;  ///< one request and its answer
    /// Around its turn in each round, outside of what is measured; none where not given.
    std::function<void()> begin = {}, end = {};
};

struct Result {
    std::string name;
    double medianNs = 0;  ///< of the rounds' medians
    double p99Ns = 0;     ///< median of the rounds' 99th percentiles
    double ratio = 0;     ///< median of the rounds' ratios to the first contender, of medians
    double p99Ratio = 0;  ///< the same, of 99th percentiles
};

struct Rounds {
    int count;
    int calls;                           ///< of each contender in each round
    std::chrono::microseconds pause{0};  ///< before each call, outside of what is measured
};

std::vector<Result> contest(const std::vector<Contender>& contenders, const Rounds& rounds);
void print(const std::vector<Result>& results);

/// The value below which that part of them lies; 0.5 is the median.
double quantileOf(std::vector<double> values, double quantile);

/// Pins the calling process to one core; another process with all its threads.
void pinTo(int core);
void pinTo(int core, int pid);

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
    /// False when it has ended by itself.
    bool isRunning() const;

private:
    void waitUntilReady(int end);

    int pid_ = -1;
};

}  // namespace bench
