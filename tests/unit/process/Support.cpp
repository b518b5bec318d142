#include "Support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace processtest {

namespace fs = std::filesystem;

TempFolder::TempFolder() {
    std::string name = (fs::temp_directory_path() / "okv-process-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = name;
    chmod(path_.c_str(), 0755);
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string TempFolder::operator/(std::string_view name) const {
    return path_ + '/' + std::string(name);
}

std::string TempFolder::write(std::string_view name, std::string_view content) const {
    const auto path = *this / name;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::string TempFolder::copyExecutable(const std::string& from, std::string_view name) const {
    const auto path = *this / name;
    fs::create_directories(fs::path(path).parent_path());
    fs::copy_file(from, path);
    chmod(path.c_str(), 0755);
    return path;
}

std::string TempFolder::makeFolder(std::string_view name) const {
    const auto path = *this / name;
    fs::create_directories(path);
    return path;
}

static void execute(const std::string& executable, const ChildOptions& options, int output) {
    dup2(output, STDOUT_FILENO);
    if (options.uid != 0 && (setgid(options.uid) != 0 || setuid(options.uid) != 0)) _exit(126);
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
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no process");
    if (pid_ == 0) execute(executable, options, ends[1]);
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

// An exception must not unwind into the copy of the test that the fork also made.
static int outcomeOf(const std::function<int()>& body) noexcept {
    return body();
}

int inFork(const std::function<int()>& body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(outcomeOf(body));
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void waitForEnd(pid_t child) {
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR) {
    }
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::size_t openDescriptors() {
    const fs::directory_iterator folder("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(folder), end(folder)));
}

}  // namespace processtest
