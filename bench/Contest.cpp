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

ServerProcess::ServerProcess(const std::function<void(const std::function<void()>& ready)>& serve) {
    int pipe[2];
    if (::pipe(pipe) != 0) throw std::runtime_error("no pipe");
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(pipe[0]);
        serve([&] { (void)!write(pipe[1], "", 1); });
        _exit(0);
    }
    close(pipe[1]);
    char byte = 0;
    const auto count = read(pipe[0], &byte, 1);
    close(pipe[0]);
    if (count != 1) throw std::runtime_error("a server did not start");
}

ServerProcess::~ServerProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

}  // namespace bench
