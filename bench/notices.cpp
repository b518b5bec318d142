// Distributed notices: the time from a post to its delivery in another process, and what observing
// processes, live and stopped, cost a poster. Everything runs on one processor core, so that the
// whole cost shows: the observers' work has no other core to go to.

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/RunLoop.h>

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "Contest.h"

#include "support/Files.h"

namespace {

using Clock = std::chrono::steady_clock;
using okv::DistributedNotificationCenter;

constexpr char kName[] = "org.example.changed";
constexpr int kWarmUp = 200;
constexpr int kSamples = 3000;
constexpr int kPostsAtOnce = 1000;
constexpr int kRounds = 5;

double microseconds(Clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

okv::Value information() {
    return okv::Dictionary{{"osuserid", -1},
                           {"session_userid", 0},
                           {"revision", 123456},
                           {"epoch", "0123456789abcdef"},
                           {"keys", okv::Array{"dc-group-name_of_a_key"}}};
}

/// How many calls the observers of all processes had.
std::atomic<std::uint64_t>* sharedCounter() {
    void* memory = mmap(nullptr, sizeof(std::atomic<std::uint64_t>), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    return new (memory) std::atomic<std::uint64_t>(0);
}

std::atomic<std::uint64_t>* const heard = sharedCounter();

double secondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// A process that observes; when asked to, it tells the time of every notice it hears.
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
    /// Seconds.
    double processorTime() const {
        clockid_t clock{};
        if (clock_getcpuclockid(pid_, &clock) != 0) std::abort();
        return secondsOf(clock);
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
                heard->fetch_add(1);
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
    std::printf("post to delivery in another process, one core: median %.1f us\n",
                bench::quantileOf(times, 0.5));
}

/// Microseconds per post.
struct Cost {
    double straight = 0;   ///< elapsed, post after post
    double lockstep = 0;   ///< elapsed, each post heard by every live observer before the next
    double poster = 0;     ///< processor time of the post itself, in lockstep
    double observers = 0;  ///< processor time of all observers together, in lockstep
};

using Observers = std::vector<std::unique_ptr<Observer>>;

double processorTimeOf(const Observers& observers) {
    double sum = 0;
    for (const auto& observer : observers) sum += observer->processorTime();
    return sum;
}

double postStraight(DistributedNotificationCenter& center) {
    const auto what = information();
    const auto start = Clock::now();
    for (int i = 0; i < kPostsAtOnce; ++i) center.post(kName, {}, what);
    return microseconds(Clock::now() - start) / kPostsAtOnce;
}

void waitUntilHeard(std::uint64_t calls) {
    while (heard->load() < calls) sched_yield();
}

/// Observers that are stopped hear nothing, so that nobody waits for them.
void postInLockstep(DistributedNotificationCenter& center, const Observers& observers,
                    std::size_t live, Cost& cost) {
    const auto what = information();
    const auto observersBefore = processorTimeOf(observers);
    const auto start = Clock::now();
    double posting = 0;
    auto calls = heard->load();
    for (int i = 0; i < kPostsAtOnce; ++i) {
        const auto before = secondsOf(CLOCK_THREAD_CPUTIME_ID);
        center.post(kName, {}, what);
        posting += secondsOf(CLOCK_THREAD_CPUTIME_ID) - before;
        waitUntilHeard(calls += live);
    }
    cost.lockstep = microseconds(Clock::now() - start) / kPostsAtOnce;
    cost.poster = posting * 1e6 / kPostsAtOnce;
    cost.observers = (processorTimeOf(observers) - observersBefore) * 1e6 / kPostsAtOnce;
}

Cost medianOf(const std::vector<Cost>& rounds) {
    Cost result;
    for (double Cost::*part : {&Cost::straight, &Cost::lockstep, &Cost::poster, &Cost::observers}) {
        std::vector<double> values;
        for (const auto& round : rounds) values.push_back(round.*part);
        result.*part = bench::quantileOf(std::move(values), 0.5);
    }
    return result;
}

Cost costWith(const std::string& folder, int count, bool stopped) {
    DistributedNotificationCenter center(folder);
    Observers observers;
    for (int i = 0; i < count; ++i) {
        observers.push_back(std::make_unique<Observer>(folder, false));
        if (stopped) observers.back()->stop();
    }
    const auto live = stopped ? 0 : observers.size();
    std::vector<Cost> rounds(kRounds);
    for (auto& round : rounds) {
        postInLockstep(center, observers, live, round);
        // What was posted straight is heard before the next round begins.
        const auto calls = heard->load() + live * kPostsAtOnce;
        round.straight = postStraight(center);
        waitUntilHeard(calls);
    }
    return medianOf(rounds);
}

void measurePosting(const std::string& folder, bool stopped) {
    Cost alone;
    std::printf(
        "\n%s observers   straight  lockstep  poster's cpu  observers' cpu"
        "   more per observer: straight, lockstep, cpu\n",
        stopped ? "stopped" : "live   ");
    for (const int count : {0, 20, 100}) {
        const auto cost = costWith(folder, count, stopped);
        if (count == 0) alone = cost;
        std::printf("%17d %10.2f %9.2f %13.2f %15.2f", count, cost.straight, cost.lockstep,
                    cost.poster, cost.observers);
        if (count != 0)
            std::printf("   %.2f, %.2f, %.2f", (cost.straight - alone.straight) / count,
                        (cost.lockstep - alone.lockstep) / count,
                        (cost.poster + cost.observers - alone.poster) / count);
        std::printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    const support::TempFolder folder(argc > 1 ? argv[1] : "/tmp");
    bench::pinTo(0);
    measureDelivery(folder.path());
    for (const bool stopped : {false, true}) measurePosting(folder.path(), stopped);
}
