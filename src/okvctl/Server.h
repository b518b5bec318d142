#pragma once

#include "ToolError.h"

#include <OKVDataCenter/OKVDataAdmin_protocol.h>
#include <OKVDataManager/okvDataManager.h>

#include <OKVPlatform/ipc/Connection.h>

#include <string>
#include <string_view>

namespace okvctl {

/// The data server, as the tool talks to it. Looked up at the first question; every failure ends
/// the verb with the code that fits.
class Server {
public:
    /// Seconds for sending a request and for waiting for its reply, and with `wait` for a server
    /// that is not there yet; 0: no limit.
    explicit Server(double timeout, bool wait = false) : timeout_(timeout), wait_(wait) {}

    /// Asks and answers the result. `subject` is what the message of a failure begins with: the key
    /// or whatever else it is about, "" for nothing. Throws ToolError: refused, timed out, not
    /// running, failed.
    template <auto Method, class... Arguments>
    auto ask(std::string_view subject, const Arguments&... arguments) {
        try {
            auto answer = okv::sendForAnswer<Method>(root(), arguments...);
            if (answer.refusal) throwRefusal(subject, *answer.refusal);
            return std::move(answer.value);
        } catch (const okv::ConnectionError& error) {
            throwFailure(subject, error);
        } catch (const std::length_error&) {
            throwTooLarge(subject);
        }
    }

    /// Asks for a change; NO without a reason fails, too, with `no` as its reason.
    template <auto Method, class... Arguments>
    void change(std::string_view subject, std::string_view no, const Arguments&... arguments) {
        if (!ask<Method>(subject, arguments...)) throwNo(subject, no);
    }

    /// Looks the server up, unless it is connected already. Throws ToolError.
    void connect();
    /// Who serves; none without a connection.
    const okv::PeerIdentity* peer() const { return connection_ ? &connection_->peer() : nullptr; }
    /// Whether the last look-up met nobody: no runtime folder, no socket, or none that listens.
    bool isAbsent() const noexcept { return absent_; }
    bool isConnected() const { return connection_ && connection_->isValid(); }
    /// Forgets the connection; the next question makes a new one.
    void disconnect();

private:
    okv::RemoteObject& root();
    okv::Ref<okv::Connection> lookUp();
    okv::Ref<okv::Connection> tryOnce(std::string& why);
    [[noreturn]] void throwNotFound(const std::string& why) const;
    [[noreturn]] static void throwRefusal(std::string_view subject, const okv::Refusal& refusal);
    [[noreturn]] void throwFailure(std::string_view subject, const okv::ConnectionError& error);
    [[noreturn]] static void throwTooLarge(std::string_view subject);
    [[noreturn]] static void throwNo(std::string_view subject, std::string_view no);

    double timeout_;
    bool wait_;
    bool absent_ = false;
    okv::Ref<okv::Connection> connection_;
    okv::Ref<okv::RemoteObject> root_;
};

}  // namespace okvctl
