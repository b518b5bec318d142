#pragma once

#include "Contest.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Those who take part: each does the same work, a key and an int in, a text of 32 bytes out,
/// answered by a process of its own.
namespace bench {

inline constexpr char kKey[] = "dc-gui-window_colour";
inline constexpr std::size_t kAnswerSize = 32;

using Call = std::function<void()>;

struct Peer {
    std::string name;
    std::vector<std::shared_ptr<ServerProcess>> servers;
    /// A client of its own, for the process that asks; every call of it is one request and answer.
    std::function<Call()> connect;
    /// Why it does not take part; empty when it does.
    std::string absent;
};

Peer absentPeer(const std::string& name, const std::string& why);

// Each starts its servers, in the folder of registered names that the environment tells. Those with
// a socket of their own put it into `folder`.
Peer rawStream(const std::string& folder);
Peer okvTransport();
/// The real data server with the value stored for everybody and for user 1. The key's three ways:
/// through a connection of one's own, through the data manager, and its read for the session's
/// user, which by rule makes two calls.
std::vector<Peer> dataServer(const std::string& folder);
Peer sdBusPeerToPeer(const std::string& folder);
Peer sdBusOverDaemon(const std::string& folder);
Peer sdBusOverBroker(const std::string& folder);
Peer sdbusCpp(const std::string& folder);
Peer capnProto(const std::string& folder);
Peer grpc(const std::string& folder);

/// What a server looks up: the one key.
const std::string& lookUp(std::string_view key);

// ---- Sockets ----

/// A listening Unix socket at the path.
int listenAt(const std::string& path);
/// A connection to it; -1 when there is none.
int connectTo(const std::string& path);
/// Accepts for ever and serves each connection in a thread of its own.
[[noreturn]] void serveEach(int listener, const std::function<void(int socket)>& serve);

}  // namespace bench
