#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// What the process tests share: private folders and real child processes.
namespace processtest {

inline constexpr uid_t kNobody = 65534;

/// A folder of its own, open to every account, removed with all that is in it.
class TempFolder {
public:
    TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder();

    const std::string& path() const noexcept { return path_; }
    std::string operator/(std::string_view name) const;
    /// Writes a file, with the folders on its way.
    std::string write(std::string_view name, std::string_view content) const;
    /// Copies an executable to `name`, with the folders on its way.
    std::string copyExecutable(const std::string& from, std::string_view name) const;
    std::string makeFolder(std::string_view name) const;

private:
    std::string path_;
};

/// How a child process is started.
struct ChildOptions {
    std::vector<std::string> arguments;  // arguments[0] included; empty: the executable's path
    uid_t uid = 0;                       // 0: the caller's own
};

/// A running copy of the test's helper program; ended and reaped with the object. It is ready (it
/// has written its line) when the constructor returns.
class Child {
public:
    explicit Child(const std::string& executable, const ChildOptions& options = {});
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();
    pid_t pid() const noexcept { return pid_; }
    bool isReady() const noexcept { return isReady_; }
    /// Ends it and leaves it a zombie.
    void end() const;

private:
    pid_t pid_ = 0;
    bool isReady_ = false;
};

/// The helper program: writes "ready" and waits; see Sleeper.cpp for its options.
std::string sleeperPath();

/// What `body` answers in a forked copy of this process; -1 when that was killed.
int inFork(const std::function<int()>& body);

/// Blocks until a child of ours has ended, without reaping it.
void waitForEnd(pid_t child);

std::string contentOf(const std::string& path);
std::size_t openDescriptors();

}  // namespace processtest
