#pragma once

#include <OKVPlatform/Export.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace okv {

/// A task that could not be launched. `error()` is the system's error number.
class OKV_EXPORT TaskError : public std::runtime_error {
public:
    /// `error`: an errno value.
    TaskError(const std::string& what, int error);
    ~TaskError() override;
    /// The system's error number.
    int error() const noexcept { return error_; }

private:
    int error_;
};

/// A child process: what to run, then the running of it.
///
/// The child gets the caller's environment, standard input and output, no other descriptor, an
/// empty signal mask and the default reaction to every signal (a hang-up that is ignored stays
/// ignored, as `nohup` wants it).
///
/// A Task may go away while its child runs. A child that nobody waits for is reaped by whichever of
/// `launch`, `waitUntilExit` or `reapFinished` is called next after its end, in any thread; only
/// children launched here are reaped, never another's.
///
/// A Task belongs to one thread at a time.
class OKV_EXPORT Task {
public:
    struct Child;

    /// Nothing to run yet.
    Task();
    /// The other may only be assigned to or destroyed then.
    Task(Task&&) noexcept;
    /// A child that was launched here before goes on, unwaited for.
    Task& operator=(Task&&) noexcept;
    ~Task();

    /// The executable, absolute or relative to this process's working folder (not the child's).
    void setLaunchPath(std::string path) { launchPath_ = std::move(path); }
    /// What follows the name: the child's first argument is the launch path as given.
    void setArguments(std::vector<std::string> arguments) { arguments_ = std::move(arguments); }
    /// The child's working folder; empty: this process's own.
    void setCurrentDirectoryPath(std::string path) { currentDirectory_ = std::move(path); }
    /// Sends the child's standard error into a pipe that nobody reads, and which stays open as long
    /// as anybody may write to it. Intended: a child that writes more than the pipe holds (64 KiB)
    /// blocks there.
    void pipeStandardError() { pipesStandardError_ = true; }

    /// Starts the child. Throws TaskError when it cannot be executed (missing, a folder, not
    /// executable), when its working folder cannot be entered, when a text holds a NUL byte, or
    /// when this Task was launched before.
    void launch();

    /// Blocks until the child has ended, and reaps it. At once when nothing was launched.
    void waitUntilExit();

    /// The child's process id; 0 before the launch.
    int processIdentifier() const noexcept;

    /// Reaps children launched here that have ended and that nobody waits for. Does not block.
    static void reapFinished() noexcept;

private:
    std::string launchPath_;
    std::vector<std::string> arguments_;
    std::string currentDirectory_;
    bool pipesStandardError_ = false;
    std::shared_ptr<Child> child_;
};

}  // namespace okv
