#include "Support.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

extern char** environ;

namespace faults {

namespace {

constexpr int kArrivalWithinMilliseconds = 30000;

}  // namespace

bool set(okv::RemoteObject& root, const std::string& key, const okv::Value& value) {
    return okv::send<&Data::setOKVDataPT_value_appUid>(root, key, value, 1);
}

okv::Value get(okv::RemoteObject& root, const std::string& key) {
    return okv::send<&Data::okvDataPT_appUid>(root, key, 1);
}

okv::Dictionary status(okv::RemoteObject& root) {
    return okv::send<&Admin::serverStatusPT>(root).as<okv::Dictionary>();
}

std::string optionsForPreloading() {
    const char* given = std::getenv("ASAN_OPTIONS");
    return (given != nullptr ? std::string(given) + ":" : std::string()) +
           "verify_asan_link_order=0";
}

int runTool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), OKV_OKVCTL);
    std::vector<char*> words;
    for (auto& argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int failure = posix_spawn(&pid, OKV_OKVCTL, &actions, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (failure != 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

HoldableDisk::HoldableDisk(const std::string& gate)
    : preload_("LD_PRELOAD", OKV_SLOW_FSYNC),
      check_("ASAN_OPTIONS", optionsForPreloading()),
      gate_("OKV_FSYNC_GATE", gate) {}

Gate::Gate(std::string path) : path_(std::move(path)) {
    const auto making = path_ + ".new";
    if (mkfifo(making.c_str(), 0600) != 0) throw std::runtime_error("no FIFO");
    fifo_ = open(making.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fifo_ < 0 || rename(making.c_str(), path_.c_str()) != 0)
        throw std::runtime_error("no gate");
}

bool Gate::awaitArrival() const {
    pollfd entry{fifo_, POLLIN, 0};
    return poll(&entry, 1, kArrivalWithinMilliseconds) == 1 && (entry.revents & POLLIN) != 0;
}

// First away, so that nobody else comes.
void Gate::letGo() {
    if (fifo_ < 0) return;
    unlink(path_.c_str());
    close(fifo_);
    fifo_ = -1;
}

Mourner::Mourner() {
    okv::NotificationCenter::defaultCenter().addObserver(*this, &Mourner::note,
                                                         okv::NSConnectionDidDieNotification);
}

void Mourner::dealloc() {
    okv::NotificationCenter::defaultCenter().removeObserver(*this,
                                                            okv::NSConnectionDidDieNotification);
}

void Mourner::note(const okv::LocalNotification& notice) {
    const std::lock_guard lock(mutex_);
    ++deaths_[notice.object];
}

int Mourner::deathsOf(const okv::Connection& connection) const {
    const std::lock_guard lock(mutex_);
    const auto found = deaths_.find(&connection);
    return found != deaths_.end() ? found->second : 0;
}

}  // namespace faults
