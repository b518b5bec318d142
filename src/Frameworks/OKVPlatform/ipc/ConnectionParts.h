#pragma once

#include <OKVPlatform/ipc/Connection.h>

#include <condition_variable>
#include <exception>
#include <string>

// What the two halves of a connection share: calls (Connection.cpp) and reading
// (ConnectionReading.cpp).
namespace okv {

struct Connection::PendingCall {
    // "answered" has a payload that its caller has yet to read; "read" has nothing left to be done.
    enum class State { waiting, answered, read, unreadable, notUnderstood, failed };

    std::uint32_t serial = 0;  // 0 waits for the greeting
    bool onLoopThread = false;
    bool leads = false;
    bool isLinked = false;  // touched by the calling thread alone
    State state = State::waiting;
    ReplyReader* reader = nullptr;
    std::string payload;
    std::exception_ptr unreadable;

    /// Takes the reply from where it was received; lock held, so that it stays there.
    void readInPlace(std::string_view reply) noexcept;
    /// Wakes the caller up where it sleeps, while another reads; lock held.
    void wake() noexcept {
        if (turn != nullptr) turn->notify_one();
    }
    std::condition_variable* turn = nullptr;
};

/// Why a connection ends of which the kernel would tell nothing.
inline constexpr char kUnwatched[] = "the system has no room to watch one more connection";

/// Waits until the socket is ready or the deadline is over; answers whether it is ready.
bool waitFor(int socket, short events, RunLoop::Clock::time_point deadline);

}  // namespace okv
