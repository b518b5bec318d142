#pragma once

#include <integration/ServerProcess.h>

#include <sys/types.h>

#include <string>
#include <vector>

namespace okvctl_test {

/// How a run of the tool ended.
struct Ran {
    int code = -1;  ///< the exit code, or 128 and the signal's number
    std::string out;
    std::string error;
    double seconds = 0;
};

/// The built tool as a process of its own; the test fails when a sanitizer finds something in it.
/// `account`: under that uid, and in none of this process's
/// groups (only root may).
Ran run(const std::vector<std::string>& arguments, const std::string& input = {},
        uid_t account = 0);

/// The built tool as a process that has a terminal of its own for everything: output, messages,
/// input. It is killed with this object, and with this process.
class OnTerminal {
public:
    /// `environment`: "NAME=VALUE", put over this process's own; TERM is xterm unless it says else.
    explicit OnTerminal(const std::vector<std::string>& arguments,
                        const std::vector<std::string>& environment = {});
    OnTerminal(const OnTerminal&) = delete;
    OnTerminal& operator=(const OnTerminal&) = delete;
    ~OnTerminal();

    /// Whether the text is shown within half a minute.
    bool shows(const std::string& text);
    /// Waits for the end; all that was shown, with the ends of line that a terminal makes.
    Ran finish();

private:
    bool readMore();

    pid_t pid_ = -1;
    int terminal_ = -1;
    std::string shown_;
};

/// A process whose standard output is read line by line; it is killed with this object, and with
/// this process.
class Child {
public:
    Child(const std::string& program, const std::vector<std::string>& arguments);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    /// The next line without its end; "" when there is none within half a minute.
    std::string line();
    /// Closes this process's end of the standard output.
    void stopReading();
    void signal(int number) const;
    /// Waits for the end; answers as Ran::code.
    int wait();

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string rest_;
};

/// The built data server, serving from here on; the tool finds it by the environment.
class DataCenter {
public:
    DataCenter() { start(); }

    void start();
    void stop();

private:
    ServerProcess process_;
};

}  // namespace okvctl_test
