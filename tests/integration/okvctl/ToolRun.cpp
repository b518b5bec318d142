#include "ToolRun.h"

#include "support/Processes.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace okvctl_test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kHalfAMinute = 30000;

struct Pipe {
    Pipe() {
        if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    }
    std::array<int, 2> ends{};
};

std::vector<char*> pointersTo(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    for (auto& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

[[noreturn]] void become(char* const* words, uid_t account) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGPIPE, SIG_DFL);
    if (account != 0 && !support::becomeAccount(account)) _exit(126);
    execv(words[0], words);
    _exit(127);
}

// Descriptors below 0 stay as they are.
pid_t spawn(std::vector<std::string> words, std::array<int, 3> standard, uid_t account = 0) {
    const auto pointers = pointersTo(words);
    const auto pid = fork();
    if (pid < 0) throw std::runtime_error("no process");
    if (pid > 0) return pid;
    for (int i = 0; i < 3; ++i) {
        const auto wanted = standard[static_cast<std::size_t>(i)];
        if (wanted >= 0) dup2(wanted, i);
    }
    become(pointers.data(), account);
}

int codeOf(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Appends what is there; closes and forgets the descriptor at its end.
void drain(int& descriptor, std::string& text) {
    std::array<char, 65536> buffer{};
    const auto count = read(descriptor, buffer.data(), buffer.size());
    if (count > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
        close(descriptor);
        descriptor = -1;
    }
}

void collect(int out, int error, Ran& ran) {
    while (out >= 0 || error >= 0) {
        std::array<pollfd, 2> entries{{{out, POLLIN, 0}, {error, POLLIN, 0}}};
        if (poll(entries.data(), entries.size(), kHalfAMinute) <= 0) return;
        if (entries[0].revents != 0) drain(out, ran.out);
        if (entries[1].revents != 0) drain(error, ran.error);
    }
}

std::vector<std::string> withProgram(const std::string& program,
                                     const std::vector<std::string>& arguments) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

}  // namespace

Ran run(const std::vector<std::string>& arguments, const std::string& input, uid_t account) {
    const Pipe in;
    const Pipe out;
    const Pipe error;
    Ran ran;
    const auto start = Clock::now();
    const auto pid = spawn(withProgram(OKVCTL_PROGRAM, arguments),
                           {in.ends[0], out.ends[1], error.ends[1]}, account);
    for (const int end : {in.ends[0], out.ends[1], error.ends[1]}) close(end);
    if (write(in.ends[1], input.data(), input.size()) < 0) ran.error = "input not taken";
    close(in.ends[1]);
    collect(out.ends[0], error.ends[0], ran);
    ran.code = codeOf(pid);
    ran.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_FALSE(support::isReport(ran.error)) << ran.error;
    return ran;
}

OnTerminal::OnTerminal(const std::vector<std::string>& arguments,
                       const std::vector<std::string>& environment) {
    auto words = withProgram(OKVCTL_PROGRAM, arguments);
    const auto pointers = pointersTo(words);
    auto variables = environment;
    pid_ = forkpty(&terminal_, nullptr, nullptr, nullptr);
    if (pid_ < 0) throw std::runtime_error("no terminal");
    if (pid_ > 0) return;
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
    for (auto& variable : variables) putenv(variable.data());
    become(pointers.data(), 0);
}

OnTerminal::~OnTerminal() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        codeOf(pid_);
    }
    close(terminal_);
}

// A terminal that nobody holds any more says so with an error.
bool OnTerminal::readMore() {
    std::array<char, 4096> buffer{};
    pollfd entry{terminal_, POLLIN, 0};
    if (poll(&entry, 1, kHalfAMinute) <= 0) return false;
    const auto count = read(terminal_, buffer.data(), buffer.size());
    if (count <= 0) return false;
    shown_.append(buffer.data(), static_cast<std::size_t>(count));
    return true;
}

bool OnTerminal::shows(const std::string& text) {
    while (shown_.find(text) == std::string::npos) {
        if (!readMore()) return false;
    }
    return true;
}

Ran OnTerminal::finish() {
    while (readMore()) {
    }
    Ran ran;
    ran.out = shown_;
    EXPECT_FALSE(support::isReport(ran.out)) << ran.out;
    ran.code = codeOf(pid_);
    pid_ = -1;
    return ran;
}

Child::Child(const std::string& program, const std::vector<std::string>& arguments) {
    const Pipe out;
    pid_ = spawn(withProgram(program, arguments), {-1, out.ends[1], -1});
    close(out.ends[1]);
    out_ = out.ends[0];
}

Child::~Child() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        codeOf(pid_);
    }
    stopReading();
}

std::string Child::line() {
    for (;;) {
        const auto end = rest_.find('\n');
        if (end != std::string::npos) {
            auto line = rest_.substr(0, end);
            rest_.erase(0, end + 1);
            return line;
        }
        pollfd entry{out_, POLLIN, 0};
        if (out_ < 0 || poll(&entry, 1, kHalfAMinute) <= 0) return {};
        drain(out_, rest_);
    }
}

void Child::stopReading() {
    if (out_ >= 0) close(out_);
    out_ = -1;
}

void Child::signal(int number) const {
    kill(pid_, number);
}

int Child::wait() {
    const int code = codeOf(pid_);
    pid_ = -1;
    return code;
}

void DataCenter::start() {
    if (!process_.start({"--foreground"}))
        throw std::runtime_error("the data server does not start");
}

void DataCenter::stop() {
    process_.signal(SIGTERM);
    process_.wait();
}

}  // namespace okvctl_test
