#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Protocol.h>
#include <OKVPlatform/ipc/Publication.h>
#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVPlatform/process/QuitEvent.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

namespace okv {

namespace {

constexpr char kAppsFolder[] = "apps";

/// What an application serves under its process's name.
class QuitProtocol {
public:
    virtual ~QuitProtocol() = default;
    /// Answers the error number, or nil when there is none to report.
    virtual Value quitApplication() = 0;
};

}  // namespace

template <>
inline constexpr auto protocol<QuitProtocol> =
    protocolTable(row<&QuitProtocol::quitApplication>("quitApplication"));

namespace {

std::string nameOf(std::int32_t pid) {
    return std::to_string(pid);
}

OSStatus statusOf(ConnectionError::Kind kind) noexcept {
    switch (kind) {
        case ConnectionError::Kind::timedOut:
            return errAETimeout;
        case ConnectionError::Kind::badData:
            return errAEReplyNotValid;
        case ConnectionError::Kind::notUnderstood:
            return errAEEventNotHandled;
        case ConnectionError::Kind::refusedPeer:
            return procNotFound;
        case ConnectionError::Kind::notSent:
        case ConnectionError::Kind::outcomeUnknown:
            break;
    }
    return connectionInvalid;
}

// Who lacks what it takes to ask has not found out whether anybody listens.
bool isWant(int error) noexcept {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

OSStatus statusOf(const ConnectedSocket& unreached) noexcept {
    return isWant(unreached.error) ? tmfoErr : procNotFound;
}

// Where a process that was killed left its name, another account's one with the same id cannot take
// it from the sticky folder: it goes by a name of its own. Nobody can guess that one and take it,
// too.
std::string otherNameOf(std::int32_t pid) {
    const auto now = RunLoop::Clock::now().time_since_epoch().count();
    return nameOf(pid) + "." + std::to_string(now);
}

std::vector<std::string> otherNamesIn(const std::string& folder, std::int32_t pid,
                                      std::error_code& error) {
    std::vector<std::string> names;
    std::filesystem::directory_iterator at(folder, error);
    for (; !error && at != std::filesystem::directory_iterator(); at.increment(error)) {
        auto name = at->path().filename().string();
        if (name.starts_with(nameOf(pid) + ".")) names.push_back(std::move(name));
    }
    return names;
}

ConnectedSocket reach(std::int32_t pid) {
    auto reached = connectToProcess(pid, nameOf(pid), kAppsFolder);
    if (reached.socket.isValid() || isWant(reached.error)) return reached;
    std::error_code error;
    for (const auto& name : otherNamesIn(runtimeDirectory() + "/" + kAppsFolder, pid, error)) {
        reached = connectToProcess(pid, name, kAppsFolder);
        if (reached.socket.isValid() || isWant(reached.error)) return reached;
    }
    if (error) reached.error = error.value();
    return reached;
}

// What is left of an event's time, over its several steps.
class Countdown {
public:
    explicit Countdown(std::int32_t ticks)
        : deadline_(Clock::now() +
                    std::chrono::milliseconds(std::int64_t{ticks} * 1000 / kTicksPerSecond)) {}

    /// Lets the connection's next step take as long as there is time left.
    void applyTo(Connection& connection) const {
        // 0 would mean "no limit" there.
        constexpr double kShortest = 0.001;
        const double left = std::chrono::duration<double>(deadline_ - Clock::now()).count();
        connection.setRequestTimeout(std::max(left, kShortest));
        connection.setReplyTimeout(std::max(left, kShortest));
    }

private:
    using Clock = RunLoop::Clock;
    Clock::time_point deadline_;
};

QuitReply ask(Connection& connection, const Countdown& time) {
    time.applyTo(connection);
    const auto root = connection.rootProxy();
    if (!root) return {errAEEventNotHandled, std::nullopt};
    time.applyTo(connection);
    const auto error = send<&QuitProtocol::quitApplication>(*root);
    if (error.isNil()) return {};
    if (!error.is<std::int64_t>()) return {errAEReplyNotValid, std::nullopt};
    return {noErr, error.intValue()};
}

}  // namespace

std::optional<QuitTarget> makeQuitTarget(const ProcessSerialNumber* psn) {
    if (psn == nullptr) return std::nullopt;
    const bool isProcess = psn->highLongOfPSN == 0 && psn->lowLongOfPSN <= INT32_MAX;
    return QuitTarget{isProcess ? static_cast<std::int32_t>(psn->lowLongOfPSN) : 0};
}

std::optional<QuitEvent> makeQuitEvent(const QuitTarget& target) {
    return QuitEvent{target};
}

QuitReply sendQuitEvent(const QuitEvent& event, std::int32_t ticks) {
    const auto pid = event.target.pid;
    const Countdown time(ticks);
    if (pid <= 0) return {procNotFound, std::nullopt};
    auto reached = reach(pid);
    if (!reached.socket.isValid()) return {statusOf(reached), std::nullopt};
    try {
        const auto connection =
            Connection::connectionWithSocket(std::move(reached.socket), std::move(reached.peer));
        if (!connection) return {tmfoErr, std::nullopt};
        return ask(*connection, time);
    } catch (const ConnectionError& error) {
        return {statusOf(error.kind()), std::nullopt};
    }
}

class QuitEventListener::Service final : public QuitProtocol {
public:
    Service(Handler handler, Permission mayAsk)
        : handler_(std::move(handler)), mayAsk_(std::move(mayAsk)) {}

    bool publish(std::string& why) {
        return publishAs(nameOf(getpid()), why) || publishAs(otherNameOf(getpid()), why);
    }

    Value quitApplication() override {
        const PeerIdentity& sender = Invocation::current()->caller();
        const OSStatus error = mayAsk_(sender) ? handler_(sender) : errAEEventNotPermitted;
        return error == noErr ? Value() : Value(error);
    }

private:
    bool publishAs(const std::string& name, std::string& why) {
        PublicationOptions options;
        options.name.subfolder = kAppsFolder;
        options.maxConnections = 32;
        options.maxConnectionsPerUid = 8;
        options.maxRequestBytes = 4096;
        publication_ = Publication::publish(name, rootObject<QuitProtocol>(*this), options, why);
        return publication_ != nullptr;
    }

    Handler handler_;
    Permission mayAsk_;
    Ref<Publication> publication_;
};

QuitEventListener::QuitEventListener(std::unique_ptr<Service> service)
    : service_(std::move(service)) {}
QuitEventListener::~QuitEventListener() = default;

bool QuitEventListener::isRootOrOwnUser(const PeerIdentity& sender) {
    return sender.isAccount() && (sender.uid == 0 || sender.uid == geteuid());
}

// Where nobody made it yet, by whoever may: open to all, and nobody takes another's name away. By
// descriptors, because the folder around it may be a lesser account's, which can put something else
// in its place at any time.
static void makeAppsFolder() {
    constexpr mode_t kSharedAndSticky = 01777;
    const auto runtime = PrivateDescriptor::opened(
        [] { return open(runtimeDirectory().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); });
    if (!runtime.isValid()) return;
    mkdirat(runtime.get(), kAppsFolder, 0700);
    const auto folder = PrivateDescriptor::opened([&] {
        return openat(runtime.get(), kAppsFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    });
    struct stat status {};
    if (!folder.isValid() || fstat(folder.get(), &status) != 0) return;
    // Also where somebody made it and ended before it was opened.
    const bool isOwnUnopened = status.st_uid == geteuid() && (status.st_mode & 01777) == 0700;
    if (isOwnUnopened) fchmod(folder.get(), kSharedAndSticky);
}

std::unique_ptr<QuitEventListener> QuitEventListener::start(Handler handler, Permission mayAsk,
                                                            std::string* why) {
    makeAppsFolder();
    auto service = std::make_unique<Service>(std::move(handler), std::move(mayAsk));
    std::string reason;
    if (service->publish(reason))
        return std::unique_ptr<QuitEventListener>(new QuitEventListener(std::move(service)));
    if (why != nullptr) *why = reason;
    return nullptr;
}

}  // namespace okv
