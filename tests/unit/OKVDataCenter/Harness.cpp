#include "Harness.h"

#include <poll.h>
#include <stdlib.h>

#include <chrono>

using namespace std::chrono_literals;

void RecordingPoster::post(std::string_view name, const okv::Dictionary& userInfo) {
    EXPECT_EQ(name, "jp.nrm.okv6.notification");
    std::unique_lock lock(mutex_);
    notices_.push_back(userInfo);
    held_ = holding_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !holding_; });
    held_ = false;
}

std::vector<okv::Dictionary> RecordingPoster::take(std::size_t count) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, 10s, [&] { return notices_.size() >= count; }));
    return std::exchange(notices_, {});
}

void RecordingPoster::hold() {
    const std::lock_guard lock(mutex_);
    holding_ = true;
}

void RecordingPoster::awaitHeld() {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, 10s, [&] { return held_; }));
}

void RecordingPoster::letGo() {
    const std::lock_guard lock(mutex_);
    holding_ = false;
    changed_.notify_all();
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
        if (poll(&entry, 1, 10000) <= 0) throw std::runtime_error("no answer came");
        loop->dispatch();
    }
    return port.answers.at(count - 1);
}
