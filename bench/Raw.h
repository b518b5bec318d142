#pragma once

#include "Contest.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

/// The least that a call can cost: as many bytes there and back over a blocking Unix stream, which
/// nobody looks at.
namespace bench {

/// So many bytes there, and then so many back.
struct Exchange {
    std::size_t request, reply;
};

/// One end of a stream of which every call is these exchanges, one after the other.
class RawEnd {
public:
    /// Takes the connected socket over.
    RawEnd(int socket, std::vector<Exchange> exchanges);
    RawEnd(const RawEnd&) = delete;
    RawEnd& operator=(const RawEnd&) = delete;
    ~RawEnd();

    /// The one end; gives the process up when the other is gone.
    void call();
    /// The other: answers every call until there is nobody left to answer.
    void answerAll();

private:
    bool receive(std::size_t size);
    bool send(std::size_t size);
    bool answer();

    const int socket_;
    const std::vector<Exchange> exchanges_;
    std::string bytes_;
};

/// Both ends, the answering one in a process of its own on the cores of this one.
class RawPeer {
public:
    explicit RawPeer(const std::vector<Exchange>& exchanges);

    void call() { client_->call(); }

private:
    std::unique_ptr<ServerProcess> server_;
    std::unique_ptr<RawEnd> client_;
};

}  // namespace bench
