#pragma once

#include "support/Files.h"

#include <sys/types.h>

#include <string>
#include <vector>

/// The real data server, with a runtime folder and a store of its own, for one test. Killed with
/// the test's process, however that ends.
class ServerProcess {
public:
    ServerProcess();
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    /// Starts the program by another name of it from now on.
    static void useProgram(std::string name);
    /// Starts it and waits for the line that says it serves; false when it ends instead.
    bool start(const std::vector<std::string>& more = {});
    /// What a service manager hands over, as it does; or what it left to another process.
    struct HandOver {
        std::vector<int> sockets{};
        bool toAnother = false;
    };
    bool startWith(const HandOver& handOver);
    bool startWithSocket(int listener) { return startWith({{listener}}); }
    void signal(int number) const;
    /// Waits until it has ended; its exit code, or minus the signal's number.
    int wait();
    /// Runs the program to its end; standard error goes to `errors`.
    static int run(const std::vector<std::string>& arguments, std::string& errors,
                   const HandOver& handOver);
    static int run(const std::vector<std::string>& arguments, std::string& errors) {
        return run(arguments, errors, {});
    }

    pid_t pid() const noexcept { return pid_; }
    std::string file(const std::string& name) const { return folder_ / name; }
    std::string runtimeFolder() const { return file("run"); }
    std::string storeFile() const { return file("store.db"); }

private:
    bool launch(const std::vector<std::string>& more, const HandOver& handOver);

    support::TempFolder folder_;
    pid_t pid_ = -1;
};
