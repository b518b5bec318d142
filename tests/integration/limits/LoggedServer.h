#pragma once

#include "../faults/Support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace limits_test {

inline constexpr gid_t kAdministrators = 54321;

/// The real server in a world of its own, where a group okvadmin exists and where its log is read
/// from here.
class LoggedServer {
public:
    LoggedServer() {
        const auto fifo = process.file("log");
        if (mkfifo(fifo.c_str(), 0600) != 0) throw std::runtime_error("no FIFO");
        log_ = open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        std::ofstream(process.file("group"))
            << "root:x:0:\nokvadmin:x:" << kAdministrators << ":\n";
        std::ofstream(process.file("start")) << script(fifo);
        chmod(process.file("start").c_str(), 0755);
    }
    LoggedServer(const LoggedServer&) = delete;
    LoggedServer& operator=(const LoggedServer&) = delete;
    ~LoggedServer() {
        ServerProcess::useProgram(OKV_DATA_CENTER);
        close(log_);
    }

    /// Whether this process may make such a world.
    static bool isPossible() {
        return geteuid() == 0 && std::system("unshare -m true 2>/dev/null") == 0;
    }

    bool start(std::vector<std::string> options = {}) {
        options.emplace_back("--foreground");
        ServerProcess::useProgram(process.file("start"));
        return process.start(options);
    }

    /// The next line of the log, without its time and process; empty when none comes in time.
    std::string line(std::chrono::seconds within = std::chrono::seconds(30)) {
        const auto deadline = faults::Clock::now() + within;
        while (rest_.find('\n') == std::string::npos) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline - faults::Clock::now());
            pollfd entry{log_, POLLIN, 0};
            if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0)
                return {};
            char bytes[4096];
            const auto count = read(log_, bytes, sizeof bytes);
            if (count > 0) rest_.append(bytes, static_cast<std::size_t>(count));
        }
        const auto end = rest_.find('\n');
        const auto text = rest_.substr(0, end);
        rest_.erase(0, end + 1);
        const auto tag = text.find("] ");
        return tag == std::string::npos ? text : text.substr(tag + 2);
    }

    /// Fills the log's pipe to the brim, so that whoever writes a line stands still; answers how
    /// many bytes that took.
    std::size_t fillLog() const {
        std::size_t filled = 0;
        while (write(log_, "\n", 1) == 1) ++filled;
        return filled;
    }

    ServerProcess process;

private:
    std::string script(const std::string& fifo) const {
        return "#!/bin/sh\nexec 2>" + fifo + "\nexec unshare -m sh -c 'mount --bind " +
               process.file("group") +
               " /etc/group && exec \"$0\" \"$@\"' " OKV_DATA_CENTER " \"$@\"\n";
    }

    int log_ = -1;
    std::string rest_;
};

}  // namespace limits_test
