#include "Contest.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <stdexcept>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

double at(std::vector<double>& values, double quantile) {
    const auto index =
        static_cast<std::ptrdiff_t>(quantile * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + index, values.end());
    return values[static_cast<std::size_t>(index)];
}

struct Round {
    double median;
    double p99;
};

Round play(const Contender& contender, int calls) {
    std::vector<double> times;
    times.reserve(static_cast<std::size_t>(calls));
    for (int i = 0; i < calls; ++i) {
        const auto start = Clock::now();
        contender.call();
        times.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
    }
    return {at(times, 0.5), at(times, 0.99)};
}

}  // namespace

void pinTo(int core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(core), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0)
        throw std::runtime_error("cannot pin to a core");
}

std::vector<Result> contest(const std::vector<Contender>& contenders, int rounds,
                            int callsPerRound) {
    for (const auto& contender : contenders) play(contender, callsPerRound / 4 + 1);  // warm
    std::vector<std::vector<double>> medians(contenders.size()), tails(contenders.size()),
        ratios(contenders.size());
    for (int r = 0; r < rounds; ++r) {
        double first = 0;
        for (std::size_t i = 0; i < contenders.size(); ++i) {
            const auto round = play(contenders[i], callsPerRound);
            if (i == 0) first = round.median;
            medians[i].push_back(round.median);
            tails[i].push_back(round.p99);
            ratios[i].push_back(round.median / first);
        }
    }
    std::vector<Result> results;
    for (std::size_t i = 0; i < contenders.size(); ++i)
        results.push_back(
            {contenders[i].name, at(medians[i], 0.5), at(tails[i], 0.5), at(ratios[i], 0.5)});
    return results;
}

void print(const std::vector<Result>& results) {
    std::printf("%-44s %10s %10s %7s\n", "one call", "median ns", "p99 ns", "ratio");
    for (const auto& result : results)
        std::printf("%-44s %10.0f %10.0f %7.2f\n", result.name.c_str(), result.medianNs,
                    result.p99Ns, result.ratio);
}

namespace {

struct Pipe {
    int ends[2];
    Pipe() {
        if (pipe(ends) != 0) throw std::runtime_error("no pipe");
        std::fflush(nullptr);
    }
};

[[noreturn]] void run(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const auto& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

}  // namespace

ServerProcess::ServerProcess(const std::function<void(const std::function<void()>& ready)>& serve) {
    const Pipe pipe;
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no process");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(pipe.ends[0]);
        serve([&] { (void)!write(pipe.ends[1], "\n", 1); });
        _exit(0);
    }
    close(pipe.ends[1]);
    waitUntilReady(pipe.ends[0]);
}

ServerProcess::ServerProcess(const std::vector<std::string>& command) {
    const Pipe pipe;
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no process");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(pipe.ends[1], STDOUT_FILENO);
        run(command);
    }
    close(pipe.ends[1]);
    waitUntilReady(pipe.ends[0]);
}

void ServerProcess::waitUntilReady(int end) {
    char byte = 0;
    ssize_t count = 0;
    while ((count = read(end, &byte, 1)) == 1 && byte != '\n') firstLine_ += byte;
    if (count != 1) throw std::runtime_error("a server did not start");
    // The end stays open: a server that writes on must not die of it.
}

ServerProcess::~ServerProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

}  // namespace bench
