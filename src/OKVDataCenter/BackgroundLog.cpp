#include "BackgroundLog.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace datacenter {

namespace {

constexpr std::size_t kWaitingLines = 1024;
constexpr std::chrono::seconds kEndWithin{1};

}  // namespace

struct BackgroundLog::Lines {
    explicit Lines(LogLine function) : write(std::move(function)) {}

    void add(std::string line) {
        const std::lock_guard lock(mutex);
        if (waiting.size() < kWaitingLines) {
            waiting.push_back(std::move(line));
        } else {
            ++leftOut;
        }
        changed.notify_all();
    }

    // The next line to be written; none once all are and no more come.
    bool next(std::string& line) {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return !waiting.empty() || leftOut > 0 || ending; });
        if (!waiting.empty()) {
            line = std::move(waiting.front());
            waiting.pop_front();
        } else if (leftOut > 0) {
            line = std::to_string(leftOut) + " lines were left out: the log was too slow";
            leftOut = 0;
        } else {
            return false;
        }
        return true;
    }

    void run() {
        for (std::string line; next(line);) write(line);
        const std::lock_guard lock(mutex);
        done = true;
        changed.notify_all();
    }

    void end() {
        std::unique_lock lock(mutex);
        ending = true;
        changed.notify_all();
        changed.wait_for(lock, kEndWithin, [this] { return done; });
    }

    const LogLine write;
    std::mutex mutex;  // guards all below
    std::condition_variable changed;
    std::deque<std::string> waiting;
    std::uint64_t leftOut = 0;
    bool ending = false;
    bool done = false;
};

// Not joined: a log that hangs must not keep the process from ending.
BackgroundLog::BackgroundLog(LogLine write) : lines_(std::make_shared<Lines>(std::move(write))) {
    std::thread([lines = lines_] { lines->run(); }).detach();
}

BackgroundLog::~BackgroundLog() {
    lines_->end();
}

void BackgroundLog::add(std::string line) {
    lines_->add(std::move(line));
}

}  // namespace datacenter
