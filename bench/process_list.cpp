// How long the two process lists take, beside libproc2 walking the same columns and beside `ps`.
// All are run in turn, round by round, among 300 sleeping processes; medians are printed.

#include "Contest.h"

#include <OKVDataManager/okvCmnUtil.h>

#include <fcntl.h>
#include <libproc2/pids.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace {

constexpr int kSleepers = 300;
constexpr int kRounds = 101;
constexpr int kRoundsOfPs = 11;

class Sleepers {
public:
    Sleepers() {
        for (int i = 0; i < kSleepers; ++i) add();
    }
    Sleepers(const Sleepers&) = delete;
    Sleepers& operator=(const Sleepers&) = delete;
    ~Sleepers() {
        for (const auto pid : pids_) kill(pid, SIGKILL);
        for (const auto pid : pids_) waitpid(pid, nullptr, 0);
    }

private:
    void add() {
        const pid_t pid = fork();
        if (pid == 0) {
            pause();
            _exit(0);
        }
        if (pid > 0) pids_.push_back(pid);
    }
    std::vector<pid_t> pids_;
};

// One way to list processes: answers how many there were.
struct Lister {
    const char* name;
    std::function<std::size_t()> run;
    int rounds = kRounds;
    std::vector<double> microseconds = {};
    std::size_t count = 0;
};

class Libproc2 {
public:
    Libproc2() {
        if (procps_pids_new(&context_, kColumns, 5) < 0) std::exit(1);
    }
    Libproc2(const Libproc2&) = delete;
    Libproc2& operator=(const Libproc2&) = delete;
    ~Libproc2() { procps_pids_unref(&context_); }

    // The least that a caller can do: the columns are reached, nothing is kept. A context walks
    // once.
    std::size_t walk() {
        std::size_t count = 0;
        while (procps_pids_get(context_, PIDS_FETCH_TASKS_ONLY) != nullptr) ++count;
        return count;
    }
    std::size_t reap() {
        const auto* fetched = procps_pids_reap(context_, PIDS_FETCH_TASKS_ONLY);
        return fetched == nullptr ? 0 : static_cast<std::size_t>(fetched->counts->total);
    }

private:
    static pids_item kColumns[];
    pids_info* context_ = nullptr;
};

pids_item Libproc2::kColumns[] = {PIDS_ID_PID, PIDS_ID_RUID, PIDS_ID_RGID, PIDS_CMD, PIDS_ID_PPID};

std::size_t runPs() {
    const char* arguments[] = {"ps", "-eo", "pid,uid,gid,comm,ppid", nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    if (posix_spawnp(&pid, "ps", &actions, nullptr, const_cast<char**>(arguments), environ) != 0)
        std::exit(1);
    posix_spawn_file_actions_destroy(&actions);
    waitpid(pid, nullptr, 0);
    return 0;
}

void measure(Lister& lister) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    lister.count = lister.run();
    lister.microseconds.push_back(
        std::chrono::duration<double, std::micro>(Clock::now() - start).count());
}

// The median of round-by-round quotients: what disturbs a round disturbs both sides of it.
double pairedRatio(const Lister& lister, const Lister& other) {
    std::vector<double> ratios;
    const auto rounds = std::min(lister.microseconds.size(), other.microseconds.size());
    for (std::size_t i = 0; i < rounds; ++i)
        ratios.push_back(lister.microseconds[i] / other.microseconds[i]);
    return bench::quantileOf(std::move(ratios), 0.5);
}

}  // namespace

int main() {
    const Sleepers sleepers;
    Libproc2 libproc2;
    std::vector<Lister> listers{
        {"libproc2 get", [] { return Libproc2().walk(); }},
        {"libproc2 reap", [&] { return libproc2.reap(); }},
        {"processListBSD", [] { return okvCmnUtil::processListBSD().size(); }},
        {"processList", [] { return okvCmnUtil::processList().size(); }},
        {"ps -eo pid,uid,gid,comm,ppid", runPs, kRoundsOfPs},
    };
    for (int round = 0; round < kRounds; ++round) {
        for (auto& lister : listers)
            if (round < lister.rounds) measure(lister);
    }
    std::printf("%-30s %12s %8s %8s %8s\n", "", "median us", "records", "to get", "to reap");
    for (const auto& lister : listers)
        std::printf("%-30s %12.0f %8zu %8.2f %8.2f\n", lister.name,
                    bench::quantileOf(lister.microseconds, 0.5), lister.count,
                    pairedRatio(lister, listers[0]), pairedRatio(lister, listers[1]));
}
