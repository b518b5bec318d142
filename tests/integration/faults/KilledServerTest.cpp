#include "Support.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <deque>
#include <filesystem>
#include <future>
#include <optional>
#include <thread>
#include <vector>

using namespace faults;
using okv::Connection;
using okv::ConnectionError;
using okv::Ref;
using okv::RemoteObject;
using okv::RunLoop;
using okv::Value;

namespace {

struct Failure {
    std::optional<ConnectionError::Kind> kind;
    Clock::time_point at;
};

std::thread callIn(RemoteObject& root, Failure& failure) {
    return std::thread([&] {
        failure.kind = failureOf([&] { set(root, "k", 1); });
        failure.at = Clock::now();
    });
}

// Four calls are under way: one is being committed, three wait behind it. Answers how long after
// the kill the last of them had thrown.
Clock::duration killInTheMiddleOfCalls(ServerProcess& server) {
    const HoldableDisk disk(server.file("gate"));
    EXPECT_TRUE(server.start({"--backup-interval", "0"}));  // a backup flushes, too
    const auto mourner = okv::make<Mourner>();
    const auto watched = connection();
    const auto root = watched->rootProxy();
    const auto other = connect();
    Failure failures[4];
    std::vector<std::thread> callers;
    const Gate gate(server.file("gate"));
    callers.push_back(callIn(*root, failures[0]));
    EXPECT_TRUE(gate.awaitArrival());
    for (int i = 1; i < 4; ++i) callers.push_back(callIn(*root, failures[i]));
    while (status(*other)["waiting"] != Value(3)) std::this_thread::yield();
    const auto killed = Clock::now();
    server.signal(SIGKILL);
    for (auto& caller : callers) caller.join();
    server.wait();
    auto last = killed;
    for (const auto& failure : failures) {
        EXPECT_EQ(failure.kind, ConnectionError::Kind::outcomeUnknown);
        last = std::max(last, failure.at);
    }
    EXPECT_EQ(mourner->deathsOf(*watched), 1);
    EXPECT_FALSE(watched->isValid());
    return last - killed;
}

}  // namespace

TEST(AKilledServer, FailsTheCallsUnderWayAtOnceWithUnknownOutcomeAndIsToldOnce) {
    ServerProcess server;
    std::vector<Clock::duration> delays;
    for (int i = 0; i < 5; ++i) delays.push_back(killInTheMiddleOfCalls(server));
    // The one in the middle: a single round may fall on a moment when the machine does not run us.
    std::nth_element(delays.begin(), delays.begin() + 2, delays.end());
    EXPECT_LT(delays[2], std::chrono::milliseconds(50 * kSlowness));
    RecordProperty("milliseconds",
                   std::to_string(std::chrono::duration<double, std::milli>(delays[2]).count()));
}

namespace {

constexpr int kThreads = 8;
constexpr int kKeys = 50;

std::string keyOf(int thread, int number) {
    return "t" + std::to_string(thread) + "." + std::to_string(number);
}
std::string valueOf(int thread, int number) {
    return keyOf(thread, number) + std::string(static_cast<std::size_t>(number * 7 % 300), 'v');
}

/// The one connection that all threads of a process share; who finds it dead makes the next one,
/// on his own thread or, every other time, on that of the run loop.
class SharedConnection {
public:
    explicit SharedConnection(RunLoop& loop) : loop_(loop) {}

    /// The present one; null while there is no server.
    Ref<Connection> get() {
        const std::lock_guard lock(mutex_);
        if (present_ && present_->isValid()) return present_;
        present_ = made_.size() % 2 == 0 ? onRunLoop() : connectOnce();
        if (present_) made_.push_back(present_);
        return present_;
    }
    /// Every one that there was; kept, so that no two have the same address.
    const std::deque<Ref<Connection>>& made() const { return made_; }

private:
    static Ref<Connection> connectOnce() {
        return Connection::connectionWithRegisteredName(kOKVDataServerName);
    }
    Ref<Connection> onRunLoop() {
        std::promise<Ref<Connection>> made;
        loop_.perform([&] { made.set_value(connectOnce()); });
        return made.get_future().get();
    }

    RunLoop& loop_;
    std::mutex mutex_;
    Ref<Connection> present_;
    std::deque<Ref<Connection>> made_;
};

class RunLoopThread {
public:
    RunLoopThread()
        : thread_([this] {
              loop_.set_value(RunLoop::current());
              RunLoop::current()->run();
          }),
          running_(loop_.get_future().get()) {}
    ~RunLoopThread() {
        running_->stop();
        thread_.join();
    }
    RunLoopThread(const RunLoopThread&) = delete;
    RunLoopThread& operator=(const RunLoopThread&) = delete;
    RunLoop& loop() { return *running_; }

private:
    std::promise<Ref<RunLoop>> loop_;
    std::thread thread_;
    Ref<RunLoop> running_;
};

struct Tally {
    std::atomic<long> answered{0}, failed{0}, wrong{0};
};

// A number that this thread alone writes is, when it is read, the one written last; or, where a
// write's outcome is unknown, the one before it.
class OwnNumber {
public:
    explicit OwnNumber(int thread) : key_("own" + std::to_string(thread)) {}

    bool writeAndRead(RemoteObject& root) {
        const auto number = ++tried_;
        if (!set(root, key_, number)) return false;
        written_ = number;
        return get(root, key_) == Value(number);
    }
    bool isRight(RemoteObject& root) const {
        const auto number = get(root, key_).longLongValue();
        return written_ <= number && number <= tried_;
    }

private:
    const std::string key_;
    std::int64_t tried_ = 0, written_ = 0;
};

void callOnce(RemoteObject& root, int thread, int i, OwnNumber& own, Tally& tally) {
    const bool right =
        i % 16 == 0 ? own.writeAndRead(root)
                    : get(root, keyOf(thread, i % kKeys)) == Value(valueOf(thread, i % kKeys));
    ++(right ? tally.answered : tally.wrong);
}

void callUntil(const std::atomic<bool>& stop, int thread, SharedConnection& shared, Tally& tally) {
    OwnNumber own(thread);
    for (int i = 0; !stop; ++i) {
        try {
            const auto connection = shared.get();
            if (!connection) {
                std::this_thread::yield();
                continue;
            }
            callOnce(*connection->rootProxy(), thread, i, own, tally);
        } catch (const ConnectionError&) {
            ++tally.failed;
        }
    }
    const auto connection = shared.get();
    if (!own.isRight(*connection->rootProxy())) ++tally.wrong;
}

void storeWhatIsRead() {
    okv::Dictionary all;
    for (int thread = 0; thread < kThreads; ++thread) {
        for (int number = 0; number < kKeys; ++number)
            all.insert(keyOf(thread, number), valueOf(thread, number));
    }
    ASSERT_TRUE(okv::send<&Data::setOKVDataAllPT_appUid>(*connect(), Value(all), 1));
}

constexpr long kCallsPerLife = 1000 / kSlowness;

// A slow machine takes longer for it; one that does not answer any more is the test's time-out.
void awaitAnswers(const Tally& tally, long more) {
    for (const auto enough = tally.answered + more; tally.answered < enough;)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Kills and restarts the server three times while the threads call.
void callThroughThreeDeaths(ServerProcess& server, std::vector<std::thread>& threads,
                            const Tally& tally, std::atomic<bool>& stop) {
    for (int death = 0; death < 3; ++death) {
        awaitAnswers(tally, kCallsPerLife);
        server.signal(SIGKILL);
        server.wait();
        ASSERT_TRUE(server.start());
    }
    awaitAnswers(tally, kCallsPerLife);
    stop = true;
    for (auto& thread : threads) thread.join();
}

std::atomic<long> signalsTaken{0};

void takeSignal(int) {
    signalsTaken.fetch_add(1, std::memory_order_relaxed);
}

/// While it lives, every thread of this process is hit by signals that interrupt the system call
/// it is in.
class RainOfSignals {
public:
    RainOfSignals() {
        struct sigaction action {};
        action.sa_handler = takeSignal;  // without SA_RESTART
        sigaction(SIGUSR1, &action, &before_);
        thread_ = std::thread([this] { rain(); });
    }
    ~RainOfSignals() {
        over_ = true;
        thread_.join();
        sigaction(SIGUSR1, &before_, nullptr);
    }
    RainOfSignals(const RainOfSignals&) = delete;
    RainOfSignals& operator=(const RainOfSignals&) = delete;

private:
    void rain() const {
        const auto self = static_cast<pid_t>(syscall(SYS_gettid));
        while (!over_) {
            for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
                const auto thread = std::stoi(task.path().filename().string());
                if (thread != self) syscall(SYS_tgkill, getpid(), thread, SIGUSR1);
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    }

    std::atomic<bool> over_{false};
    struct sigaction before_ {};
    std::thread thread_;
};

void eightThreadsThroughThreeDeaths() {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    storeWhatIsRead();
    const auto mourner = okv::make<Mourner>();
    RunLoopThread loop;
    SharedConnection shared(loop.loop());
    Tally tally;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&, thread] { callUntil(stop, thread, shared, tally); });
    callThroughThreeDeaths(server, threads, tally, stop);
    EXPECT_EQ(tally.wrong, 0);
    EXPECT_GT(tally.failed, 0) << "no call ever met a death";
    ASSERT_GE(shared.made().size(), 4U);
    const auto& last = *shared.made().back();
    for (const auto& one : shared.made())
        EXPECT_EQ(mourner->deathsOf(*one), one.get() == &last ? 0 : 1);
    shared.made().back()->invalidate();
    EXPECT_EQ(mourner->deathsOf(last), 1);
    testing::Test::RecordProperty("answered", std::to_string(tally.answered));
}

}  // namespace

TEST(AKilledServer, AndItsRestartsGiveEightThreadsTheirOwnAnswersOrErrorsAndOneNoticeEach) {
    eightThreadsThroughThreeDeaths();
}

TEST(AKilledServer, IsSurvivedJustSoByEightThreadsInARainOfSignals) {
    const auto before = signalsTaken.load();
    {
        const RainOfSignals rain;
        eightThreadsThroughThreeDeaths();
    }
    EXPECT_GT(signalsTaken, before + 10000 / kSlowness);
}
