#include "Rounds.h"

#include "SeededStore.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace killing {

namespace {

using okv::Value;
using Admin = OKVDataAdmin_protocol;

constexpr double kPatience = 30.0 * faults::kSlowness;
// By then writes of each kind have been acknowledged, on a busy machine, too.
constexpr int kRoundOfTheFault = 6;

template <class Done>
void waitUntil(Done done, const char* what) {
    for (const auto until = now() + kPatience; !done();) {
        if (now() > until) throw std::runtime_error(std::string("in vain: ") + what);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Picture pictureIn(const Value& settings) {
    Picture picture;
    for (const auto& [key, value] : settings.as<okv::Dictionary>())
        picture[key.as<std::string>()] = tagOf(value);
    return picture;
}

}  // namespace

Rounds::Rounds(const std::string& historyFile, Seed seed)
    : ground_(Ground::make()), seed_(seed), record_(historyFile) {}

Rounds::~Rounds() {
    for (auto* clients : {&writers_, &watchers_}) {
        for (const auto pid : *clients) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
}

void Rounds::run(int rounds) {
    rounds_ = rounds;
    if (!server_.start()) throw std::runtime_error("the data server does not start");
    startClients();
    for (int number = 1; number <= rounds; ++number) round(number);
    finish();
}

void Rounds::startClients() {
    for (int i = 0; i < kWatchers; ++i) {
        const bool isStale = seed_ == Seed::stale && i == 3;
        watchers_.push_back(
            support::startChild([this, i, isStale] { runWatcher(i, ground_, record_, isStale); }));
    }
    for (int i = 0; i < kWriters; ++i)
        writers_.push_back(support::startChild([this, i] { runWriter(i, ground_, record_); }));
}

long Rounds::acknowledged() const {
    long sum = 0;
    for (const auto& count : ground_.acknowledged) sum += count;
    return sum;
}

void Rounds::waitForWriters() {
    long before[kWriters];
    for (int i = 0; i < kWriters; ++i) before[i] = ground_.acknowledged[i];
    waitUntil(
        [&] {
            for (int i = 0; i < kWriters; ++i) {
                if (ground_.acknowledged[i] == before[i]) return false;
            }
            return true;
        },
        "a write of every writer");
}

// Mostly while everybody writes; every fourth time while clients are only just coming back; and
// every fifth time once more while the next server is starting.
void Rounds::round(int number) {
    if (number % 4 != 0) waitForWriters();
    std::this_thread::sleep_for(
        std::chrono::microseconds(random_() % (60000U * static_cast<unsigned>(faults::kSlowness))));
    killServer();
    ground_.hold = true;  // nothing reaches a dead server; this is for the next one
    if (number == kRoundOfTheFault) seedFault();
    if (number % 5 == 0) killWhileItStarts();
    if (!server_.start()) throw std::runtime_error("the data server does not start again");
    readAll();
    ground_.hold = false;
}

void Rounds::killServer() {
    server_.signal(SIGKILL);
    if (server_.wait() != -SIGKILL) throw std::runtime_error("the data server had ended before");
}

void Rounds::killWhileItStarts() {
    const auto pid = support::startChild([this] {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        execl(OKV_DATA_CENTER, OKV_DATA_CENTER, "--store", server_.storeFile().c_str(),
              "--runtime-dir", server_.runtimeFolder().c_str(), nullptr);
    });
    std::this_thread::sleep_for(
        std::chrono::microseconds(random_() % (40000U * static_cast<unsigned>(faults::kSlowness))));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    ++earlyKills_;
}

void Rounds::seedFault() {
    if (seed_ != Seed::none && seed_ != Seed::stale) seedInto(server_.storeFile(), seed_);
}

// A writer that had not seen that it was to hold may still come in between: then once more.
void Rounds::readAll() {
    const auto root = faults::connect();
    const auto revision = [&] { return faults::status(*root)["revision"].longLongValue(); };
    for (;;) {
        const auto before = revision();
        const auto picture = pictureIn(okv::send<&Admin::okvDataListPT_appUid>(*root, "", 1));
        if (revision() == before) return record_.add(readLine(before, picture));
    }
}

void Rounds::waitForEnd(std::vector<pid_t>& clients, const char* who) {
    const auto ended = [&] {
        std::erase_if(clients, [&](pid_t pid) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) != pid) return false;
            if (status != 0) throw std::runtime_error(std::string("failed: ") + who);
            return true;
        });
        return clients.empty();
    };
    waitUntil(ended, who);
}

// A watcher that does not get to the end is not waited for: the checker finds it without a picture.
void Rounds::finish() {
    waitForWriters();
    ground_.stop = true;
    waitForEnd(writers_, "the writers' end");
    killServer();
    if (!server_.start()) throw std::runtime_error("the data server does not start at the end");
    readAll();
    ground_.last = faults::status(*faults::connect())["revision"].longLongValue();
    try {
        waitForEnd(watchers_, "the watchers' end");
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
}

std::string Rounds::summary() const {
    return std::to_string(rounds_) + " rounds, " + std::to_string(earlyKills_) +
           " more kills of starting servers, " + std::to_string(acknowledged()) +
           " acknowledged writes, " + std::to_string(ground_.unknown) + " of unknown outcome, " +
           std::to_string(ground_.unsent) + " not sent, " + std::to_string(ground_.last) +
           " revisions";
}

}  // namespace killing
