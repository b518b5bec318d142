#include "Director.h"

#include "Measure.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <thread>

namespace soak {

namespace {

// The server keeps that many changes to tell of; before it has them, it grows.
constexpr int kChangesKept = 10000;
constexpr std::chrono::milliseconds kTurn{20};

// Clients come and go: how many are there when a sample is taken differs by that much.
constexpr std::int64_t kClientsMoreOrLess = 8;
// Failures that are told one by one.
constexpr std::size_t kFailuresTold = 20;
// A fault that is there for certain needs no busy machine to be found.
constexpr std::chrono::milliseconds kPauseWithAFault{50};
// What the server opens for good with the first change and the first notice.
constexpr std::int64_t kOpenedLater = 3;

volatile std::sig_atomic_t interrupted = 0;
void interrupt(int) {
    interrupted = 1;
}

Tolerance tolerance(std::int64_t descriptors) {
    Tolerance made;
    made.descriptors = descriptors;
    // A sanitizer keeps what was freed for a while, and more the longer it runs.
    made.judgesBytes = faults::kSlowness == 1;
    return made;
}

// A line for each thing that was measured, and one more for each breach.
void print(const std::vector<Finding>& findings) {
    for (std::size_t i = 0; i < findings.size(); ++i) {
        const auto& finding = findings[i];
        if (i == 0 || finding.name != findings[i - 1].name)
            std::printf("%s  %-28s", i == 0 ? "" : "\n", finding.name.c_str());
        std::printf(" %s %.0f -> %.0f%s", finding.measure, finding.before, finding.after,
                    finding.isBreach() ? " BROKEN" : "");
    }
    std::printf("\n");
}

}  // namespace

Director::Director(const Schedule& schedule, Fault fault)
    : schedule_(schedule), fault_(fault), board_(Board::make()), processes_(board_, fault) {
    if (fault != Fault::none) board_.pause = kPauseWithAFault;
}

void Director::startServer() {
    if (!server_.start()) throw std::runtime_error("the data server does not start");
    lives_.push_back({"server " + std::to_string(lives_.size() + 1), {}});
}

// Posted in bursts: each waits for the last of them alone.
void Director::fillChanges() {
    const auto root = faults::connect();
    idleDescriptors_ = measure(server_.pid(), 0).descriptors;
    for (int i = 1; i <= kChangesKept; ++i) {
        okv::post<&Data::setOKVDataPT_value_appUid>(*root, "soak.before", i, 1);
        if (i % 1000 == 0) faults::set(*root, "soak.before", i);
    }
}

void Director::restart() {
    const bool kills = outages_.size() % 2 == 1;
    Outage outage{now(), 0};
    server_.signal(kills ? SIGKILL : SIGTERM);
    const auto code = server_.wait();
    if (code != (kills ? -SIGKILL : 0)) complain("the server ended with " + std::to_string(code));
    startServer();
    outage.ready = now();
    outages_.push_back(outage);
}

void Director::sample() {
    const auto at = elapsed();
    lives_.back().samples.push_back(measure(server_.pid(), at));
    files_.samples.push_back({at, bytesOfFilesIn(server_.file("")), 0, 0});
    processes_.sample(at);
    processes_.lookAfter();
}

void Director::collectFailures() {
    for (std::size_t i = 0; i < board_.slotsUsed; ++i) {
        for (Failure failure; board_.slots[i].take(failure);)
            failures_.push_back({board_.slots[i].name(), failure});
    }
}

void Director::report() const {
    long calls = 0;
    for (std::size_t i = 0; i < board_.slotsUsed; ++i) calls += board_.slots[i].calls();
    const auto& server = lives_.back().samples.empty() ? Sample() : lives_.back().samples.back();
    std::printf(
        "%4.0f s: %ld steps, %zu failed, %ld clients came and went (%ld killed), "
        "%zu restarts; server %lld KiB, %lld descriptors, %lld threads; files %lld KiB\n",
        elapsed(), calls, failures_.size(), processes_.passed(), processes_.killed(),
        outages_.size(), static_cast<long long>(server.bytes / 1024),
        static_cast<long long>(server.descriptors), static_cast<long long>(server.threads),
        static_cast<long long>(files_.samples.empty() ? 0 : files_.samples.back().bytes / 1024));
    std::fflush(stdout);
}

// Answers false when somebody interrupts.
bool Director::waitUntil(double at) {
    while (elapsed() < at && interrupted == 0) {
        processes_.turn();
        collectFailures();
        std::this_thread::sleep_for(kTurn);
    }
    return interrupted == 0;
}

Verdict Director::run() {
    std::signal(SIGINT, interrupt);
    std::signal(SIGTERM, interrupt);
    startServer();
    fillChanges();
    start_ = now();
    processes_.startLasting();
    double nextSample = schedule_.sampleEvery, nextRestart = schedule_.restartEvery;
    double nextReport = std::min(60.0, schedule_.settle);
    while (waitUntil(std::min({nextSample, nextRestart, schedule_.total})) &&
           elapsed() < schedule_.total) {
        if (elapsed() >= nextSample) sample(), nextSample += schedule_.sampleEvery;
        if (elapsed() >= nextReport) report(), nextReport += std::min(60.0, schedule_.settle);
        if (elapsed() >= nextRestart) restart(), nextRestart += schedule_.restartEvery;
    }
    if (interrupted != 0) unjudged_.emplace_back("what was still to come: interrupted");
    return judge();
}

// The readers have looked at every number all along; this is what is left after the last word.
void Director::verifyAll(const char* when) {
    const auto root = faults::connect();
    for (std::size_t i = 0; i < board_.registersUsed; ++i) {
        try {
            check(*root, board_.registers[i]);
        } catch (const WrongAnswer& wrong) {
            complain(std::string(when) + ": " + wrong.what());
        }
    }
}

void Director::verifyNobodyIsLeft() {
    const auto root = faults::connect();
    const auto clients = okv::send<&Data::connectCount>(*root);
    if (clients != 0) complain("registered clients left: " + std::to_string(clients));
    const auto descriptors = measure(server_.pid(), 0).descriptors;
    if (descriptors > idleDescriptors_ + kOpenedLater)
        complain("descriptors of a server without clients: " + std::to_string(descriptors) +
                 ", at first " + std::to_string(idleDescriptors_));
}

void Director::loseAWrite() {
    const auto* const all = board_.registers;
    const auto* written = std::find_if(all, all + board_.registersUsed, [](const auto& number) {
        return number.place == Place::user && number.acknowledged > 0;
    });
    faults::set(*faults::connect(), written->key, okv::Null());
}

Verdict Director::judge() {
    board_.stop = true;
    processes_.endAll();
    collectFailures();
    report();
    verifyNobodyIsLeft();
    if (fault_ == Fault::lostWrite) loseAWrite();
    verifyAll("at the end");
    restart();
    verifyAll("after a last restart");
    judgeGrowth();
    const bool failed = !judgeFailures();
    complaints_.insert(complaints_.end(), processes_.complaints().begin(),
                       processes_.complaints().end());
    for (const auto& what : unjudged_) std::printf("  NOT JUDGED   %s\n", what.c_str());
    for (const auto& complaint : complaints_) std::printf("  BROKEN   %s\n", complaint.c_str());
    const auto verdict = verdictOf(!complaints_.empty() || failed, unjudged_);
    std::printf("soak: %s\n", textOf(verdict));
    return verdict;
}

void Director::judgeGrowth() {
    if (schedule_.settle < kShortestSettling)
        return unjudged_.emplace_back("any growth: the run is too short"), void();
    auto judgement = judgeLives(lives_, tolerance(kClientsMoreOrLess));
    for (const auto& series : processes_.lasting())
        judgement.add(judgeLasting(series, schedule_, tolerance(Tolerance().descriptors)));
    judgement.add(judgeLasting(files_, schedule_, tolerance(0)));
    print(judgement.findings);
    if (judgement.hasBreach()) complain("something grew");
    for (const auto& name : judgement.unjudged) unjudged_.push_back(name + ": too few samples");
}

bool Director::judgeFailures() {
    std::size_t unexplained = 0;
    for (const auto& [client, failure] : failures_) {
        if (isConsequence(failure, outages_)) continue;
        if (++unexplained > kFailuresTold) continue;
        complain(client + ", " + std::to_string(failure.begun - start_) + " to " +
                 std::to_string(failure.ended - start_) + " s: " + failure.text);
    }
    for (std::size_t i = 0; i < board_.slotsUsed; ++i) {
        if (board_.slots[i].dropped() > 0)
            complain(std::string(board_.slots[i].name()) + ": more failures than could be kept");
    }
    std::printf("  %-8s %zu failures because of %zu outages, %zu others\n",
                unexplained == 0 ? "kept" : "BROKEN", failures_.size() - unexplained,
                outages_.size(), unexplained);
    return unexplained == 0;
}

}  // namespace soak
