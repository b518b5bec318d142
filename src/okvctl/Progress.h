#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace okvctl {

/// A bar for what takes long, drawn on a terminal and nowhere else: how many of its steps are done,
/// which one is at work and for how long. What is done soon shows none. The bar is wiped away in
/// the end.
class Progress {
public:
    /// `task` is what the line begins with; `steps` is how many there will be, 1 or more.
    Progress(int descriptor, std::string task, std::size_t steps);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    /// Begins the next step; the one before is done.
    void step(std::string_view what);

private:
    void draw();
    std::string line(double seconds) const;

    const int descriptor_;
    const std::string task_;
    const std::size_t steps_;
    std::mutex mutex_;
    std::condition_variable over_;
    std::string what_;
    std::size_t begun_ = 0;
    bool isOver_ = false;
    std::thread drawer_;  // none where there is no terminal
};

}  // namespace okvctl
