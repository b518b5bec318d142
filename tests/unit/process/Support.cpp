#include "Support.h"

#include "support/Processes.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <stdexcept>

namespace processtest {

static void execute(const std::string& executable, const ChildOptions& options, int output) {
    dup2(output, STDOUT_FILENO);
    if (options.uid != 0 && !support::becomeAccount(options.uid)) _exit(126);
    std::vector<char*> arguments;
    for (const auto& argument : options.arguments)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    if (arguments.empty()) arguments.push_back(const_cast<char*>(executable.c_str()));
    arguments.push_back(nullptr);
    execv(executable.c_str(), arguments.data());
    _exit(127);
}

Child::Child(const std::string& executable, const ChildOptions& options) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    pid_ = support::startChild([&] { execute(executable, options, ends[1]); });
    close(ends[1]);
    char first = 0;
    isReady_ = read(ends[0], &first, 1) == 1 && first == 'r';
    close(ends[0]);
}

Child::~Child() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void Child::end() const {
    kill(pid_, SIGKILL);
    waitForEnd(pid_);
}

std::string sleeperPath() {
    return OKV_TEST_SLEEPER;
}

void waitForEnd(pid_t child) {
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR) {
    }
}

std::size_t openDescriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(folder), end(folder)));
}

static void limitDescriptors(rlim_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min(count, limit.rlim_max);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("no limit");
}

void leaveDescriptors(unsigned count) {
    limitDescriptors(RLIM_INFINITY);  // after an earlier call
    const int next = dup(STDERR_FILENO);
    if (next < 0) throw std::runtime_error("no descriptor to count from");
    close(next);
    limitDescriptors(static_cast<rlim_t>(next) + count);
}

}  // namespace processtest
