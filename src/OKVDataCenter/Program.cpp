#include "Program.h"

#include "BackgroundLog.h"
#include "BackupKeeper.h"
#include "Server.h"
#include "ServiceManager.h"
#include "SystemPoster.h"

#include <OKVDataManager/okvCmnUtil.h>
#include <OKVLog/OKVLog.h>
#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVPlatform/system/NSLog.h>
#include <OKVPlatform/values/ErrorText.h>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

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

    void serve(Server& server, ServiceManager& manager) {
        const auto act = [this, &server, &manager](std::uint32_t) {
            signalfd_siginfo info{};
            while (read(descriptor_.get(), &info, sizeof info) == sizeof info)
                info.ssi_signo == SIGHUP ? reload(server, manager) : server.end();
        };
        if (okv::RunLoop::current()->watch(descriptor_.get(), EPOLLIN, act) == 0)
            throw std::runtime_error("the system has no room to watch for signals");
    }

private:
    static void reload(Server& server, ServiceManager& manager) {
        manager.reloading();
        server.reload();
    }

    okv::PrivateDescriptor descriptor_;
};

// Open to everybody: who may do what is decided by the server.
bool makeRuntimeDirectory(const std::string& folder, std::string& why) {
    if (mkdir(folder.c_str(), 0755) == 0) return chmod(folder.c_str(), 0755) == 0;
    if (errno == EEXIST) return true;
    why = "cannot make the runtime folder " + folder + ": " + okv::errorText(errno);
    return false;
}

Rights rightsFor(const Options& options) {
    return Rights({options.selfService, geteuid(), administratorsGroup(kAdministrators)});
}

bool publish(Server& server, std::string& why) {
    int socket = ServiceManager::kNoSocket;
    if (!ServiceManager::takeSocket(socket, why)) return false;
    return socket != ServiceManager::kNoSocket ? server.adopt(socket, why) : server.publish(why);
}

// What SIGHUP reads again beside the store.
void lookAround(Rights& rights) {
    rights.setAdminGroup(administratorsGroup(kAdministrators, rights.adminGroup()));
    okv::setLogLevel(okvCmnUtil::logLevel());
}

Server::Surroundings surroundingsOf(ServiceManager& manager, NoticePoster& poster,
                                    const LogLine& log, const BackupKeeper& backups) {
    Server::Surroundings surroundings{poster, log};
    surroundings.backups = [&backups] { return backups.state(); };
    surroundings.lookAround = lookAround;
    surroundings.reloaded = [&manager](const std::string& failure) { manager.reloaded(failure); };
    surroundings.ending = [&manager] { manager.stopping(); };
    return surroundings;
}

void tellReady(Server& server, ServiceManager& manager) {
    manager.ready([&server] { return server.isWell(); });
    std::puts("ready");
    std::fflush(stdout);
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
    Limits limits;
    limits.connectionsPerUid = options.connectionsPerUid;
    Store store(options.store, limits,
                options.beginAfresh ? Store::Damaged::setAside : Store::Damaged::refuse);
    BackgroundLog lines(logFor(options));
    const LogLine log = [&lines](const std::string& line) { lines.add(line); };
    if (!store.setAside().empty())
        log("the store " + options.store + " was damaged: it is now " + store.setAside() +
            ", and an empty one was begun");
    SystemPoster poster(log);
    ServiceManager manager;
    const auto backups = okv::make<BackupKeeper>(options.store, options.backupInterval, log);
    Server server(store, rightsFor(options), surroundingsOf(manager, poster, log, *backups));
    if (!makeRuntimeDirectory(okv::runtimeDirectory(), why) || !publish(server, why))
        return fail(why);
    signals.serve(server, manager);
    poster.settle();  // who starts once the server is ready hears of nothing before
    tellReady(server, manager);
    backups->start();
    server.run();
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
                    "; it was left as it is: --restore brings the last good backup back, "
                    "--begin-afresh begins with an empty store; both set this one aside");
    } catch (const std::bad_alloc&) {
        return fail("no memory");
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}

}  // namespace datacenter
