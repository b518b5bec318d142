#include "Contest.h"

#include "support/Processes.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

struct Round {
    double median;
    double p99;
};

/// All rounds of one contender, each beside the first contender's in the same round.
struct Played {
    std::vector<double> medians{}, tails{}, ratios{}, tailRatios{};

    void add(const Round& round, const Round& first) {
        medians.push_back(round.median);
        tails.push_back(round.p99);
        ratios.push_back(round.median / first.median);
        tailRatios.push_back(round.p99 / first.p99);
    }
    Result resultOf(const std::string& name) const {
        return {name, quantileOf(medians, 0.5), quantileOf(tails, 0.5), quantileOf(ratios, 0.5),
                quantileOf(tailRatios, 0.5)};
    }
};

Round play(const Contender& contender, int calls, std::chrono::microseconds pause) {
    std::vector<double> times;
    times.reserve(static_cast<std::size_t>(calls));
    if (contender.begin) contender.begin();
    for (int i = 0; i < calls; ++i) {
        if (pause.count() > 0) std::this_thread::sleep_for(pause);
        const auto start = Clock::now();
        contender.call();
        times.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
    }
    if (contender.end) contender.end();
    return {quantileOf(times, 0.5), quantileOf(times, 0.99)};
}

}  // namespace

namespace {

void pinThread(int core, int thread) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(core), &set);
    if (sched_setaffinity(thread, sizeof set, &set) != 0)
        throw std::runtime_error("cannot pin to a core");
}

}  // namespace

double quantileOf(std::vector<double> values, double quantile) {
    const auto index =
        static_cast<std::ptrdiff_t>(quantile * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + index, values.end());
    return values[static_cast<std::size_t>(index)];
}

void pinTo(int core) {
    pinThread(core, 0);
}

void pinTo(int core, int pid) {
    const auto tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks))
        pinThread(core, std::stoi(task.path().filename()));
}

std::vector<Result> contest(const std::vector<Contender>& contenders, const Rounds& rounds) {
    for (const auto& contender : contenders)  // warm
        play(contender, rounds.calls / 4 + 1, rounds.pause);
    std::vector<Played> all(contenders.size());
    for (int r = 0; r < rounds.count; ++r) {
        Round first{};
        for (std::size_t i = 0; i < contenders.size(); ++i) {
            const auto round = play(contenders[i], rounds.calls, rounds.pause);
            if (i == 0) first = round;
            all[i].add(round, first);
        }
    }
    std::vector<Result> results;
    for (std::size_t i = 0; i < contenders.size(); ++i)
        results.push_back(all[i].resultOf(contenders[i].name));
    return results;
}

void print(const std::vector<Result>& results) {
    std::printf("%-44s %10s %10s %7s %7s\n", "one call", "median ns", "p99 ns", "ratio", "of p99");
    for (const auto& result : results)
        std::printf("%-44s %10.0f %10.0f %7.2f %7.2f\n", result.name.c_str(), result.medianNs,
                    result.p99Ns, result.ratio, result.p99Ratio);
}

namespace {

struct Pipe {
    int ends[2];
    Pipe() {
        if (pipe(ends) != 0) throw std::runtime_error("no pipe");
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
    pid_ = support::startChild([&] {
        close(pipe.ends[0]);
        serve([&] { (void)!write(pipe.ends[1], "\n", 1); });
    });
    close(pipe.ends[1]);
    waitUntilReady(pipe.ends[0]);
}

ServerProcess::ServerProcess(const std::vector<std::string>& command) {
    const Pipe pipe;
    pid_ = support::startChild([&] {
        dup2(pipe.ends[1], STDOUT_FILENO);
        run(command);
    });
    close(pipe.ends[1]);
    waitUntilReady(pipe.ends[0]);
}

void ServerProcess::waitUntilReady(int end) {
    char byte = 0;
    ssize_t count = 0;
    while ((count = read(end, &byte, 1)) == 1 && byte != '\n') {
    }
    if (count != 1) throw std::runtime_error("a server did not start");
    // The end stays open: a server that writes on must not die of it.
}

bool ServerProcess::isRunning() const {
    return support::isRunning(pid_);
}

ServerProcess::~ServerProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

}  // namespace bench
