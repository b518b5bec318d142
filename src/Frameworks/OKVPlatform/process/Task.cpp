#include <OKVPlatform/process/Children.h>
#include <OKVPlatform/process/Task.h>
#include <OKVPlatform/values/ErrorText.h>

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <utility>

namespace okv {

namespace {

constexpr int kFirstPrivateDescriptor = 3;

// A descriptor that is closed unless it is released.
class Descriptor {
public:
    explicit Descriptor(int value = -1) noexcept : value_(value) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (value_ >= 0) close(value_);
    }
    int get() const noexcept { return value_; }
    int release() noexcept { return std::exchange(value_, -1); }
    void reset(int value) noexcept {
        if (value_ >= 0) close(value_);
        value_ = value;
    }

private:
    int value_;
};

[[noreturn]] void fail(const std::string& what, int error) {
    throw TaskError("okv::Task: " + what + ": " + errorText(error), error);
}

// In a process that runs without one of its standard descriptors, the pipe must not take its place.
void moveAboveStandard(Descriptor& descriptor) {
    if (descriptor.get() >= kFirstPrivateDescriptor) return;
    const int moved = fcntl(descriptor.get(), F_DUPFD_CLOEXEC, kFirstPrivateDescriptor);
    if (moved < 0) fail("no descriptor for a pipe", errno);
    descriptor.reset(moved);
}

struct Pipe {
    Descriptor readEnd;
    Descriptor writeEnd;

    void open() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("no pipe", errno);
        readEnd.reset(ends[0]);
        writeEnd.reset(ends[1]);
        moveAboveStandard(readEnd);
        moveAboveStandard(writeEnd);
    }
};

class FileActions {
public:
    FileActions() { check(posix_spawn_file_actions_init(&actions_)); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
    ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }

    void changeFolder(const std::string& path) {
        check(posix_spawn_file_actions_addchdir_np(&actions_, path.c_str()));
    }
    void redirect(int from, int to) {
        check(posix_spawn_file_actions_adddup2(&actions_, from, to));
    }
    void closeFrom(int first) { check(posix_spawn_file_actions_addclosefrom_np(&actions_, first)); }
    const posix_spawn_file_actions_t* get() const noexcept { return &actions_; }

private:
    static void check(int error) {
        if (error != 0) fail("cannot prepare the launch", error);
    }
    posix_spawn_file_actions_t actions_;
};

class Attributes {
public:
    Attributes() {
        if (const int error = posix_spawnattr_init(&attributes_))
            fail("cannot prepare the launch", error);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes_, &signals);
        sigfillset(&signals);
        sigdelset(&signals, SIGHUP);
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    ~Attributes() { posix_spawnattr_destroy(&attributes_); }
    const posix_spawnattr_t* get() const noexcept { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
};

void refuseNul(const std::string& text) {
    if (text.find('\0') != std::string::npos) fail("a NUL byte in an argument or path", EINVAL);
}

// The child changes its folder before it executes: a relative path must be settled before.
std::string absolute(const std::string& path) {
    if (path.empty()) fail("no launch path", ENOENT);
    if (path.front() == '/') return path;
    char* const folder = getcwd(nullptr, 0);
    if (folder == nullptr) fail("no working folder", errno);
    std::string result = std::string(folder) + '/' + path;
    std::free(folder);
    return result;
}

std::vector<char*> argumentVector(const std::string& first, const std::vector<std::string>& rest) {
    std::vector<char*> pointers{const_cast<char*>(first.c_str())};
    for (const auto& argument : rest) pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

pid_t spawn(const std::string& launchPath, const std::vector<std::string>& arguments,
            const FileActions& actions) {
    const auto executable = absolute(launchPath);
    const auto pointers = argumentVector(launchPath, arguments);
    const Attributes attributes;
    pid_t pid = 0;
    const int error = posix_spawn(&pid, executable.c_str(), actions.get(), attributes.get(),
                                  pointers.data(), environ);
    if (error != 0) fail("cannot launch " + launchPath, error);
    return pid;
}

}  // namespace

TaskError::TaskError(const std::string& what, int error)
    : std::runtime_error(what), error_(error) {}
TaskError::~TaskError() = default;

Task::Task() = default;
Task::Task(Task&&) noexcept = default;
Task& Task::operator=(Task&&) noexcept = default;
Task::~Task() = default;

void Task::launch() {
    if (child_) fail("launched before", EALREADY);
    refuseNul(launchPath_);
    refuseNul(currentDirectory_);
    for (const auto& argument : arguments_) refuseNul(argument);
    child_ = Children::shared().launch([this] {
        Pipe errors;
        FileActions actions;
        if (pipesStandardError_) {
            errors.open();
            actions.redirect(errors.writeEnd.get(), STDERR_FILENO);
        }
        if (!currentDirectory_.empty()) actions.changeFolder(currentDirectory_);
        actions.closeFrom(kFirstPrivateDescriptor);
        const auto pid = spawn(launchPath_, arguments_, actions);
        return Child{pid, errors.readEnd.release(), 0, false};
    });
}

void Task::waitUntilExit() {
    if (child_) Children::shared().wait(*child_);
}

int Task::processIdentifier() const noexcept {
    return child_ ? child_->pid : 0;
}

void Task::reapFinished() noexcept {
    Children::shared().reapFinished();
}

}  // namespace okv
