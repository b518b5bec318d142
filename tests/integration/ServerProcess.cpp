#include "ServerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace {

std::string& program() {
    static std::string name = OKV_DATA_CENTER;
    return name;
}

constexpr int kReadyWithinMilliseconds = 60000;

// The sockets are the descriptors from 3 on, wherever they were before.
void handOver(const ServerProcess::HandOver& given) {
    constexpr int kFirst = 3, kOutOfTheWay = 100;
    if (given.sockets.empty()) return;
    auto sockets = given.sockets;
    for (auto& socket : sockets) socket = fcntl(socket, F_DUPFD_CLOEXEC, kOutOfTheWay);
    for (int i = 0; i < static_cast<int>(sockets.size()); ++i)
        dup2(sockets[static_cast<std::size_t>(i)], kFirst + i);
    const auto to = given.toAnother ? getppid() : getpid();
    setenv("LISTEN_PID", std::to_string(to).c_str(), 1);
    setenv("LISTEN_FDS", std::to_string(sockets.size()).c_str(), 1);
}

// In the child; does not return.
[[noreturn]] void execute(const std::vector<std::string>& arguments, int output, int outputIs,
                          const ServerProcess::HandOver& given) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);  // an interrupt at the terminal is for who started it, who then ends it
    dup2(output, outputIs);
    handOver(given);
    std::vector<char*> pointers;
    auto held = arguments;
    held.insert(held.begin(), program());
    for (auto& argument : held) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    execv(program().c_str(), pointers.data());
    _exit(127);
}

// What comes through the pipe until it is closed, or until it holds the text.
std::string readUntil(int pipe, const std::string& text) {
    std::string got;
    char bytes[512];
    pollfd entry{pipe, POLLIN, 0};
    while (text.empty() || got.find(text) == std::string::npos) {
        const int ready = poll(&entry, 1, kReadyWithinMilliseconds);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        const auto count = read(pipe, bytes, sizeof bytes);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        got.append(bytes, static_cast<std::size_t>(count));
    }
    return got;
}

int waitFor(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) != pid) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace

ServerProcess::ServerProcess() {
    setenv("OKV_RUNTIME_DIR", runtimeFolder().c_str(), 1);
}

ServerProcess::~ServerProcess() {
    if (pid_ > 0) {
        signal(SIGKILL);
        wait();
    }
}

void ServerProcess::useProgram(std::string name) {
    program() = std::move(name);
}

bool ServerProcess::launch(const std::vector<std::string>& more, const HandOver& handOver) {
    int output[2];
    if (pipe(output) != 0) return false;
    std::vector<std::string> arguments{"--store", storeFile(), "--runtime-dir", runtimeFolder()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    pid_ = fork();
    if (pid_ == 0) execute(arguments, output[1], STDOUT_FILENO, handOver);
    close(output[1]);
    const bool ready = readUntil(output[0], "ready\n") == "ready\n";
    close(output[0]);
    return ready;
}

bool ServerProcess::start(const std::vector<std::string>& more) {
    return launch(more, {});
}

bool ServerProcess::startWith(const HandOver& handOver) {
    return launch({}, handOver);
}

void ServerProcess::signal(int number) const {
    if (pid_ > 0) kill(pid_, number);  // of -1 it would reach every process there is
}

int ServerProcess::wait() {
    const auto code = pid_ > 0 ? waitFor(pid_) : -1;
    pid_ = -1;
    return code;
}

int ServerProcess::run(const std::vector<std::string>& arguments, std::string& errors,
                       const HandOver& handOver) {
    int output[2];
    if (pipe(output) != 0) return -1;
    const auto pid = fork();
    if (pid == 0) execute(arguments, output[1], STDERR_FILENO, handOver);
    close(output[1]);
    errors = readUntil(output[0], {});
    close(output[0]);
    return waitFor(pid);
}
