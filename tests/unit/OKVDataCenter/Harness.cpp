#include "Harness.h"

#include <poll.h>
#include <stdlib.h>

#include <chrono>

using namespace std::chrono_literals;

void RecordingPoster::post(datacenter::Told told) {
    if (posting) posting();
    const std::lock_guard lock(mutex_);
    notices_.push_back(datacenter::noticeFor(told));
    changed_.notify_all();
}

std::vector<okv::Dictionary> RecordingPoster::take(std::size_t count) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, 10s, [&] { return notices_.size() >= count; }));
    return std::exchange(notices_, {});
}

void Turnstile::hold() {
    const std::lock_guard lock(mutex_);
    holding_ = true;
}

void Turnstile::awaitHeld() {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, 10s, [&] { return held_; }));
}

void Turnstile::letGo() {
    const std::lock_guard lock(mutex_);
    holding_ = false;
    changed_.notify_all();
}

void Turnstile::pass() {
    std::unique_lock lock(mutex_);
    held_ = holding_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !holding_; });
    held_ = false;
}

Harness::Harness(Options options) : options_(options) {
    start();
}

Harness::~Harness() {
    stop();
}

void Harness::start() {
    store.emplace(storeFile(), options_.limits);
    datacenter::Server::Surroundings surroundings{poster,
                                                  [this](const std::string& line) {
                                                      if (loop_->isCurrent()) log.push_back(line);
                                                  },
                                                  [this] { return now.load(); }};
    surroundings.lookAround = [this](datacenter::Rights& rights) {
        turnstile_.pass();
        rights.setAdminGroup(administrators);
    };
    surroundings.reloaded = [this](const std::string& failure) {
        if (reloaded) reloaded(failure);
    };
    server.emplace(*store, datacenter::Rights({options_.selfService, kServerUid, kAdminGroup}),
                   std::move(surroundings));
}

void Harness::stop() {
    if (!server) return;
    server->end();
    server->run();
    server.reset();
    store.reset();
}

void Harness::holdWriter() {
    turnstile_.hold();
    server->reload();
    turnstile_.awaitHeld();
}

void Harness::restart() {
    stop();
    start();
}

void Harness::restart(const datacenter::Limits& limits) {
    options_.limits = limits;
    restart();
}

std::string Harness::awaitAnswer(RecordingPort& port, std::size_t count) {
    const auto loop = okv::RunLoop::current();
    while (port.answers.size() < count) {
        pollfd entry{loop->fd(), POLLIN, 0};
        if (poll(&entry, 1, 60000) <= 0) throw std::runtime_error("no answer came");
        loop->dispatch();
    }
    return port.answers.at(count - 1);
}
