// One call fails, then the next one, and so on until a run makes fewer: of the server while it
// starts, serves and stops, and of a client. Nothing may crash or hang, no answer may be wrong, and
// what was acknowledged is there when a healthy server opens the store.
#include "MappedPlan.h"
#include "Support.h"

#include "support/Serving.h"

#include <OKVPlatform/ipc/DistributedNotificationCenter.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>

using namespace faults;
using okv::Value;
using Function = FailPlan::Function;
using Kind = FailPlan::Kind;

namespace {

constexpr int kEndsWithinMilliseconds = 20000;
constexpr double kAnswersWithin = 10;  // seconds
// Runs of a case, spread over all that it could fail, unless all are asked for.
constexpr std::uint32_t kRunsAtMost = 8;
constexpr std::uint32_t kLightRunsAtMost = 100;

struct Way {
    const char* name;
    Function function;
    Kind kind;
    int error;
};

const Way kWays[] = {
    {"ReadInterrupted", Function::read, Kind::any, EINTR},
    {"ReadOfDisk", Function::read, Kind::file, EIO},
    {"ReadOfDiskShort", Function::read, Kind::file, FailPlan::kShort},
    {"ReceiveShort", Function::read, Kind::socket, FailPlan::kShort},
    {"ReceiveWithoutMemory", Function::read, Kind::socket, ENOMEM},
    {"WriteInterrupted", Function::write, Kind::any, EINTR},
    {"WriteToFullDisk", Function::write, Kind::file, ENOSPC},
    {"WriteToBadDisk", Function::write, Kind::file, EIO},
    {"WriteToDiskShort", Function::write, Kind::file, FailPlan::kShort},
    {"SendShort", Function::write, Kind::socket, FailPlan::kShort},
    {"SendWithoutBuffers", Function::write, Kind::socket, ENOBUFS},
    {"OpenWithoutDescriptors", Function::open, Kind::any, EMFILE},
    {"OpenInterrupted", Function::open, Kind::any, EINTR},
    {"OpenOnFullDisk", Function::open, Kind::any, ENOSPC},
    {"SyncOfBadDisk", Function::sync, Kind::any, EIO},
    {"SyncOfFullDisk", Function::sync, Kind::any, ENOSPC},
    {"RenameOnFullDisk", Function::rename, Kind::any, ENOSPC},
    {"RenameOnBadDisk", Function::rename, Kind::any, EIO},
    {"TruncateOnBadDisk", Function::truncate, Kind::any, EIO},
    {"WatchWithoutMemory", Function::epollCtl, Kind::any, ENOMEM},
    {"WatchWithoutRoom", Function::epollCtl, Kind::any, ENOSPC},
    {"AcceptWithoutDescriptors", Function::accept, Kind::any, EMFILE},
    {"AcceptInterrupted", Function::accept, Kind::any, EINTR},
    {"AcceptOfOneWhoLeft", Function::accept, Kind::any, ECONNABORTED},
    {"NoMemory", Function::allocate, Kind::any, ENOMEM},
};

// Whether it has ended, or does in time; it is still to be waited for.
bool endsInTime(pid_t pid) {
    const okv::PrivateDescriptor handle(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    pollfd entry{handle.get(), POLLIN, 0};
    return poll(&entry, 1, kEndsWithinMilliseconds) == 1;
}

/// One way of failing, and the runs that try it.
class FailNth : public testing::TestWithParam<Way> {
protected:
    FailNth() : plan_(planFile()) {
        plan_->function = GetParam().function;
        plan_->kind = GetParam().kind;
        plan_->error = GetParam().error;
    }

    std::string planFile() const { return server_.file("plan"); }

    /// The run is made with nothing failing, to know how many calls there are, and then with one
    /// after the other failing, or some of them.
    template <class Run>
    void forEachCall(std::uint32_t runsAtMost, Run run) {
        const auto total = callsOf(0, run);
        const bool all = std::getenv("OKV_FAIL_EVERY_CALL") != nullptr;
        const auto step = all ? 1 : std::max(1U, (total + runsAtMost - 1) / runsAtMost);
        std::uint32_t runs = 1;
        // A run may make a few calls more, or fewer, than the first one did.
        for (std::uint32_t nth = 1; !HasFailure(); nth += step, ++runs) {
            SCOPED_TRACE("call " + std::to_string(nth) + " of about " + std::to_string(total));
            callsOf(nth, run);
            if (!plan_->failed && nth > total) break;
        }
        RecordProperty("runs", static_cast<int>(runs));
        std::printf("%u calls, %u runs\n", total, runs);
    }

    /// The environment of what is started while it lives.
    struct Preloaded {
        explicit Preloaded(const std::string& plan)
            : preload("LD_PRELOAD", OKV_FAIL_NTH), file(kFailPlanVariable, plan) {}
        Environment preload, file;
    };

    ServerProcess server_;
    MappedPlan plan_;

private:
    template <class Run>
    std::uint32_t callsOf(std::uint32_t nth, Run run) {
        plan_->nth = nth;
        plan_->calls = 0;
        plan_->failed = false;
        run(nth);
        plan_->armed = false;
        return plan_->calls;
    }
};

okv::Ref<okv::RemoteObject> connectInTime() {
    const auto made = connection();
    made->setReplyTimeout(kAnswersWithin);
    made->setRequestTimeout(kAnswersWithin);
    return made->rootProxy();
}

/// What is known of one key of which the server is told to make it another value.
struct Write {
    enum class Outcome { unknown, acknowledged, refused };
    std::string key;
    Outcome outcome = Outcome::unknown;

    void check(const Value& value) const {
        if (outcome == Outcome::acknowledged) {
            EXPECT_EQ(value, Value(2)) << "an acknowledged write was lost";
        } else if (outcome == Outcome::refused) {
            EXPECT_EQ(value, Value(okv::Null{})) << "a refused write was stored";
        } else {
            EXPECT_TRUE(value == Value(2) || value.isNull());
        }
    }
};

/// The server's side of it.
class AServerOfWhichOneCallFails : public FailNth {
protected:
    // The healthy client: errors are all right, other answers are not, nor is none at all.
    void tryOnce(Write& write) {
        try {
            const auto root = connectInTime();
            ASSERT_TRUE(root);
            EXPECT_EQ(get(*root, "old"), Value(1));
            const auto answer =
                okv::sendForAnswer<&Data::setOKVDataPT_value_appUid>(*root, write.key, 2, 1);
            write.outcome = answer.value ? Write::Outcome::acknowledged : Write::Outcome::refused;
            EXPECT_EQ(answer.value, !answer.refusal.has_value());
            write.check(get(*root, write.key));
        } catch (const okv::ConnectionError& error) {
            EXPECT_NE(error.kind(), okv::ConnectionError::Kind::timedOut) << error.what();
            EXPECT_NE(error.kind(), okv::ConnectionError::Kind::badData) << error.what();
        } catch (const std::runtime_error&) {
            EXPECT_TRUE(endsInTime(server_.pid())) << "a server that runs was not reached";
        }
    }

    // Nothing fails any more: all must work, or the server has ended with a message.
    void doAll(const Write& before) {
        if (!support::isRunning(server_.pid())) return;
        try {
            const auto root = connectInTime();
            ASSERT_TRUE(root);
            EXPECT_EQ(get(*root, "old"), Value(1));
            before.check(get(*root, before.key));
            EXPECT_TRUE(set(*root, "later", 3));
            EXPECT_EQ(get(*root, "later"), Value(3));
        } catch (const std::runtime_error& error) {
            EXPECT_TRUE(endsInTime(server_.pid())) << "the server is sick: " << error.what();
        }
    }

    void expectEnd() {
        const bool ends = endsInTime(server_.pid());
        if (!ends) server_.signal(SIGKILL);
        const auto code = server_.wait();
        EXPECT_TRUE(ends) << "the server hangs";
        EXPECT_TRUE(!ends || code == EXIT_SUCCESS || code == EXIT_FAILURE) << "ended by " << code;
    }

    // What a healthy server finds in the store.
    void checkStored(const Write& write) {
        ASSERT_TRUE(server_.start());
        const auto root = connectInTime();
        EXPECT_EQ(get(*root, "old"), Value(1)) << "an acknowledged write was lost";
        write.check(get(*root, write.key));
        EXPECT_EQ(status(*root)["epoch"], epoch_) << "it was taken for another store";
        EXPECT_TRUE(set(*root, write.key, okv::Null{}));
        server_.signal(SIGKILL);
        server_.wait();
    }

    void makeStore() {
        ASSERT_TRUE(server_.start());
        const auto root = connectInTime();
        ASSERT_TRUE(set(*root, "old", 1));
        epoch_ = status(*root)["epoch"];
        server_.signal(SIGKILL);  // so that there is a log to be read through
        server_.wait();
    }

    // A store that is as it should be is never set aside, whatever else may fail.
    bool startPreloaded(bool armed) {
        const Preloaded preloaded(planFile());
        plan_->armed = armed;
        const bool ready = server_.start({"--begin-afresh"});
        plan_->armed = false;
        return ready;
    }

private:
    Value epoch_;
};

/// Hears the notices of this test, between those of the server.
class Heard {
public:
    static constexpr char kName[] = "test.heard";

    explicit Heard(okv::DistributedNotificationCenter& center)
        : center_(center), listener_(okv::make<okv::Object>()) {
        center_.addObserver(
            *listener_, [this](const okv::Notification& notice) { last_ = notice.userInfo; },
            kName);
    }
    Heard(const Heard&) = delete;
    Heard& operator=(const Heard&) = delete;
    ~Heard() { center_.removeObserver(*listener_); }

    bool hears(std::uint32_t number) const {
        return support::serveUntil([&] { return last_ == Value(number); });
    }

private:
    okv::DistributedNotificationCenter& center_;
    const okv::Ref<okv::Object> listener_;
    Value last_;
};

std::string nameOf(const testing::TestParamInfo<Way>& way) {
    return way.param.name;
}

}  // namespace

TEST_P(AServerOfWhichOneCallFails, WhileItStartsServesOrEndsWithAMessage) {
    makeStore();
    forEachCall(kRunsAtMost, [&](std::uint32_t) {
        Write write{"new"};
        if (startPreloaded(true)) {
            doAll(write);
            server_.signal(SIGTERM);
        } else {
            EXPECT_TRUE(endsInTime(server_.pid())) << "neither ready nor ended";
        }
        expectEnd();
        checkStored(write);
    });
}

TEST_P(AServerOfWhichOneCallFails, WhileItServesLosesNothingAndGoesOn) {
    makeStore();
    forEachCall(kRunsAtMost, [&](std::uint32_t nth) {
        Write write{"new"};
        ASSERT_TRUE(startPreloaded(false));
        okv::DistributedNotificationCenter center(server_.runtimeFolder());
        Heard heard(center);
        plan_->armed = true;
        tryOnce(write);
        plan_->armed = false;
        doAll(write);
        center.post(Heard::kName, {}, nth);
        EXPECT_TRUE(heard.hears(nth)) << "the notices' log is damaged";
        server_.signal(SIGTERM);
        expectEnd();
        checkStored(write);
    });
}

TEST_P(AServerOfWhichOneCallFails, WhileItStopsHasLostNothing) {
    makeStore();
    forEachCall(kRunsAtMost, [&](std::uint32_t) {
        Write write{"new"};
        ASSERT_TRUE(startPreloaded(false));
        const auto root = connectInTime();
        tryOnce(write);
        EXPECT_EQ(write.outcome, Write::Outcome::acknowledged);
        plan_->armed = true;
        server_.signal(SIGTERM);
        expectEnd();
        plan_->armed = false;
        checkStored(write);
    });
}

INSTANTIATE_TEST_SUITE_P(Each, AServerOfWhichOneCallFails, testing::ValuesIn(kWays), nameOf);

/// The client's side of it, beside a healthy server.
class AClientOfWhichOneCallFails : public FailNth {
protected:
    // Its exit code; what it prints goes to the file.
    int runClient(std::uint32_t number, const std::string& output) {
        const Preloaded preloaded(planFile());
        const auto pid = fork();
        if (pid == 0) {
            const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(file, STDOUT_FILENO);
            dup2(file, STDERR_FILENO);
            execl(OKV_FAIL_NTH_CLIENT, OKV_FAIL_NTH_CLIENT, std::to_string(number).c_str(),
                  nullptr);
            _exit(127);
        }
        const bool ends = endsInTime(pid);
        if (!ends) kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(ends) << "the client hangs";
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
};

TEST_P(AClientOfWhichOneCallFails, FailsWithAnErrorAndThenGoesOn) {
    ASSERT_TRUE(server_.start());
    const auto root = connectInTime();
    ASSERT_TRUE(set(*root, "old", 1));
    forEachCall(kLightRunsAtMost, [&](std::uint32_t nth) {
        const auto output = server_.file("output");
        EXPECT_EQ(runClient(nth, output), EXIT_SUCCESS) << support::bytesOf(output);
        std::istringstream lines(support::bytesOf(output));
        for (std::string key; lines >> key;) {
            if (!key.starts_with("first") && !key.starts_with("second")) continue;
            EXPECT_EQ(get(*root, key), Value(nth)) << "an acknowledged write was lost: " << key;
            EXPECT_TRUE(set(*root, key, okv::Null{}));
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Each, AClientOfWhichOneCallFails, testing::ValuesIn(kWays), nameOf);
