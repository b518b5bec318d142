#pragma once

#include "Files.h"

#include <grp.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// What tests and benchmarks do with processes: make them, be another account in them, measure
/// them.
namespace support {

/// Runs the body in a child of its own, which ends with it: with 0, or with 1 after an exception,
/// whose text goes to standard error. The child ends at the latest with this process.
inline pid_t startChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const auto parent = getpid();
    const auto pid = fork();
    if (pid < 0) throw std::runtime_error("no process");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    try {
        body();
        _exit(0);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "a child: %s\n", error.what());
        _exit(1);
    }
}

/// Whether a child of this process has not ended yet; it is still to be waited for.
inline bool isRunning(pid_t child) {
    siginfo_t information{};
    return waitid(P_PID, static_cast<id_t>(child), &information, WEXITED | WNOHANG | WNOWAIT) ==
               0 &&
           information.si_pid == 0;
}

/// A child that runs the body until it ends, or is killed with this object. The body calls its
/// argument once it is ready; until then, or the child's end, the constructor waits.
class Child {
public:
    explicit Child(const std::function<void(const std::function<void()>& ready)>& body) {
        int ends[2];
        if (pipe(ends) != 0) throw std::runtime_error("no pipe");
        pid_ = startChild([&] { body([&] { (void)!::write(ends[1], "", 1); }); });
        close(ends[1]);
        char byte = 0;
        isReady_ = ::read(ends[0], &byte, 1) == 1;
        close(ends[0]);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { end(); }

    bool isReady() const noexcept { return isReady_; }
    pid_t pid() const noexcept { return pid_; }
    /// Its exit code, or minus the signal that ended it.
    int wait() {
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    void end() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        wait();
    }

private:
    pid_t pid_ = -1;
    bool isReady_ = false;
};

/// A variable of the environment, for the processes that are started while it lives; then it is
/// again what it was.
class Environment {
public:
    Environment(const char* name, const std::string& value) : name_(name) {
        if (const char* const before = std::getenv(name)) before_ = before;
        setenv(name, value.c_str(), 1);
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() {
        if (before_) {
            setenv(name_, before_->c_str(), 1);
        } else {
            unsetenv(name_);
        }
    }

private:
    const char* name_;
    std::optional<std::string> before_;
};

/// Gives a child up to another account, in these supplementary groups and no others.
inline bool becomeAccount(uid_t uid, const std::vector<gid_t>& groups = {}) {
    return setgroups(groups.size(), groups.data()) == 0 && setgid(uid) == 0 && setuid(uid) == 0 &&
           prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;  // which is forgotten with the account
}

/// Runs the body in a child under another account; what it answers is the child's exit code, after
/// an exception 98, and 99 when the account could not be taken.
inline int asAccount(uid_t uid, const std::function<int()>& body,
                     const std::vector<gid_t>& groups = {}) {
    const auto pid = startChild([&] {
        if (!becomeAccount(uid, groups)) _exit(99);
        try {
            _exit(body());
        } catch (const std::exception& error) {
            std::fprintf(stderr, "uid %u: %s\n", uid, error.what());
            _exit(98);
        }
    });
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// The number of a line "NAME:   123 kB" in a text of the kernel's; 0 when there is no such line.
inline std::int64_t numberOf(std::string_view text, std::string_view name) {
    const auto wanted = "\n" + std::string(name) + ":";
    auto at = text.find(wanted);
    if (at == std::string_view::npos) return 0;
    at = text.find_first_not_of(" \t", at + wanted.size());
    std::int64_t number = 0;
    if (at != std::string_view::npos)
        std::from_chars(text.data() + at, text.data() + text.size(), number);
    return number;
}

/// What a process has in memory now, in units of 1024 bytes; throws when it does not live.
inline std::int64_t residentKilobytes(pid_t process) {
    const auto folder = "/proc/" + std::to_string(process);
    const auto kilobytes = numberOf(bytesOf(folder + "/status"), "VmRSS");
    if (kilobytes == 0) throw std::runtime_error(folder + ": nothing in memory");
    return kilobytes;
}

}  // namespace support
