#include "Program.h"

#include "Server.h"
#include "SystemPoster.h"

#include <OKVLog/OKVLog.h>
#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVPlatform/system/NSLog.h>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace datacenter {

namespace {

constexpr char kAdministrators[] = "okvadmin";

int fail(const std::string& why) {
    std::fprintf(stderr, "OKVDataCenter: %s\n", why.c_str());
    return EXIT_FAILURE;
}

/// The signals that the server acts upon, as a descriptor. Blocked before any thread is started.
class Signals {
public:
    Signals() {
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        std::signal(SIGPIPE, SIG_IGN);
        std::signal(SIGXFSZ, SIG_IGN);  // a file that may grow no further refuses the write instead
        descriptor_ = okv::PrivateDescriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    }

    void serve(Server& server) {
        okv::RunLoop::current()->watch(descriptor_.get(), EPOLLIN, [this, &server](std::uint32_t) {
            signalfd_siginfo info{};
            while (read(descriptor_.get(), &info, sizeof info) == sizeof info)
                info.ssi_signo == SIGHUP ? server.reload() : server.end();
        });
    }

private:
    okv::PrivateDescriptor descriptor_;
};

// Open to everybody: who may do what is decided by the server.
bool makeRuntimeDirectory(const std::string& folder, std::string& why) {
    if (mkdir(folder.c_str(), 0755) == 0) return chmod(folder.c_str(), 0755) == 0;
    if (errno == EEXIST) return true;
    why = "cannot make the runtime folder " + folder + ": " + std::strerror(errno);
    return false;
}

Rights rightsFor(const Options& options) {
    return Rights({options.selfService, geteuid(), administratorsGroup(kAdministrators)});
}

bool publish(Server& server, std::string& why) {
    const int handedOver = sd_listen_fds(1);
    if (handedOver > 1) {
        why = "the service manager handed over more than one socket";
        return false;
    }
    return handedOver == 1 ? server.adopt(SD_LISTEN_FDS_START, why) : server.publish(why);
}

// As often as the service manager asks for, as long as the run loop turns.
void feedWatchdog(std::chrono::microseconds every) {
    sd_notify(0, "WATCHDOG=1");
    okv::RunLoop::current()->performAfter(every, [every] { feedWatchdog(every); });
}

void tellReady() {
    sd_notify(0, "READY=1");
    std::puts("ready");
    std::fflush(stdout);
    std::uint64_t within = 0;
    if (sd_watchdog_enabled(0, &within) > 0) feedWatchdog(std::chrono::microseconds(within / 2));
}

LogLine logFor(const Options& options) {
    if (options.foreground) return [](const std::string& line) { okv::NSLog("%s", line.c_str()); };
    return [](const std::string& line) { OKVSystemLog(okv::kDefaultLogLevel, "%s", line.c_str()); };
}

// As many clients as the system lets this process have.
void takeAllDescriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int serveStore(const Options& options, Signals& signals) {
    std::string why;
    takeAllDescriptors();
    Store store(options.store, Limits(),
                options.beginAfresh ? Store::Damaged::setAside : Store::Damaged::refuse);
    const auto log = logFor(options);
    if (!store.setAside().empty())
        log("the store " + options.store + " was damaged: it is now " + store.setAside() +
            ", and an empty one was begun");
    SystemPoster poster(log);
    Server server(store, rightsFor(options), {poster, log});
    if (!makeRuntimeDirectory(okv::runtimeDirectory(), why) || !publish(server, why))
        return fail(why);
    signals.serve(server);
    tellReady();
    server.run();
    sd_notify(0, "STOPPING=1");
    return EXIT_SUCCESS;
}

}  // namespace

int serve(const Options& options) {
    if (!options.runtimeDirectory.empty())
        setenv("OKV_RUNTIME_DIR", options.runtimeDirectory.c_str(), 1);
    Signals signals;
    try {
        return serveStore(options, signals);
    } catch (const StoreDamaged& error) {
        return fail(std::string(error.what()) +
                    "; it was left as it is, --begin-afresh sets it aside and begins anew");
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}

}  // namespace datacenter
