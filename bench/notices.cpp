// Distributed notices: the time from a post to its delivery in another process, and what observing
// processes, live and stopped, cost a poster. Everything runs on one processor core, so that the
// whole cost shows: the observers' work has no other core to go to.

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/RunLoop.h>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using okv::DistributedNotificationCenter;

constexpr char kName[] = "org.example.changed";
constexpr int kWarmUp = 200;
constexpr int kSamples = 3000;
constexpr int kPostsAtOnce = 2000;
constexpr int kRounds = 7;

double microseconds(Clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

void pinToOneCore() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) std::perror("sched_setaffinity");
}

okv::Value information() {
    return okv::Dictionary{{"osuserid", -1},
                           {"session_userid", 0},
                           {"revision", 123456},
                           {"epoch", "0123456789abcdef"},
                           {"keys", okv::Array{"dc-group-name_of_a_key"}}};
}

/// A process that observes and writes a byte for every notice it hears, when asked to.
class Observer {
public:
    Observer(const std::string& folder, bool answers) {
        int ends[2];
        if (pipe(ends) != 0) std::abort();
        pid_ = fork();
        if (pid_ == 0) observe(folder, ends[1], answers);
        close(ends[1]);
        answers_ = ends[0];
        waitForAnswer();
    }
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;
    ~Observer() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(answers_);
    }

    void waitForAnswer() const {
        char byte = 0;
        if (read(answers_, &byte, 1) != 1) std::abort();
    }
    Clock::time_point deliveredAt() const {
        Clock::time_point when;
        if (read(answers_, &when, sizeof when) != sizeof when) std::abort();
        return when;
    }
    void stop() const {
        kill(pid_, SIGSTOP);
        int status = 0;
        waitpid(pid_, &status, WUNTRACED);
    }

private:
    static void tell(int answers, const void* bytes, std::size_t size) {
        if (write(answers, bytes, size) < 0) _exit(1);
    }
    [[noreturn]] static void observe(const std::string& folder, int answers, bool answering) {
        DistributedNotificationCenter center(folder);
        const auto object = okv::make<okv::ObjectArray>();
        center.addObserver(
            *object,
            [&](const okv::Notification&) {
                const auto now = Clock::now();
                if (answering) tell(answers, &now, sizeof now);
            },
            kName);
        tell(answers, "r", 1);
        okv::RunLoop::current()->run();
        _exit(0);
    }

    pid_t pid_ = 0;
    int answers_ = -1;
};

void measureDelivery(const std::string& folder) {
    DistributedNotificationCenter center(folder);
    const Observer observer(folder, true);
    const auto what = information();
    std::vector<double> times;
    for (int i = 0; i < kWarmUp + kSamples; ++i) {
        const auto start = Clock::now();
        center.post(kName, {}, what);
        const auto delivered = observer.deliveredAt();
        if (i >= kWarmUp) times.push_back(microseconds(delivered - start));
    }
    std::printf("post to delivery in another process, one core: median %.1f us\n", median(times));
}

/// What a post costs the core in all: yielding lets every live observer hear of it before the next
/// one, so that their work is counted in full and none hears of two notices at one wake-up.
double postingCost(DistributedNotificationCenter& center, bool yielding) {
    const auto what = information();
    std::vector<double> rounds;
    for (int round = 0; round < kRounds; ++round) {
        const auto start = Clock::now();
        for (int i = 0; i < kPostsAtOnce; ++i) {
            center.post(kName, {}, what);
            if (yielding) sched_yield();
        }
        rounds.push_back(microseconds(Clock::now() - start) / kPostsAtOnce);
    }
    return median(rounds);
}

void measurePosting(const std::string& folder, int count, bool stopped, double& alone) {
    DistributedNotificationCenter center(folder);
    std::vector<std::unique_ptr<Observer>> observers;
    for (int i = 0; i < count; ++i) {
        observers.push_back(std::make_unique<Observer>(folder, false));
        if (stopped) observers.back()->stop();
    }
    const double straight = postingCost(center, false);
    const double yielding = stopped ? straight : postingCost(center, true);
    const double cost = std::max(straight, yielding);
    if (count == 0) alone = cost;
    std::printf("post with %3d %s observers: %7.2f us, yielding %7.2f us", count,
                stopped ? "stopped" : "live   ", straight, yielding);
    if (count != 0) std::printf("; %.2f us more for each", (cost - alone) / count);
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::string folder = std::string(argc > 1 ? argv[1] : "/tmp") + "/notices-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        std::perror("a folder to measure in");
        return 1;
    }
    pinToOneCore();
    measureDelivery(folder);
    double alone = 0;
    for (const int count : {0, 20, 100}) measurePosting(folder, count, false, alone);
    for (const int count : {0, 20, 100}) measurePosting(folder, count, true, alone);
    std::filesystem::remove_all(folder);
}
