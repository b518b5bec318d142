#include "Raw.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace bench {

namespace {

std::size_t largestOf(const std::vector<Exchange>& exchanges) {
    std::size_t largest = 0;
    for (const auto& exchange : exchanges)
        largest = std::max({largest, exchange.request, exchange.reply});
    return largest;
}

}  // namespace

RawEnd::RawEnd(int socket, std::vector<Exchange> exchanges)
    : socket_(socket), exchanges_(std::move(exchanges)), bytes_(largestOf(exchanges_), 'r') {}

RawEnd::~RawEnd() {
    close(socket_);
}

void RawEnd::call() {
    for (const auto& exchange : exchanges_) {
        if (!send(exchange.request) || !receive(exchange.reply)) std::abort();
    }
}

void RawEnd::answerAll() {
    while (answer()) {
    }
}

bool RawEnd::answer() {
    return std::all_of(exchanges_.begin(), exchanges_.end(), [this](const Exchange& exchange) {
        return receive(exchange.request) && send(exchange.reply);
    });
}

bool RawEnd::receive(std::size_t size) {
    return recv(socket_, bytes_.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

bool RawEnd::send(std::size_t size) {
    return ::send(socket_, bytes_.data(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

RawPeer::RawPeer(const std::vector<Exchange>& exchanges) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("no pair of sockets");
    server_ = std::make_unique<ServerProcess>([&](const auto& ready) {
        close(ends[0]);
        ready();
        RawEnd(ends[1], exchanges).answerAll();
    });
    close(ends[1]);
    client_ = std::make_unique<RawEnd>(ends[0], exchanges);
}

}  // namespace bench
