#include "Server.h"

#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVPlatform/values/PropertyListScalars.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace okvctl {

namespace {

using ErrorKind = okv::ConnectionError::Kind;
using RefusalKind = okv::Refusal::Kind;

constexpr std::chrono::milliseconds kLookUpAgain(20);

[[noreturn]] void fail(ExitCode code, std::string_view subject, const std::string& text) {
    throw ToolError(code, subject.empty() ? text : std::string(subject) + ": " + text);
}

const char* remedyFor(RefusalKind kind) {
    switch (kind) {
        case RefusalKind::notAllowed:
            return "; do it as root or as a member of the group okvadmin";
        case RefusalKind::locked:
            return "; an administrator can unlock it: okvctl unlock KEY";
        case RefusalKind::noSpace:
            return "; make room on the data server's disk";
        default:
            return "";
    }
}

}  // namespace

okv::Ref<okv::Connection> Server::tryOnce(std::string& why) {
    auto found = okv::connectToName(kOKVDataServerName);
    absent_ = found.error == ENOENT || found.error == ECONNREFUSED;
    why = found.why;
    if (!found.socket.isValid()) return nullptr;
    why = "the system has no room to watch one more connection";
    return okv::Connection::connectionWithSocket(std::move(found.socket), std::move(found.peer));
}

// One that is there is not to be started.
void Server::throwNotFound(const std::string& why) const {
    if (absent_)
        fail(ExitCode::notRunning, {},
             "the data server is not running: " + why + "; start OKVDataCenter");
    fail(ExitCode::notRunning, {}, "the data server cannot be used: " + why);
}

// The folder that the server will appear in need not be there yet, so there is nothing to watch:
// it is looked up again and again.
okv::Ref<okv::Connection> Server::lookUp() {
    using std::chrono::steady_clock;
    const auto start = steady_clock::now();
    for (;;) {
        std::string why;
        if (auto connection = tryOnce(why)) return connection;
        const std::chrono::duration<double> waited = steady_clock::now() - start;
        if (!wait_ || (timeout_ > 0 && waited.count() >= timeout_)) throwNotFound(why);
        std::this_thread::sleep_for(kLookUpAgain);
    }
}

okv::RemoteObject& Server::root() {
    if (root_) return *root_;
    auto connection = lookUp();
    connection->setRequestTimeout(timeout_);
    connection->setReplyTimeout(timeout_);
    auto root = connection->rootProxy();
    if (!root) fail(ExitCode::failure, {}, "the data server vends no root object");
    connection_ = std::move(connection);
    root_ = std::move(root);
    return *root_;
}

// The server's greeting is waited for, too, and may stay away.
void Server::connect() {
    try {
        root();
    } catch (const okv::ConnectionError& error) {
        throwFailure({}, error);
    }
}

void Server::disconnect() {
    root_ = nullptr;
    connection_ = nullptr;
}

void Server::throwRefusal(std::string_view subject, const okv::Refusal& refusal) {
    const bool denied =
        refusal.kind == RefusalKind::notAllowed || refusal.kind == RefusalKind::locked;
    fail(denied ? ExitCode::refused : ExitCode::failure, subject,
         "refused: " + refusal.reason + remedyFor(refusal.kind));
}

void Server::throwFailure(std::string_view subject, const okv::ConnectionError& error) {
    const std::string what = error.what();
    switch (error.kind()) {
        case ErrorKind::timedOut:
            fail(ExitCode::timeout, subject,
                 "no answer within " + okv::formatReal(timeout_) +
                     " s; a change may still be carried out (--timeout gives more time)");
        case ErrorKind::notSent:
        case ErrorKind::refusedPeer:
            fail(ExitCode::notRunning, subject, "the data server cannot be used: " + what);
        case ErrorKind::outcomeUnknown:
            fail(ExitCode::failure, subject,
                 "the data server went away before it answered, a change may have been made: " +
                     what);
        case ErrorKind::notUnderstood:
            fail(ExitCode::failure, subject,
                 "the data server does not know this request (another version?): " + what);
        case ErrorKind::badData:
            break;
    }
    fail(ExitCode::failure, subject, "the data server's answer is not understood: " + what);
}

void Server::throwTooLarge(std::string_view subject) {
    fail(ExitCode::failure, subject, "too large, or nested too deep, for a request");
}

void Server::throwNo(std::string_view subject, std::string_view no) {
    fail(ExitCode::failure, subject, std::string(no));
}

}  // namespace okvctl
